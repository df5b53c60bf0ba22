"""The materials of glTF files: onto instances of the engine's parents, and out of any material.

The importer says all that the file says, and leaves what the file no longer says: parameters, and the
parent, of an instance that was there before.
"""
import math

from ._editor import editor
from ._gltf_parents import EXT, GROUPS, HAS, PBR, STANDARD, SUBSTRATE, classic
from ._materials import (SCALARS, SWITCHES, TEXTURES, VECTORS, entry)
from ._packages import find_asset
from ._values import Name

COLOURS = ("BaseColorTexture", "EmissiveTexture", "DiffuseTexture", "SpecularColorTexture",
           "SheenColorTexture", "SpecularGlossinessTexture")
ALPHA = ["OPAQUE", "MASK", "BLEND"]
TILING = {33071: 1.0, 33648: 2.0}
WORDS = {"unlit": "Unlit", "pbrSpecularGlossiness": "SpecularGlossiness", "transmission": "Transmission",
         "clearcoat": "ClearCoat", "sheen": "Sheen"}


def _source(material, where):
    """The object that a group is read from; None if the file hasn't it."""
    if where is None:
        return material
    return material.get(PBR, {}) if where == PBR else material.get("extensions", {}).get(where)


def _checked(key, value, default):
    flat = value if isinstance(default, tuple) else [value]
    if not all(isinstance(v, (int, float)) and math.isfinite(v) for v in flat) or (
            isinstance(default, tuple) and len(flat) not in (3, 4)):
        raise ValueError(f"{key} is {value!r}")
    return value


def parameters_of(material, textures, samplers=()):
    """({name: number or list}, {name: index of an image}, word of the shading) of a file's material;
    ValueError if its values are of another kind."""
    values, images = {"AlphaMode": float(ALPHA.index(material.get("alphaMode", "OPAQUE")))}, {}
    if values["AlphaMode"] == 1:
        values["AlphaCutoff"] = material.get("alphaCutoff", 0.5)
    for where, rows in GROUPS.values():
        source = _source(material, where)
        for name, (key, default) in rows.items() if source is not None else ():
            key, _, detail = key.partition(".")
            found = source.get(key, STANDARD.get(key))
            if found is None:
                continue
            if default is not None:
                found = found.get(detail, default) if detail else found
                values[name] = _checked(key, found, default)
                continue
            texture = textures[found["index"]]
            images[name] = texture.get("source")
            move = found.get("extensions", {}).get("KHR_texture_transform", {})
            sampler = samplers[texture["sampler"]] if "sampler" in texture else {}
            values |= {f"{name}_OffsetScale": [*move.get("offset", (0, 0)), *move.get("scale", (1, 1))],
                       f"{name}_Rotation": move.get("rotation", 0.0),
                       f"{name}_TexCoord": move.get("texCoord", found.get("texCoord", 0)),
                       f"{name}_TilingMethod": [TILING.get(sampler.get(k), 0.0)
                                                for k in ("wrapS", "wrapT")] + [0, 0]}
    extensions = material.get("extensions", {})
    return values, images, next((word for key, word in WORDS.items() if EXT + key in extensions), "Default")


def parent_of(material, word, values):
    substrate = editor.variables.get("r.Substrate") and word != "Unlit"
    return find_asset(SUBSTRATE if substrate else classic(
        word, int(values["AlphaMode"]), material.get("doubleSided", False)))


def set_parameters(instance, fresh, material, word, values, textures):
    """Fill an instance; `textures`: {name: texture}."""
    if fresh:
        instance._set("parent", parent_of(material, word, values))
    for name, value in values.items():
        kind = VECTORS if isinstance(value, (list, tuple)) else SCALARS
        _put(instance, kind, name, [*value, 1.0][:4] if kind == VECTORS else float(value))
    for name, texture in textures.items():
        _put(instance, TEXTURES, name, texture)
    for switch, of in HAS.items():
        _put(instance, SWITCHES, switch, any(t in textures for t in of))
    instance._dirtied()


def _put(instance, kind, name, value):
    if Name(name) in instance._names(kind):
        rows = [row for row in instance._rows(kind) if row._p["parameter_info"]._p["name"] != name]
        instance._set(kind, [*rows, entry(kind, name, value)])


def is_used(material, texture):
    """Whether a texture parameter isn't switched off."""
    switch = next((s for s, of in HAS.items() if texture in of), None)
    return switch is None or material._parameter(SWITCHES, switch) is not False


def file_material(material, name, add_texture):
    """A file's material of the chief parameters; `add_texture(texture)` gives the index of a texture, or
    None to go without."""
    made = {"name": name}
    for where, rows in [GROUPS[g] for g in ("Base", "Metal", "Normal", "Occlusion", "Emissive")] if material else ():
        into = made.setdefault(where, {}) if where else made
        for parameter, (key, default) in rows.items():
            if default is None:
                texture = material._parameter(TEXTURES, parameter)
                index = add_texture(texture) if texture and is_used(material, parameter) else None
                if index is not None:
                    into[key] = {"index": index}
            elif "." not in key:
                value = material._parameter(SCALARS if isinstance(default, float) else VECTORS, parameter)
                if value is not None:
                    numbers = [value] if isinstance(default, float) else [value.r, value.g, value.b, value.a]
                    numbers = [min(max(v, 0.0), 1.0) for v in numbers][:3 if "emissive" in key else 4]
                    into[key] = numbers[0] if isinstance(default, float) else numbers
    mode = int(material and material._parameter(SCALARS, "AlphaMode") or 0)
    return {k: v for k, v in made.items() if v != {}} | (
        {"alphaMode": ALPHA[mode]} if 0 < mode < len(ALPHA) else {})
