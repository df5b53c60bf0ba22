"""Materials, and instances that override their parameters."""
from ._editor import editor
from ._enums import BlendMode, MaterialParameterAssociation, PropertyAccessChangeNotifyMode
from ._packages import Asset
from ._physics import Factory
from ._textures import Texture
from ._values import (HIDDEN, Array, LinearColor, Name, Struct, array_of, boolean, enum_of, f32, integer,
                      name, object_of, struct_of)


def _name_of(row):
    return row._p["parameter_info"]._p["name"]


class MaterialInterface(Asset):
    __slots__ = ()

    def _rows(self, kind):
        return self._p.get(kind, ())

    def _parameter(self, kind, key):
        """The value of a parameter here or in what it stems from; None if there is none."""
        found = next((row.parameter_value for row in self._rows(kind) if _name_of(row) == key), None)
        parent = self._p.get("parent")
        return parent._parameter(kind, key) if found is None and parent else found

    def _names(self, kind):
        parent = self._p.get("parent")
        names = dict.fromkeys(_name_of(row) for row in self._rows(kind))
        return dict.fromkeys((*(parent._names(kind) if parent else ()), *names))


class MaterialParameterInfo(Struct):
    __slots__ = ()
    PROPS = {"name": (name, Name()), "index": (integer, 0),
             "association": (enum_of(MaterialParameterAssociation),
                             MaterialParameterAssociation.LAYER_PARAMETER)}

    def __init__(self, name="", association=MaterialParameterAssociation.LAYER_PARAMETER, index=0):
        super().__init__(name=name, association=association, index=index)


GLOBAL = MaterialParameterInfo("", MaterialParameterAssociation.GLOBAL_PARAMETER, -1)


class ScalarParameterValue(Struct):
    __slots__ = ()
    PROPS = {"parameter_info": (struct_of(MaterialParameterInfo), GLOBAL),
             "parameter_value": (f32, 0.0)}

    def __init__(self, parameter_info=GLOBAL, parameter_value=0.0):
        super().__init__(parameter_info=parameter_info, parameter_value=parameter_value)


class VectorParameterValue(Struct):
    __slots__ = ()
    PROPS = {"parameter_info": (struct_of(MaterialParameterInfo), GLOBAL),
             "parameter_value": (struct_of(LinearColor), LinearColor())}

    def __init__(self, parameter_info=GLOBAL, parameter_value=LinearColor()):
        super().__init__(parameter_info=parameter_info, parameter_value=parameter_value)


class TextureParameterValue(Struct):
    __slots__ = ()
    PROPS = {"parameter_info": (struct_of(MaterialParameterInfo), GLOBAL),
             "parameter_value": (object_of(Texture), None)}

    def __init__(self, parameter_info=GLOBAL, parameter_value=None):
        super().__init__(parameter_info=parameter_info, parameter_value=parameter_value)


class StaticSwitchParameterValue(Struct):
    """No type for scripts."""
    __slots__ = ()
    PROPS = {"parameter_info": (struct_of(MaterialParameterInfo), GLOBAL),
             "parameter_value": (boolean, False)}


class DisplacementScaling(Struct):
    __slots__ = ()
    PROPS = {"magnitude": (f32, 0.0), "center": (f32, 0.0)}

    def __init__(self, magnitude=0.0, center=0.0):
        super().__init__(magnitude=magnitude, center=center)


class MaterialInstanceBasePropertyOverrides(Struct):
    __slots__ = ()
    PROPS = {"override_blend_mode": (boolean, False, HIDDEN),
             "blend_mode": (enum_of(BlendMode), BlendMode.BLEND_OPAQUE, HIDDEN),
             "override_two_sided": (boolean, False, HIDDEN), "two_sided": (boolean, False, HIDDEN),
             "override_displacement_scaling": (boolean, False, HIDDEN),
             "displacement_scaling": (struct_of(DisplacementScaling), DisplacementScaling(), HIDDEN)}


KINDS = {"scalar_parameter_values": ScalarParameterValue,
         "vector_parameter_values": VectorParameterValue,
         "texture_parameter_values": TextureParameterValue,
         "static_switch_values": StaticSwitchParameterValue}
SCALARS, VECTORS, TEXTURES, SWITCHES = KINDS
_LISTS = {kind: (array_of(struct_of(row)), [], *([HIDDEN] if kind == SWITCHES else []))
          for kind, row in KINDS.items()}


def entry(kind, name, value):
    """A row of one of a material's lists."""
    if kind == VECTORS and not isinstance(value, LinearColor):
        value = LinearColor(*map(float, value))
    row = KINDS[kind]()
    row._set("parameter_info", MaterialParameterInfo(name, GLOBAL.association, -1))
    row._set("parameter_value", value)
    return row


def set_rows(material, rows):
    for kind, values in rows.items():
        material._set(kind, values)
    material._dirtied()


class Material(MaterialInterface):
    """Its own parameters hold the defaults."""
    __slots__ = ()
    PROPS = {"blend_mode": (enum_of(BlendMode), BlendMode.BLEND_OPAQUE),
             "two_sided": (boolean, False), **_LISTS}


class MaterialInstance(MaterialInterface):
    """Rows that no parent has a parameter for stay, and mean nothing."""
    __slots__ = ()
    PROPS = {"parent": (object_of(MaterialInterface), None),
             "base_property_overrides": (struct_of(MaterialInstanceBasePropertyOverrides),
                                         MaterialInstanceBasePropertyOverrides(), HIDDEN), **_LISTS}

    def _names(self, kind):
        parent = self._p["parent"]
        return parent._names(kind) if parent else {}

    def _base(self, key):
        """"blend_mode" or "two_sided", its own or inherited."""
        overrides, parent = self._p["base_property_overrides"]._p, self._p["parent"]
        if overrides["override_" + key] or not parent:
            return overrides[key]
        return parent._base(key) if isinstance(parent, MaterialInstance) else parent._p[key]

    def set_editor_property(self, name, value, notify_mode=None):
        if notify_mode is not PropertyAccessChangeNotifyMode.NEVER:
            editor.material_changes += 1
        super().set_editor_property(name, value, notify_mode)


class MaterialInstanceConstant(MaterialInstance):
    __slots__ = ()


class MaterialInstanceConstantFactoryNew(Factory):
    __slots__ = ()


def _setter(kind):
    def set_value(instance, parameter_name, value,
                  association=MaterialParameterAssociation.GLOBAL_PARAMETER):
        instance._check()
        parameter_name = name(parameter_name)
        if parameter_name not in instance._names(kind):
            return False        # no parent has it
        rows = [row for row in instance._rows(kind) if _name_of(row) != parameter_name]
        instance._set(kind, [*rows, entry(kind, parameter_name, value)])
        instance._dirtied()
        return True
    return staticmethod(set_value)


def _getter(kind, default):
    def get_value(instance, parameter_name,
                  association=MaterialParameterAssociation.GLOBAL_PARAMETER):
        instance._check()
        found = instance._parameter(kind, parameter_name)
        return default() if found is None else found
    return staticmethod(get_value)


def _lister(kind):
    def get_names(material):
        material._check()
        return Array(material._names(kind))
    return staticmethod(get_names)


class MaterialEditingLibrary:
    get_scalar_parameter_names = _lister("scalar_parameter_values")
    get_vector_parameter_names = _lister("vector_parameter_values")
    get_texture_parameter_names = _lister("texture_parameter_values")
    get_static_switch_parameter_names = _lister(SWITCHES)
    set_material_instance_static_switch_parameter_value = _setter(SWITCHES)
    set_material_instance_scalar_parameter_value = _setter("scalar_parameter_values")
    set_material_instance_vector_parameter_value = _setter("vector_parameter_values")
    set_material_instance_texture_parameter_value = _setter("texture_parameter_values")
    get_material_instance_scalar_parameter_value = _getter("scalar_parameter_values", float)
    get_material_instance_vector_parameter_value = _getter("vector_parameter_values", LinearColor)
    get_material_instance_texture_parameter_value = _getter("texture_parameter_values",
                                                            lambda: None)

    @staticmethod
    def set_material_instance_parent(instance, new_parent):
        instance._check()
        above = new_parent
        while above is not None and above is not instance:
            above = above._p.get("parent")
        if above is instance:
            editor.log.append(("warning", f"LogMaterial: {instance._path} can't be its own parent"))
            return
        instance._set("parent", new_parent)
        instance._dirtied()

    @staticmethod
    def update_material_instance(instance):
        instance._check()
        editor.material_changes += 1

    @staticmethod
    def clear_all_material_instance_parameters(instance):
        instance._check()
        for kind in KINDS:
            instance._set(kind, [])
        instance._dirtied()
