"""Actors of a level."""
from ._components import (CameraComponent, CineCameraComponent, DirectionalLightComponent,
                          PointLightComponent, PostProcessSettings, RectLightComponent,
                          SceneComponent, SkeletalMeshComponent, SkyLightComponent,
                          SpotLightComponent, StaticMeshComponent, TextRenderComponent)
from ._editor import editor
from ._enums import AttachmentRule
from ._math import Transform, Vector, box_in, rotator_of
from ._object import Class, Object
from ._packages import external_package
from ._values import Array, Name, array_of, boolean, f32, name, string, struct_of

_NO_FOLDER = Name()


class Actor(Object):
    """An actor. COMPONENTS: (attribute or None, class, name) of each; the first is the root.

    `_home` is the path of the level that it is saved in: the open one or a sublevel.
    """
    __slots__ = ("_label", "_folder", "_level", "_home", "_serial", "_class_name", "_root",
                 "_components", "_parent", "_children", "_script", "_constructed")
    PROPS = {"tags": (array_of(name), [])}
    COMPONENTS = ((None, SceneComponent, "DefaultSceneRoot"),)

    def __init_subclass__(cls):
        super().__init_subclass__()
        for attribute, _, _ in cls.__dict__.get("COMPONENTS", ()):
            if attribute:
                cls._attribute(attribute, True)

    def __init__(self, level, name, class_name=None, home=None):
        self._home = home or level.path
        super().__init__(f"{self._home}:PersistentLevel.{name}")
        self._level = level
        self._class_name = class_name or type(self).__name__
        self._label = name
        self._folder = _NO_FOLDER
        self._parent = None
        self._children = []
        self._components = []
        self._script, self._constructed = (), []    # of a Blueprint: its parts, and what they became
        for attribute, kind, part in self.COMPONENTS:
            component = self._add(kind, part)
            if attribute:
                self._p[attribute] = component
        self._root = self._components[0]

    def _add(self, kind, name):
        component = kind(self, name)
        self._components.append(component)
        return component

    def _state(self):
        return dict(self._p), self._valid, self._label, self._folder, self._parent

    def _restore(self, state):
        p, valid, self._label, self._folder, parent = state
        self._p = dict(p)
        if valid != self._valid:
            self._level.put(self) if valid else self._level.take(self)
        self._attach(parent)

    def _attach(self, parent):
        """Hang the actor on `parent`, or on nothing; its place relative to that stays."""
        if self._parent:
            self._parent._children.remove(self)
        self._parent = parent
        if parent:
            parent._children.append(self)

    def _dirtied(self):
        self._level.dirty.add(self._home)

    def _package(self):
        package = super()._package()
        return external_package(package, self.get_name()) if self._level.partitioned else package

    def _default_label(self):
        return self._level.default_label(self._class_name.removesuffix("_C"))

    def _modify(self):
        super()._modify()
        editor.history.note(self._root)

    def _boxes(self, only_colliding=False):
        """The world boxes, low and high corner, of all components that have an extent."""
        for c in self._components:
            if isinstance(c, SceneComponent):
                box = c._local_box()
                if box and not (only_colliding and not isinstance(c, StaticMeshComponent)):
                    yield box_in(c._world(), *box)

    def get_class(self):
        self._check()
        return Class(self._class_name)

    def get_actor_label(self, create_if_none=True):
        if not self._valid:
            self._check()
        return self._label

    def set_actor_label(self, new_actor_label, mark_dirty=True):
        self._check()
        label = editor.altered("label", self, string(new_actor_label)).strip()
        self._modify()
        self._label = label or self._default_label()

    def get_folder_path(self):
        if not self._valid:
            self._check()
        return self._folder

    def set_folder_path(self, new_folder_path):
        self._check()
        folder = editor.altered("folder", self, name(new_folder_path))
        self._modify()
        self._folder = folder

    def get_actor_transform(self):
        if not self._valid:
            self._check()
        return self._root._world()._copy()

    def set_actor_transform(self, new_transform, sweep, teleport):
        self._check()
        if not isinstance(new_transform, Transform):
            raise TypeError(f"Cannot nativize '{type(new_transform).__name__}' as 'Transform'")
        self._root._place_in_world(editor.altered("transform", self, new_transform))

    def get_actor_location(self):
        self._check()
        return self._root._world().translation._copy()

    def get_actor_rotation(self):
        self._check()
        return rotator_of(self._root._world().rotation)

    def get_actor_scale3d(self):
        self._check()
        return self._root._world().scale3d._copy()

    def get_actor_bounds(self, only_colliding_components, include_from_child_actors=False):
        """Centre and half size of the box around all components; zero when none has an extent."""
        self._check()
        boxes = list(self._boxes(only_colliding_components))
        if not boxes:
            return Vector(), Vector()
        low, high = (Vector(*(pick(getattr(box[i], k) for box in boxes) for k in "xyz"))
                     for i, pick in enumerate((min, max)))
        return (low + high) * 0.5, (high - low) * 0.5

    def get_component_by_class(self, component_class=None):
        if not self._valid:
            self._check()
        for c in self._components:
            if component_class and isinstance(c, component_class):
                return c
        return None

    def get_components_by_class(self, component_class=None):
        if not self._valid:
            self._check()
        return Array(c for c in self._components
                     if component_class and isinstance(c, component_class))

    def is_actor_being_destroyed(self):
        if not self._valid:
            self._check()
        return not self._valid

    def destroy_actor(self):
        self._check()
        if self._valid:
            self._level.destroy(self)

    def attach_to_actor(self, parent_actor, socket_name, location_rule, rotation_rule, scale_rule,
                        weld_simulated_bodies=True):
        """Hang it on another actor; here the rule for the location holds for all three."""
        self._check()
        ancestor = parent_actor
        while ancestor and ancestor is not self:
            ancestor = ancestor._parent
        if ancestor is self or parent_actor is None:
            return False
        world = self._root._world()
        self._modify()
        self._attach(parent_actor)
        if location_rule is AttachmentRule.KEEP_WORLD:
            self._root._place_in_world(world)
        elif location_rule is AttachmentRule.SNAP_TO_TARGET:
            self._root._place_in_world(parent_actor._root._world())
        return True

    def detach_from_actor(self, location_rule=AttachmentRule.KEEP_RELATIVE,
                          rotation_rule=AttachmentRule.KEEP_RELATIVE,
                          scale_rule=AttachmentRule.KEEP_RELATIVE):
        self._check()
        world = self._root._world()
        self._modify()
        self._attach(None)
        if location_rule is AttachmentRule.KEEP_WORLD:
            self._root._place_in_world(world)

    def get_attach_parent_actor(self):
        self._check()
        return self._parent

    def get_attached_actors(self, reset_array=True, recursively_include_attached_actors=False):
        self._check()
        found = list(self._children)
        if recursively_include_attached_actors:
            for child in found:
                found += child._children
        return Array(found)


class StaticMeshActor(Actor):
    __slots__ = ()
    COMPONENTS = (("static_mesh_component", StaticMeshComponent, "StaticMeshComponent0"),)


class SkeletalMeshActor(Actor):
    __slots__ = ()
    COMPONENTS = (("skeletal_mesh_component", SkeletalMeshComponent, "SkeletalMeshComponent0"),)


class Light(Actor):
    __slots__ = ()


class PointLight(Light):
    __slots__ = ()
    COMPONENTS = (("light_component", PointLightComponent, "LightComponent0"),)


class SpotLight(Light):
    __slots__ = ()
    COMPONENTS = (("light_component", SpotLightComponent, "LightComponent0"),)


class RectLight(Light):
    __slots__ = ()
    COMPONENTS = (("light_component", RectLightComponent, "LightComponent0"),)


class DirectionalLight(Light):
    __slots__ = ()
    COMPONENTS = (("light_component", DirectionalLightComponent, "LightComponent0"),)


class Info(Actor):
    __slots__ = ()


class SkyLight(Info):
    """No Light, for all its name."""
    __slots__ = ()
    COMPONENTS = (("light_component", SkyLightComponent, "SkyLightComponent0"),)


class CameraActor(Actor):
    __slots__ = ()
    COMPONENTS = ((None, SceneComponent, "SceneComponent"),
                  ("camera_component", CameraComponent, "CameraComponent"))


class CineCameraActor(CameraActor):
    __slots__ = ()
    COMPONENTS = ((None, SceneComponent, "SceneComponent"),
                  ("camera_component", CineCameraComponent, "CameraComponent"))

    def get_cine_camera_component(self):
        self._check()
        return self._p["camera_component"]


class TextRenderActor(Actor):
    __slots__ = ()
    COMPONENTS = (("text_render", TextRenderComponent, "NewTextRenderComponent"),)


class Volume(Actor):
    __slots__ = ()


class PostProcessVolume(Volume):
    __slots__ = ()
    PROPS = {"settings": (struct_of(PostProcessSettings), PostProcessSettings()),
             "unbound": (boolean, False), "enabled": (boolean, True), "priority": (f32, 0.0)}


class WorldPartitionHLOD(Actor):
    __slots__ = ()
