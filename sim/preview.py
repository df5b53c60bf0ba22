"""What one sees of a material: of an asset of the editor, and of a glTF file, in the same words.

Both give {parameter: value}: numbers, colours as tuples of four, and for a texture that is really used a
map of its pixels' digest, what they mean, uv channel, wrapping and transform. The file is read by the
glTF standard alone. What the editor's parents can't show is left out of both: emission beside
transmission, metal beside specular-glossiness, iridescence without a texture.
"""
import hashlib
import json
import os
from urllib.parse import unquote

from unreal._gltf_parents import EXT, GROUPS, PBR, STANDARD
from unreal._material_files import ALPHA, COLOURS, is_used
from unreal._materials import SCALARS, TEXTURES, VECTORS, MaterialInstance
from unreal._enums import TextureAddress, TextureCompressionSettings, TextureFilter

from .formats import gltf, images

WRAPS = {33071: "clamp", 33648: "mirror"}
FILTERS = {9728: "TF_NEAREST", 9985: "TF_BILINEAR", 9987: "TF_TRILINEAR"}
ADDRESSES = {TextureAddress.TA_CLAMP: "clamp", TextureAddress.TA_MIRROR: "mirror"}


def _colour(numbers):
    return tuple(round(float(v), 5) for v in (*numbers, 1.0)[:4])


def _digest(pixels):
    return hashlib.md5(pixels.tobytes()).hexdigest()


def _texture(pixels, meaning, uv, wrap, move, turn):
    return {"pixels": _digest(pixels), "meaning": meaning, "uv": int(uv), "wrap": tuple(wrap),
            "move": _colour(move), "turn": round(float(turn), 5)}


def _shown_texture(material, name):
    texture = material._parameter(TEXTURES, name)
    if not texture or not is_used(material, name):
        return None
    vector = {k: material._parameter(VECTORS, f"{name}_{k}") for k in ("OffsetScale", "TilingMethod")}
    move, tiling = ((v.r, v.g, v.b, v.a) for v in vector.values())
    normal = texture.compression_settings is TextureCompressionSettings.TC_NORMALMAP
    return _texture(texture._pixels(), "normal" if normal else "colour" if texture.srgb else "data",
                    material._parameter(SCALARS, name + "_TexCoord"),
                    [("repeat", "clamp", "mirror")[int(v)] for v in tiling[:2]], move,
                    material._parameter(SCALARS, name + "_Rotation"))


def shown(material):
    """What the editor shows of a material on the parents of glTF materials."""
    found = {"alpha": ALPHA[int(material._parameter(SCALARS, "AlphaMode"))],
             "cutoff": round(material._parameter(SCALARS, "AlphaCutoff"), 5),
             "two_sided": isinstance(material, MaterialInstance) and material._base("two_sided")}
    for _, rows in GROUPS.values():
        for name, (_, default) in rows.items():
            if default is None:
                found[name] = _shown_texture(material, name)
            elif isinstance(default, float):
                value = material._parameter(SCALARS, name)
                found[name] = None if value is None else round(value, 5)
            else:
                value = material._parameter(VECTORS, name)
                found[name] = value and _colour((value.r, value.g, value.b, value.a))
    return {k: v for k, v in found.items() if v is not None}


def settings_of(texture):
    """Filter and wrapping of a texture asset, as samplers have them."""
    return texture.filter.name, ADDRESSES.get(texture.address_x, "repeat"), ADDRESSES.get(
        texture.address_y, "repeat")


def sampler_settings(document, index):
    """The same of a texture of a file."""
    texture = document["textures"][index]
    sampler = document["samplers"][texture["sampler"]] if "sampler" in texture else {}
    return (FILTERS.get(sampler.get("minFilter"), TextureFilter.TF_DEFAULT.name),
            *(WRAPS.get(sampler.get(k), "repeat") for k in ("wrapS", "wrapT")))


def _groups(material):
    extensions = material.get("extensions", {})
    if EXT + "unlit" in extensions:
        return {"Base"}
    left_out = {"Emissive", "EmissiveStrength"} if EXT + "transmission" in extensions else set()
    if EXT + "pbrSpecularGlossiness" in extensions:
        return {"Normal", "Occlusion", "Emissive", "EmissiveStrength", "Glossiness"} - left_out
    return set(GROUPS) - left_out


def told(document, pixels_of, index=0):
    """What a glTF document says of its material; `pixels_of(image)` gives the pixels of one by its index."""
    material = document["materials"][index]
    alpha = material.get("alphaMode", "OPAQUE")
    found = {"alpha": alpha, "two_sided": material.get("doubleSided", False),
             "cutoff": round(material.get("alphaCutoff", 0.5), 5) if alpha == "MASK" else 0.0}
    if EXT + "unlit" in material.get("extensions", {}):
        found["cutoff"] = 0.0       # the parents have none for it
    for group in sorted(_groups(material)):
        where, rows = GROUPS[group]
        source = (material if where is None else material.get(PBR, {}) if where == PBR
                  else material.get("extensions", {}).get(where))
        for name, (key, default) in rows.items() if source is not None else ():
            key, _, detail = key.partition(".")
            value = source.get(key)
            if default is None:
                if value is not None:
                    found[name] = _told_texture(document, name, value, pixels_of)
                continue
            value = value.get(detail) if detail and value else value
            value = STANDARD.get(key, default) if value is None else value
            found[name] = round(float(value), 5) if isinstance(default, float) else _colour(value)
    return found


def _told_texture(document, name, info, pixels_of):
    texture = document["textures"][info["index"]]
    move = info.get("extensions", {}).get("KHR_texture_transform", {})
    return _texture(pixels_of(texture["source"]),
                    "normal" if "Normal" in name else "colour" if name in COLOURS else "data",
                    move.get("texCoord", info.get("texCoord", 0)), sampler_settings(document, info["index"])[1:],
                    [*move.get("offset", (0, 0)), *move.get("scale", (1, 1))], move.get("rotation", 0))


def told_by(file):
    """told() of a .gltf file with image files beside it, or of a GLB file; of each of its materials."""
    with open(file, "rb") as opened:
        data = opened.read()
    if data.startswith(b"glTF"):
        content, document = gltf.read(data), json.loads(data[20:20 + int.from_bytes(data[12:16], "little")])
        return [told(document, lambda i: images.read(content.images[i][1]), m)
                for m in range(len(document["materials"]))]
    document = json.loads(data)

    def pixels_of(index):
        with open(os.path.join(os.path.dirname(file), unquote(document["images"][index]["uri"])), "rb") as image:
            return images.read(image.read())
    return [told(document, pixels_of, m) for m in range(len(document["materials"]))]
