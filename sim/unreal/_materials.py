"""Materials, and instances that override their parameters."""
from ._enums import MaterialParameterAssociation
from ._packages import Asset
from ._textures import Texture
from ._values import (Array, LinearColor, Name, Struct, array_of, enum_of, f32, integer, name,
                      object_of, struct_of)


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


KINDS = {"scalar_parameter_values": ScalarParameterValue,
         "vector_parameter_values": VectorParameterValue,
         "texture_parameter_values": TextureParameterValue}
_LISTS = {kind: (array_of(struct_of(row)), []) for kind, row in KINDS.items()}


class Material(MaterialInterface):
    """Its own parameters hold the defaults."""
    __slots__ = ()
    PROPS = dict(_LISTS)


class MaterialInstance(MaterialInterface):
    __slots__ = ()
    PROPS = {"parent": (object_of(MaterialInterface), None), **_LISTS}


class MaterialInstanceConstant(MaterialInstance):
    __slots__ = ()


def _setter(kind):
    def set_value(instance, parameter_name, value, association=None):
        instance._check()
        if parameter_name not in instance._names(kind):
            return False        # no parent has it
        rows = [row for row in instance._rows(kind) if _name_of(row) != parameter_name]
        info = MaterialParameterInfo(parameter_name, GLOBAL.association, -1)
        instance._set(kind, [*rows, KINDS[kind](info, value)])
        instance._dirtied()
        return True
    return staticmethod(set_value)


def _getter(kind, default):
    def get_value(instance, parameter_name, association=None):
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
        instance._set("parent", new_parent)
        instance._dirtied()

    @staticmethod
    def update_material_instance(instance):
        instance._check()

    @staticmethod
    def clear_all_material_instance_parameters(instance):
        instance._check()
        for kind in KINDS:
            instance._set(kind, [])
        instance._dirtied()
