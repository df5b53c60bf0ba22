"""Components of actors. The root's transform is the actor's; the others' are relative to it."""
import math

from ._enums import (AnimationMode, AutoExposureMethod, ComponentMobility, HorizTextAligment, LightUnits,
                     VerticalTextAligment)
from ._animation import AnimationAsset
from ._materials import MaterialInterface
from ._math import Rotator, Transform, Vector, combine, rotator_of
from ._meshes import SkeletalMesh, StaticMesh
from ._editor import editor
from ._object import Object
from ._physics import BodyInstance
from ._values import (HIDDEN, Array, Color, Struct, Text, array_of, boolean, enum_of, f32, name,
                      object_of, struct_of, text)

ICON = (Vector(-16.0, -16.0, -16.0), Vector(16.0, 16.0, 16.0))


class ActorComponent(Object):
    __slots__ = ("_owner",)
    PROPS = {"component_tags": (array_of(name), [])}

    def __init__(self, owner, name):
        super().__init__(f"{owner._path}.{name}")
        self._owner = owner

    def _dirtied(self):
        self._owner._dirtied()

    def get_owner(self):
        self._check()
        return self._owner


class SceneComponent(ActorComponent):
    """Its place is relative to the root, or the root's to what the actor is attached to; `_xf` is
    that place as a Transform. The rotation is kept as a Rotator, so a quaternion that is set comes
    back over one: normalised, and a little different."""
    __slots__ = ("_xf", "_box")
    BOX = None
    PROPS = {"mobility": (enum_of(ComponentMobility), ComponentMobility.STATIC),
             "relative_location": (struct_of(Vector), Vector()),
             "relative_rotation": (struct_of(Rotator), Rotator()),
             "relative_scale3d": (struct_of(Vector), Vector(1.0, 1.0, 1.0))}

    def __init__(self, owner, name):
        super().__init__(owner, name)
        self._xf = Transform()
        self._box = self.BOX

    def _state(self):
        return dict(self._p), self._box

    def _restore(self, state):
        p, self._box = state
        self._p = dict(p)
        self._changed("relative_location")

    def _changed(self, key):
        if key.startswith("relative_"):
            p = self._p
            self._xf = Transform(p["relative_location"], p["relative_rotation"],
                                 p["relative_scale3d"])

    def _place(self, location=None, rotation=None, scale=None):
        """Place it relative to its parent; what is None stays."""
        for key, value in (("relative_location", location), ("relative_rotation", rotation),
                           ("relative_scale3d", scale)):
            if value is not None:
                self._p[key] = value._copy()
        self._changed("relative_location")

    def _place_in_world(self, xf):
        base = self._base()
        xf = xf.make_relative(base) if base else xf
        self._place(xf.translation, rotator_of(xf.rotation), xf.scale3d)

    def _local_box(self):
        """Low and high corner in the component's own space, or None if it has no extent."""
        return self._box

    def _base(self):
        """What it is placed in: a world transform, or None for the world itself."""
        owner = self._owner
        if self is not owner._root:
            return owner._root._world()
        return owner._parent._root._world() if owner._parent else None

    def _world(self):
        base = self._base()
        return combine(self._xf, base) if base else self._xf

    def set_mobility(self, new_mobility):
        self._check()
        self._set("mobility", new_mobility)

    def get_world_transform(self):
        self._check()
        return self._world()._copy()

    def get_relative_transform(self):
        self._check()
        return self._xf._copy()


class PrimitiveComponent(SceneComponent):
    __slots__ = ()
    PROPS = {"body_instance": (struct_of(BodyInstance), BodyInstance())}

    def _body(self, **values):
        body = self._p["body_instance"]._copy()
        for key, value in values.items():
            body._set(key, value)
        self._p["body_instance"] = body

    def set_simulate_physics(self, simulate):
        self._check()
        if simulate and self._p["mobility"] is not ComponentMobility.MOVABLE:
            editor.log.append(("warning", f"LogPhysics: {self._path} has to be movable to simulate"))
        self._body(simulate_physics=bool(simulate))

    def get_collision_profile_name(self):
        self._check()
        return self._p["body_instance"]._p["collision_profile_name"]

    def set_collision_profile_name(self, collision_profile_name, update_overlaps=True):
        self._check()
        self._body(collision_profile_name=collision_profile_name)

    def set_mass_override_in_kg(self, bone_name="", mass_in_kg=1.0, override_mass=True):
        self._check()
        self._body(mass_in_kg_override=mass_in_kg, override_mass=override_mass)

    def set_linear_damping(self, damping):
        self._check()
        self._body(linear_damping=damping)

    def set_angular_damping(self, damping):
        self._check()
        self._body(angular_damping=damping)

    def set_phys_material_override(self, new_phys_material):
        self._check()
        self._body(phys_material_override=new_phys_material)

    def set_material(self, element_index, material):
        self._check()

    def get_material(self, element_index):
        self._check()
        return None


class MeshComponent(PrimitiveComponent):
    __slots__ = ()
    PROPS = {"override_materials": (array_of(object_of(MaterialInterface)), [], HIDDEN)}

    def set_material(self, element_index, material):
        self._check()
        overrides = list(self._p["override_materials"])
        overrides += [None] * (element_index + 1 - len(overrides))
        overrides[element_index] = object_of(MaterialInterface)(material)
        self._p["override_materials"] = overrides

    def get_materials(self):
        """What each of the mesh's slots shows; None for one without."""
        self._check()
        overrides = self._p["override_materials"]
        return Array((overrides[i] if i < len(overrides) else None) or own
                     for i, own in enumerate(self._own_materials()))

    def _own_materials(self):
        return ()


class StaticMeshComponent(MeshComponent):
    __slots__ = ()
    PROPS = {"static_mesh": (object_of(StaticMesh), None)}

    def _local_box(self):
        mesh = self._p["static_mesh"]
        return (mesh._box.min, mesh._box.max) if mesh else None

    def set_static_mesh(self, new_mesh):
        self._check()
        changed = new_mesh is not self._p["static_mesh"]
        self._set("static_mesh", new_mesh)
        return changed

    def get_material(self, element_index):
        materials = self.get_materials()
        return materials[element_index] if 0 <= element_index < len(materials) else None

    def _own_materials(self):
        mesh = self._p["static_mesh"]
        return [slot.material_interface for slot in mesh._p["static_materials"]] if mesh else ()


class SingleAnimationPlayData(Struct):
    __slots__ = ()
    PROPS = {"anim_to_play": (object_of(AnimationAsset), None), "saved_looping": (boolean, True),
             "saved_playing": (boolean, True), "saved_position": (f32, 0.0)}


class SkeletalMeshComponent(MeshComponent):
    """What it plays advances with the editor's frames while it is told to update there; only in the mode
    for a single animation does it play one."""
    __slots__ = ()
    PROPS = {"skeletal_mesh_asset": (object_of(SkeletalMesh), None),
             "animation_mode": (enum_of(AnimationMode), AnimationMode.ANIMATION_BLUEPRINT),
             "animation_data": (struct_of(SingleAnimationPlayData), SingleAnimationPlayData())}
    ALIASES = {"skeletal_mesh": "skeletal_mesh_asset"}

    def __init__(self, owner, name):
        super().__init__(owner, name)
        self._p |= {"_updates": False, "_anim": None, "_playing": False, "_looping": False,
                    "_position": 0.0}      # seconds

    def set_skeletal_mesh_asset(self, new_mesh):
        self._check()
        self._set("skeletal_mesh_asset", new_mesh)

    def set_update_animation_in_editor(self, new_update_state):
        self._check()
        self._p["_updates"] = bool(new_update_state)

    def set_animation(self, new_anim_to_play):
        anim = object_of(AnimationAsset)(new_anim_to_play)
        if self._single():
            self._p |= {"_anim": anim, "_playing": False, "_position": 0.0}

    def play(self, looping):
        if self._single():
            self._p |= {"_playing": True, "_looping": bool(looping)}

    def _single(self):
        self._check()
        single = self._p["animation_mode"] is AnimationMode.ANIMATION_SINGLE_NODE
        if not single:
            editor.log.append(("warning", f"LogAnimation: {self._path} isn't in the mode for a single animation"))
        return single

    def _advance(self, dt):
        p = self._p
        length = p["_anim"]._p["sequence_length"] if p["_anim"] else 0.0
        if p["_updates"] and p["_playing"] and length > 0:
            at = p["_position"] + dt
            p["_position"] = at % length if p["_looping"] else min(at, length)

    def _own_materials(self):
        mesh = self._p["skeletal_mesh_asset"]
        return [slot.material_interface for slot in mesh._p["materials"]] if mesh else ()

    def _local_box(self):
        mesh = self._p["skeletal_mesh_asset"]
        return (mesh._box.min, mesh._box.max) if mesh else None


class LightComponentBase(SceneComponent):
    __slots__ = ()
    BOX = ICON
    PROPS = {"intensity": (f32, f32(3.1415927)), "cast_shadows": (boolean, True),
             "light_color": (struct_of(Color), Color(255, 255, 255, 255))}


class SkyLightComponent(LightComponentBase):
    __slots__ = ()


class LightComponent(LightComponentBase):
    __slots__ = ()
    PROPS = {"temperature": (f32, 6500.0), "use_temperature": (boolean, False)}


class DirectionalLightComponent(LightComponent):
    __slots__ = ()
    PROPS = {"intensity": (f32, 10.0), "light_source_angle": (f32, f32(0.5357))}


class LocalLightComponent(LightComponent):
    __slots__ = ()
    PROPS = {"intensity": (f32, 5000.0), "attenuation_radius": (f32, 1000.0),
             "intensity_units": (enum_of(LightUnits), LightUnits.UNITLESS)}


class PointLightComponent(LocalLightComponent):
    __slots__ = ()
    PROPS = {"source_radius": (f32, 0.0), "source_length": (f32, 0.0)}


class SpotLightComponent(PointLightComponent):
    __slots__ = ()
    PROPS = {"inner_cone_angle": (f32, 0.0), "outer_cone_angle": (f32, 44.0)}


class RectLightComponent(LocalLightComponent):
    __slots__ = ()
    PROPS = {"source_width": (f32, 64.0), "source_height": (f32, 64.0)}


class CameraComponent(SceneComponent):
    __slots__ = ()
    BOX = ICON
    PROPS = {"field_of_view": (f32, 90.0)}


class CameraFilmbackSettings(Struct):
    """Sensor size in millimetres."""
    __slots__ = ()
    PROPS = {"sensor_width": (f32, f32(24.89)), "sensor_height": (f32, f32(18.67))}


class CineCameraComponent(CameraComponent):
    """The field of view follows from the lens and the sensor."""
    __slots__ = ()
    PROPS = {"filmback": (struct_of(CameraFilmbackSettings), CameraFilmbackSettings()),
             "current_focal_length": (f32, 35.0), "field_of_view": (f32, f32(39.1461))}

    def _changed(self, key):
        focal = self._p["current_focal_length"]
        if key in ("filmback", "current_focal_length") and focal > 0.0:
            half = self._p["filmback"].sensor_width / 2.0 / focal
            self._p["field_of_view"] = f32(2.0 * math.degrees(math.atan(half)))


class TextRenderComponent(PrimitiveComponent):
    __slots__ = ()
    BOX = (Vector(0.0, -50.0, -13.0), Vector(0.0, 50.0, 13.0))
    PROPS = {"text": (text, Text("Text")), "world_size": (f32, 26.0),
             "text_render_color": (struct_of(Color), Color(255, 255, 255, 255)),
             "horizontal_alignment": (enum_of(HorizTextAligment), HorizTextAligment.EHTA_LEFT),
             "vertical_alignment": (enum_of(VerticalTextAligment),
                                    VerticalTextAligment.EVRTA_TEXT_BOTTOM)}

    def set_text(self, value):
        self._check()
        self._set("text", value)

    def set_world_size(self, value):
        self._check()
        self._set("world_size", value)

    def set_horizontal_alignment(self, value):
        self._check()
        self._set("horizontal_alignment", value)

    def set_vertical_alignment(self, value):
        self._check()
        self._set("vertical_alignment", value)

    def set_text_render_color(self, value):
        self._check()
        self._set("text_render_color", value)


class PostProcessSettings(Struct):
    """A value counts only while its override switch is on."""
    __slots__ = ()
    PROPS = {"auto_exposure_method": (enum_of(AutoExposureMethod),
                                      AutoExposureMethod.AEM_HISTOGRAM),
             "auto_exposure_apply_physical_camera_exposure": (boolean, True),
             "auto_exposure_bias": (f32, 1.0),
             "override_auto_exposure_method": (boolean, False),
             "override_auto_exposure_apply_physical_camera_exposure": (boolean, False),
             "override_auto_exposure_bias": (boolean, False)}
