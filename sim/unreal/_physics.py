"""Bodies that simulate, and the surfaces that they have."""
from ._object import Object
from ._packages import Asset
from ._values import HIDDEN, Name, Struct, boolean, f32, name, object_of


class PhysicalMaterial(Asset):
    __slots__ = ()
    PROPS = {"friction": (f32, f32(0.7)), "restitution": (f32, f32(0.3))}


class Factory(Object):
    """What makes an asset of some class; base of the factories."""
    __slots__ = ()

    def __init__(self):
        super().__init__(f"/Engine/Transient.{type(self).__name__}_0")


class PhysicalMaterialFactoryNew(Factory):
    __slots__ = ()


class BodyInstance(Struct):
    __slots__ = ()
    PROPS = {"simulate_physics": (boolean, False, HIDDEN), "override_mass": (boolean, False, HIDDEN),
             "mass_in_kg_override": (f32, 100.0), "linear_damping": (f32, f32(0.01)),
             "angular_damping": (f32, 0.0),
             "collision_profile_name": (name, Name("BlockAll"), HIDDEN),
             "phys_material_override": (object_of(PhysicalMaterial), None)}
