"""The materials of glTF files as parameters, named as those of the editor's own glTF materials."""
import math

from ._materials import KINDS, MaterialParameterInfo
from ._enums import MaterialParameterAssociation
from ._values import LinearColor

PBR = "pbrMetallicRoughness"
SCALARS, VECTORS, TEXTURES = KINDS
FACTORS = {"BaseColorFactor": (PBR, "baseColorFactor", (1.0, 1.0, 1.0, 1.0)),
           "MetallicFactor": (PBR, "metallicFactor", 1.0),
           "RoughnessFactor": (PBR, "roughnessFactor", 1.0),
           "EmissiveFactor": (None, "emissiveFactor", (0.0, 0.0, 0.0))}
IMAGES = {"BaseColorTexture": (PBR, "baseColorTexture"),
          "MetallicRoughnessTexture": (PBR, "metallicRoughnessTexture"),
          "NormalTexture": (None, "normalTexture"), "OcclusionTexture": (None, "occlusionTexture"),
          "EmissiveTexture": (None, "emissiveTexture")}
COLOURS = ("BaseColorTexture", "EmissiveTexture")
ALPHA = ["OPAQUE", "MASK", "BLEND"]


def parameters_of(material, textures):
    """({name: number or list}, {name: index of an image}) of a file's material; ValueError if its values
    are of another kind."""
    factors, images = {}, {}
    for name, (group, key, default) in FACTORS.items():
        value = (material.get(group, {}) if group else material).get(key, default)
        flat = value if isinstance(default, tuple) else [value]
        if len(flat) != len(default if isinstance(default, tuple) else [0]) or not all(
                isinstance(v, (int, float)) and math.isfinite(v) for v in flat):
            raise ValueError(f"{key} is {value!r}")
        factors[name] = value
    for name, (group, key) in IMAGES.items():
        info = (material.get(group, {}) if group else material).get(key)
        if info is not None:
            images[name] = textures[info["index"]].get("source")
    mode = material.get("alphaMode", "OPAQUE")
    factors["AlphaMode"] = ALPHA.index(mode)
    return factors, images


def set_parameters(material, factors, textures):
    """Fill a Material; `textures`: {name: texture}."""
    rows = {kind: [] for kind in KINDS}

    def add(kind, name, value):
        rows[kind].append(KINDS[kind](MaterialParameterInfo(
            name, MaterialParameterAssociation.GLOBAL_PARAMETER, -1), value))
    for name, value in factors.items():
        if isinstance(value, (int, float)):
            add(SCALARS, name, float(value))
        else:
            add(VECTORS, name, LinearColor(*map(float, (*value, 1.0)[:4])))
    for name, texture in textures.items():
        add(TEXTURES, name, texture)
    for kind, values in rows.items():
        material._set(kind, values)
    material._dirtied()


def file_material(material, name, add_texture):
    """A file's material; `add_texture(texture)` gives the index of a texture, or None to go without."""
    made = {"name": name}
    for parameter, (group, key, default) in FACTORS.items() if material else ():
        vector = isinstance(default, tuple)
        value = material._parameter(VECTORS if vector else SCALARS, parameter)
        if value is not None:
            numbers = [value.r, value.g, value.b, value.a][:len(default)] if vector else [value]
            numbers = [min(max(v, 0.0), 1.0) for v in numbers]
            (made.setdefault(group, {}) if group else made)[key] = numbers if vector else numbers[0]
    for parameter, (group, key) in IMAGES.items() if material else ():
        texture = material._parameter(TEXTURES, parameter)
        index = add_texture(texture) if texture else None
        if index is not None:
            (made.setdefault(group, {}) if group else made)[key] = {"index": index}
    mode = int(material and material._parameter(SCALARS, "AlphaMode") or 0)
    return made | ({"alphaMode": ALPHA[mode]} if 0 < mode < len(ALPHA) else {})
