"""The editor's subsystems, one instance each."""
from ._actors import Actor, SkeletalMeshActor, StaticMeshActor
from ._editor import Event, editor
from ._level import open_level
from ._meshes import SkeletalMesh, StaticMesh
from ._math import Rotator, Transform, Vector
from ._object import Object, type_of
from ._play import nothing, refused_in_play
from ._values import Array, _refuse, f32


class EditorSubsystem(Object):
    __slots__ = ()
    EVENTS = ()

    def __init__(self):
        super().__init__(f"/Engine/Transient.{type(self).__name__}")
        self._p.update((key, Event()) for key in self.EVENTS)


def event(value):
    return value if isinstance(value, Event) else _refuse(value, "MulticastDelegateProperty")


def get_editor_subsystem(subsystem):
    """The instance of a subsystem class; raises TypeError for anything else."""
    instance = editor.subsystems.get(subsystem)
    if instance is None:
        if not (isinstance(subsystem, type) and issubclass(subsystem, EditorSubsystem)):
            raise TypeError(f"get_editor_subsystem: {subsystem!r} is no subsystem class")
        instance = editor.subsystems[subsystem] = subsystem()
    return instance


def spawn(kind, location, rotation=None, class_name=None, label=None):
    """A new actor in the open level, under the editor's default label; None without a level."""
    level = editor.level
    if level is None:
        return None
    transform = Transform(location, rotation)  # refuses wrong types before anything is made
    actor = level.make(kind, class_name)
    actor._label = level.default_label(label or actor._class_name.removesuffix("_C"))
    actor._root._place_in_world(transform)
    level.note_new(actor)
    return actor


def duplicate(source, offset):
    level = editor.level
    actor = level.copy_of(source)
    base = source._label.rstrip("0123456789") or source._label
    taken = {a._label for a in level.actors.values()}
    while actor._label in taken:
        actor._label = level.default_label(base)
    actor._root._place(location=actor._root._xf.translation + offset)
    level.note_new(actor)
    return actor


def _living(actor):
    if not isinstance(actor, Actor):
        raise TypeError(f"Cannot nativize '{type(actor).__name__}' as 'Actor'")
    return actor._valid


def _selected(actor):
    """What scripts add to the level becomes the selection."""
    if actor:
        editor.selection[:] = [actor]
    return actor


class EditorActorSubsystem(EditorSubsystem):
    __slots__ = ()

    @refused_in_play(Array)
    def get_all_level_actors(self):
        level = editor.level
        return Array(level.actors.values()) if level else Array()

    @refused_in_play(Array)
    def get_selected_level_actors(self):
        return Array(editor.selection)

    @refused_in_play(nothing)
    def set_selected_level_actors(self, actors_to_select):
        editor.selection[:] = dict.fromkeys(a for a in actors_to_select if a and _living(a))

    @refused_in_play(nothing)
    def spawn_actor_from_object(self, object_to_use, location, rotation=None, transient=False):
        for kind, actor_kind, component, key in (
                (StaticMesh, StaticMeshActor, "static_mesh_component", "static_mesh"),
                (SkeletalMesh, SkeletalMeshActor, "skeletal_mesh_component",
                 "skeletal_mesh_asset")):
            if isinstance(object_to_use, kind):
                actor = spawn(actor_kind, location, rotation,
                              label=object_to_use._path.rsplit(".", 1)[-1])
                if actor:
                    actor._p[component]._set(key, object_to_use)
                return _selected(actor)
        return None

    @refused_in_play(nothing)
    def spawn_actor_from_class(self, actor_class, location, rotation=None, transient=False):
        kind = type_of(actor_class)
        if not issubclass(kind, Actor):
            raise TypeError(f"Cannot nativize '{actor_class!r}' as a class of actors")
        return _selected(spawn(kind, location, rotation))

    @refused_in_play(nothing)
    def duplicate_actor(self, actor_to_duplicate, to_world=None, offset=None):
        if editor.level is None or not _living(actor_to_duplicate):
            return None
        return _selected(duplicate(actor_to_duplicate, offset or Vector()))

    @refused_in_play(bool)
    def destroy_actor(self, actor_to_destroy):
        if actor_to_destroy is None or not _living(actor_to_destroy):
            return False
        editor.level.destroy(actor_to_destroy)
        return True

    @refused_in_play(bool)
    def destroy_actors(self, actors_to_destroy):
        living = [a for a in actors_to_destroy if _living(a)]
        for actor in living:
            editor.level.destroy(actor)
        return len(living) == len(actors_to_destroy)


def _camera(pane):
    if pane is None or not pane.has_camera:
        return None
    return pane.location._copy(), pane.rotation._copy()


def _set_camera(pane, location, rotation):
    if not isinstance(location, Vector) or not isinstance(rotation, Rotator):
        raise TypeError("a viewport's camera takes a Vector and a Rotator")
    if pane is not None and pane.has_camera:
        pane.location = location._copy()
        pane.rotation = rotation._copy()


class UnrealEditorSubsystem(EditorSubsystem):
    __slots__ = ()

    def get_editor_world(self):
        return editor.level.world if editor.level else None

    def _pane(self):
        active = editor.active_pane
        return active if active.has_camera else next(p for p in editor.panes if p.has_camera)

    def get_level_viewport_camera_info(self):
        return _camera(self._pane())

    def set_level_viewport_camera_info(self, camera_location, camera_rotation):
        _set_camera(self._pane(), camera_location, camera_rotation)


class LevelEditorSubsystem(EditorSubsystem):
    __slots__ = ()
    EVENTS = ("on_editor_camera_moved",)
    PROPS = {"on_editor_camera_moved": (event, None)}

    def is_in_play_in_editor(self):
        return editor.playing

    def editor_invalidate_viewports(self):
        editor.redraws += 1

    def get_active_viewport_config_key(self):
        return editor.active_pane.key

    def get_level_viewport_camera_info(self, viewport_config_key=""):
        return _camera(editor.pane(viewport_config_key))

    def set_level_viewport_camera_info(self, camera_location, camera_rotation,
                                       viewport_config_key=""):
        _set_camera(editor.pane(viewport_config_key), camera_location, camera_rotation)

    def get_level_viewport_fov(self, viewport_config_key=""):
        pane = editor.pane(viewport_config_key)
        return pane.fov if pane and pane.has_camera else None

    def set_level_viewport_fov(self, fov, viewport_config_key=""):
        pane = editor.pane(viewport_config_key)
        if pane and pane.has_camera:
            pane.fov = f32(fov)

    @refused_in_play(bool)
    def load_level(self, asset_path):
        return open_level(asset_path)


class EditorAssetSubsystem(EditorSubsystem):
    __slots__ = ()

    @refused_in_play(bool)
    def delete_loaded_assets(self, assets_to_delete):
        """Deletes them, whatever names them; False if the disk refuses one, which stays."""
        return all([asset._delete() for asset in assets_to_delete if asset is not None])


class ImportSubsystem(EditorSubsystem):
    __slots__ = ()
    EVENTS = ("on_asset_reimport",)
    PROPS = {"on_asset_reimport": (event, None)}
