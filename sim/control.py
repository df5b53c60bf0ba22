"""The test side of the editor stand-in: the user's hands, the clock, and the things that break.

    import sim
    ed = sim.Editor(tmp_path)               # project "Demo", level /Game/Maps/Main, empty if new
    import unreal                           # the scripting module, as the link imports it

There is one editor per process; making it again resets everything and heals all faults, but not
what scripts keep elsewhere (modules, `builtins`). On the same folder it is a restart: levels come
back as they were saved last, what wasn't saved is lost. Floats of the engine have 32 bits: compare
what is read back with a tolerance.

As in the editor: listings are `unreal.Array`, no list; what a script spawns or duplicates becomes
the selection (what `ed.spawn` makes doesn't); a rotation is kept as a Rotator; a fetched struct is
a copy; a destroyed actor is invalid but answers until it is collected, and its name is given out
again once undo has let go of it; selection and meshes are part of undo. tests/data/unreal_api.txt
has the whole interface, one line an operation; a test holds the stand-in against it.

Time       ed.tick(n, dt); ed.slate_tick(dt) for a second Slate tick in the same frame
Log        ed.log, a list of (level, text), level "log", "warning" or "error"; ed.clear_log()
Level      ed.spawn, spawn_blueprint, duplicate, move, set, delete, select, rename, retag;
           attach; ed.actor(label), ed.actors(), ed.selection(), ed.state(); each edit is one undo
           step. ed.alter(label=, folder=, transform=) has the editor alter what scripts set;
           ed.collect_garbage() takes destroyed actors away for good
           spawn_landscape; reconstruct runs a Blueprint actor's construction script
Assets     ed.make_mesh, make_skeletal_mesh, make_material, import_file (GLB, FBX, images), edit_mesh,
           reimport, reload_asset, delete_asset; all are files under Content/. A save that the disk
           refuses is an error in the log and leaves the old file. A rig that is told to update in
           the editor plays while ed.tick runs: `_p["_position"]` of its component, in seconds
Play       ed.play(), ed.stop_play(); scripts may not list, add, delete or load levels meanwhile:
           such a call gives nothing and logs an error
Levels     ed.open_level, new_level, save, begin_level_change/end_level_change; add_sublevel,
           remove_sublevel; unload, reload (World Partition, which alone has actor descriptors);
           the user's ways save the old level first, a script's load_level drops its changes
Undo       ed.undo(), redo(), history (titles, oldest first), clear_history()
Viewports  ed.panes (0 and 1 perspective, 2 and 3 orthographic), activate_pane, move_view,
           ed.redraws counts the redraws asked for
Menus      ed.menu(name), ed.run_menu(name, entry), ed.menu_refreshes
Landscape  ed.landscape_mode() opens the panel that holds the brush settings and returns it
Faults     ed.inject, remove, heal, record, operations

Faults: ed.inject("Actor.get_actor_label") makes the next call raise RuntimeError("injected");
`after` calls go well first, then `times` fail (None: all), of those for which `when(*args)` holds
(args as the call has them, for methods with self in front; so `when=lambda obj, name, *rest:
name == "intensity"` picks one property); `result=` answers instead of raising. The returned object
counts in `hits`. ed.remove("LevelEditorSubsystem") or ed.remove("Actor.get_folder_path") takes a
name away. with ed.record() as called: ... collects the operations called; any of them can be
injected. sim.windows has the window system to put in place of that of `ctypes`.
"""
import contextlib
import enum
import os

import unreal
from unreal import (_blueprints, _importing, _landscape, _level, _libraries, _menus, _meshes, _packages, _play,
                    _subsystems, _transactions)
from unreal._editor import editor
from unreal._values import Struct

from . import faults

_faults = faults.Faults()


@contextlib.contextmanager
def _step(title):
    """One undo step of the user's."""
    editor.history.begin(title)
    try:
        yield
    finally:
        editor.history.end()


def _vector(v):
    return v if isinstance(v, unreal.Vector) else unreal.Vector(*v)


def _rotator(r):
    """A Rotator, or (pitch, yaw, roll) in degrees."""
    return r if isinstance(r, unreal.Rotator) else unreal.Rotator(r[2], r[0], r[1])


class Editor:
    def __init__(self, project_dir, name="Demo"):
        _faults.heal()
        editor.reset(project_dir, name)
        editor.history = _transactions.History()
        editor.menus = _menus.ToolMenus()
        self._console = {"__name__": "__main__"}
        self._changing_to = None
        _libraries.add_default_objects()
        _meshes.add_engine_assets()
        _packages.find_packages()
        _level.Level("/Engine/Maps/Entry").save()
        _level.find_levels()
        if not _level.open_level("/Game/Maps/Main"):
            self.new_level("/Game/Maps/Main")

    @property
    def project_dir(self):
        return editor.project_dir

    # Time and log.

    def tick(self, n=1, dt=1.0 / 60.0):
        """`n` frames: the frame counter goes up, then the post-tick callbacks run."""
        for _ in range(n):
            editor.frame += 1
            for actor in self.actors():
                for component in actor._components:
                    if isinstance(component, unreal.SkeletalMeshComponent):
                        component._advance(dt)
            self.slate_tick(dt)

    def slate_tick(self, dt=1.0 / 60.0):
        """Run the post-tick callbacks again within the same frame, as a modal dialog does."""
        for callback in list(editor.ticks.values()):
            editor.guarded(callback, dt)

    @staticmethod
    def guarded(function, *args):
        """Run a script's function; what it raises becomes an error in the log."""
        return editor.guarded(function, *args)

    @property
    def log(self):
        return editor.log

    def clear_log(self):
        editor.log.clear()

    # Edits by the user. Each is one undo step.

    def spawn(self, kind, label=None, location=(0, 0, 0), folder="", tags=(), mesh=None,
              rotation=(0, 0, 0), scale=(1, 1, 1), **props):
        """A new actor of a class or class name; `props` go to the actor or else its components.

        rotation: (pitch, yaw, roll) in degrees; mesh: a static mesh or its path.
        """
        kind = getattr(unreal, kind) if isinstance(kind, str) else kind
        with _step("Create Actors"):
            actor = _subsystems.spawn(kind, _vector(location))
            self._dress(actor, label, location, rotation, scale, folder, tags)
            if mesh is not None:
                self._set(actor, "static_mesh", self._mesh(mesh))
            for key, value in props.items():
                self._set(actor, key, value)
        return actor

    def spawn_blueprint(self, class_name, label=None, parts=(), location=(0, 0, 0), folder="",
                        tags=(), rotation=(0, 0, 0), scale=(1, 1, 1)):
        """An actor of a Blueprint class with a mesh component per part, a (mesh, location) pair."""
        with _step("Create Actors"):
            actor = _subsystems.spawn(unreal.Actor, _vector(location), class_name=class_name)
            self._dress(actor, label, location, rotation, scale, folder, tags)
            _blueprints.construct(actor, [_blueprints.part_of(self._mesh(mesh), at, i)
                                          for i, (mesh, at) in enumerate(parts)])
        return actor

    def spawn_landscape(self, label, heights, quads=63, **where):
        """A landscape of whole components of `quads` quads a side over a grid of 16-bit heights."""
        land = self.spawn("Landscape", label, **where)
        _landscape.grow(land, heights, quads)
        return land

    def reconstruct(self, actor):
        """Run a Blueprint actor's construction script: its components die, others take their names."""
        _blueprints.construct(actor)

    def add_component(self, actor, kind, name=None, location=(0, 0, 0), mesh=None):
        """A component placed relative to its actor; named after its class when `name` is None."""
        count = sum(type(c) is kind for c in actor._components)
        component = actor._add(kind, name or f"{kind.__name__}{count}")
        component._place(_vector(location))
        if mesh is not None:
            component._set("static_mesh", self._mesh(mesh))
        return component

    def _dress(self, actor, label, location, rotation, scale, folder, tags):
        actor._root._place(_vector(location), _rotator(rotation), _vector(scale))
        actor._label = actor._label if label is None else label
        actor._folder = unreal.Name(folder)
        actor._set("tags", tags)

    def _mesh(self, mesh):
        found = _packages.find_asset(mesh) if isinstance(mesh, str) else mesh
        if found is None:
            raise ValueError(f"no mesh {mesh}")
        return found

    def _set(self, actor, key, value):
        for obj in (actor, *actor._components):
            if key in obj._schema:
                return obj._assign(key, value)
        raise AttributeError(f"{actor!r} has no property {key}")

    def set(self, actor, **props):
        """Change properties of an actor or its components, as in the details panel."""
        with _step("Edit " + ", ".join(props)):
            for key, value in props.items():
                self._set(actor, key, value)

    def duplicate(self, actor, offset=(0, 0, 0)):
        with _step("Duplicate"):
            return _subsystems.duplicate(actor, _vector(offset))

    def move(self, actor, location=None, rotation=None, scale=None):
        """Move one actor, within what it is attached to; what is None stays.

        rotation: (pitch, yaw, roll) in degrees.
        """
        with _step("Move Actors"):
            actor._modify()
            actor._root._place(location and _vector(location), rotation and _rotator(rotation),
                               scale and _vector(scale))

    def rename(self, actor, label=None, folder=None):
        with _step("Rename Actors"):
            actor._modify()
            actor._label = actor._label if label is None else label
            actor._folder = actor._folder if folder is None else unreal.Name(folder)

    def retag(self, actor, *tags):
        self.set(actor, tags=tags)

    def delete(self, *actors):
        with _step("Delete Actors"):
            for actor in actors:
                editor.level.destroy(actor)

    def select(self, *actors):
        editor.selection[:] = actors

    def selection(self):
        return list(editor.selection)

    def actors(self):
        return list(editor.level.actors.values()) if editor.level else []

    def actor(self, label):
        """The first actor of that label; None if there is none."""
        return next((a for a in self.actors() if a._label == label), None)

    def state(self):
        """The whole level in plain values, to compare with itself at another time; not where an
        animation stands that plays."""
        return {a._path: {"class": a._class_name, "label": a._label, "folder": str(a._folder),
                          "props": _plain({k: a._p[k] for k in a._schema}),
                          "components": {c._path: _plain(c._state()) for c in a._components}}
                for a in self.actors()}

    # Undo.

    def undo(self):
        editor.history.undo()

    def redo(self):
        editor.history.redo()

    @property
    def history(self):
        return [title for title, *_ in editor.history.done]

    def clear_history(self):
        editor.history.clear()

    # Assets.

    def make_mesh(self, path, bounds=((-50, -50, 0), (50, 50, 100)), slots=("Mat",)):
        """A saved static mesh, a box in its first slot, with a material of its own, beside it, in
        each slot."""
        mesh = unreal.StaticMesh(path)
        folder = _packages.package_of(path).rsplit("/", 1)[0]
        mesh._set_sections([_meshes.box_section(*bounds)] + [{k: () for k in _meshes.PIECES}
                                                             for _ in slots[1:]])
        mesh._set("static_materials", [unreal.StaticMaterial(
            material_interface=_packages.find_asset(f"{folder}/M_{s}")
            or self.make_material(f"{folder}/M_{s}"), material_slot_name=s) for s in slots])
        mesh._save()
        return mesh

    def make_skeletal_mesh(self, path):
        mesh = unreal.SkeletalMesh(path)
        mesh._set_sections([_meshes.box_section((-50, -50, 0), (50, 50, 180))])
        mesh._save()
        return mesh

    def make_material(self, path, parent=None):
        """A saved material, or an instance of `parent`."""
        if parent is None:
            material = unreal.Material(path)
        else:
            material = unreal.MaterialInstanceConstant(path)
            material._set("parent", parent)
        material._save()
        return material

    def edit_mesh(self, mesh, *sections, bounds=None):
        """Change a mesh's geometry, as the mesh editor does; it stays unsaved. `sections`: a map of
        positions, indices, normals, uvs for each slot; or else a box of these bounds."""
        with _step("Edit Mesh"):
            mesh._modify()
            mesh._set_sections(sections or [_meshes.box_section(*bounds)])

    def import_file(self, file, folder="/Game/Imported", name=""):
        """What dropping a file into the content browser does; the assets that it made, unsaved."""
        task = unreal.AssetImportTask()
        task.set_editor_properties({"filename": str(file), "destination_path": folder,
                                    "destination_name": name, "replace_existing": True})
        unreal.AssetToolsHelpers.get_asset_tools().import_asset_tasks([task])
        return [_packages.find_asset(p) for p in task.imported_object_paths]

    def reload_asset(self, asset):
        """Drop what wasn't saved of it."""
        _packages.reload(asset)

    def reimport(self, asset, file=None):
        """Import an asset anew, unsaved, from a file or as it is; the listeners get it, or None if the
        file doesn't give it."""
        if file is None:
            asset._dirtied()
        elif asset not in self._import_over(asset, file):
            asset = None
        _subsystems.get_editor_subsystem(unreal.ImportSubsystem).on_asset_reimport._fire(asset)

    def _import_over(self, asset, file):
        folder, _, name = asset._package().rpartition("/")
        if os.path.splitext(file)[1].lower() != ".glb":
            return self.import_file(file, folder, name)
        try:
            return _importing.import_over(asset, file)
        except (OSError, ValueError) as error:
            unreal.log_error(f"LogInterchangeEngine: Failed to import '{file}': {error}")
            return []

    def delete_asset(self, asset):
        asset._delete()

    def save(self):
        """Save the level and all assets."""
        editor.level.save()
        for asset in list(editor.dirty.values()):
            asset._save()

    # Play and levels.

    def play(self):
        _play.start()

    def stop_play(self):
        _play.stop()

    def new_level(self, path, partitioned=False):
        """Save the open level; make, save and open an empty one."""
        if editor.level:
            editor.level.save()
        level = _level.Level(path)
        level.partitioned = partitioned
        level.save()
        self.open_level(path)

    def open_level(self, path):
        """Save the open level and open another; raises ValueError if there is none at the path."""
        self.begin_level_change(path)
        self.end_level_change()

    def begin_level_change(self, path):
        """As open_level, but stop half-way: the old world is gone, the new one not yet there."""
        if _packages.package_of(path) not in editor.levels:
            raise ValueError(f"no level {path}")
        if editor.level:
            editor.level.save()
        _level.close_level()
        self._changing_to = path

    def end_level_change(self):
        _level.open_level(self._changing_to)

    def unload(self, actor):
        """World Partition takes the actor out of the level, which becomes partitioned with the
        first one; it stays on disk."""
        editor.level.partitioned = True
        editor.level.take(actor)
        editor.level.unloaded[actor._path] = actor

    def reload(self, actor):
        """Bring an unloaded actor back."""
        editor.level.put(editor.level.unloaded.pop(actor._path))

    def add_sublevel(self, path, current=True):
        """Load a saved level as a sublevel, or add an empty one; new actors go there if current."""
        home = editor.level.add_sublevel(path)
        editor.level.current = home if current else editor.level.current

    def remove_sublevel(self, path):
        """Its actors leave the level at once and no longer answer; undo is over."""
        editor.level.remove_sublevel(path)

    def alter(self, **changes):
        """What the editor makes of what a script sets: label=, folder= or transform= a function
        (actor, value) -> value; None ends it. A level that is opened anew keeps them."""
        editor.alter.update(changes)

    def attach(self, child, parent=None):
        """Hang an actor on another, or on nothing; it stays where it is."""
        rule = unreal.AttachmentRule.KEEP_WORLD
        with _step("Attach actors"):
            if parent:
                child.attach_to_actor(parent, "", rule, rule, rule)
            else:
                child.detach_from_actor(rule, rule, rule)

    def collect_garbage(self):
        """Destroyed actors no longer answer, but those that undo can bring back."""
        _level.collect_garbage()

    # Viewports, menus, panels.

    @property
    def panes(self):
        return editor.panes

    @property
    def redraws(self):
        return editor.redraws

    def activate_pane(self, index):
        editor.active_pane = editor.panes[index]

    def move_view(self, location=None, rotation=None, fov=None, pane=None, event=True):
        """Move a pane's camera as the user does, by default the active one; it becomes active.

        rotation: (pitch, yaw, roll) in degrees. `event` false moves without telling listeners.
        """
        moved = editor.active_pane if pane is None else editor.panes[pane]
        editor.active_pane = moved
        moved.location = moved.location if location is None else _vector(location)
        moved.rotation = moved.rotation if rotation is None else _rotator(rotation)
        moved.fov = moved.fov if fov is None else fov
        if event:
            _subsystems.get_editor_subsystem(unreal.LevelEditorSubsystem).on_editor_camera_moved._fire(
                moved.location._copy(), moved.rotation._copy(), moved.kind, moved.index)

    def menu(self, name):
        """A menu's sections: name -> list of entries, each a map of its properties as text."""
        menu = editor.menus._menus[name]
        return {section: [{k: str(v) for k, v in (entry._p | entry._shown).items()}
                          for entry in entries.values()]
                for section, (_, entries) in menu._sections.items()}

    @property
    def menu_refreshes(self):
        return editor.menus._refreshes

    def run_menu(self, menu_name, entry_name):
        """Click an entry; its Python command runs in the console's namespace, errors are logged."""
        for _, entries in editor.menus._menus[menu_name]._sections.values():
            if entry_name in entries:
                editor.guarded(exec, entries[entry_name]._shown["command"], self._console)
                return
        raise KeyError(f"no entry {entry_name} in {menu_name}")

    def landscape_mode(self):
        path = "/Engine/Transient.UISettings"
        return editor.objects.setdefault(path, _libraries.LandscapeEditorObject(path))

    # Faults.

    def inject(self, target, error=None, times=1, after=0, when=None,
               result=faults.ABSENT):
        return _faults.inject(target, error, times, after, when, result)

    def remove(self, target):
        _faults.remove(target)

    def heal(self):
        _faults.heal()

    def record(self):
        return _faults.record()

    def operations(self):
        return faults.operations()


def _plain(value):
    """Plain values all the way down: objects by path, structs as maps."""
    if isinstance(value, unreal.Object):
        return value._path
    if isinstance(value, enum.Enum):
        return value.name
    if isinstance(value, (list, tuple)):
        return [_plain(v) for v in value]
    if isinstance(value, dict):
        return {k: _plain(v) for k, v in value.items() if k != "_position"}
    if isinstance(value, Struct):
        return _plain(value._p)
    if isinstance(value, (unreal.Name, unreal.Text)):
        return str(value)
    if hasattr(value, "to_tuple"):
        return _plain(value.to_tuple())
    return value
