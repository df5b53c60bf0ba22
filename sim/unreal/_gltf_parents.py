"""The engine's own parents of glTF materials (the Interchange plugin's content), and what of a file
their parameters stand for."""
from ._editor import editor
from ._enums import BlendMode
from ._materials import (Material, MaterialInstanceConstant, SCALARS, SWITCHES, TEXTURES, VECTORS,
                         entry, set_rows)

FOLDER = "/InterchangeAssets/gltf/"
SUBSTRATE = FOLDER + "Substrate/M_GLTF"
CLASSIC = FOLDER + "MaterialInstances/"
PBR = "pbrMetallicRoughness"
EXT = "KHR_materials_"
WHITE, BLACK = (1.0, 1.0, 1.0, 1.0), (0.0, 0.0, 0.0, 1.0)

# Group -> where in a file's material it is read from (None: the material itself), and its parameters:
# key in the file and the parents' own value; None is a texture. A dot goes into a texture's reference.
GROUPS = {
    "Base": (PBR, {"BaseColorTexture": ("baseColorTexture", None),
                   "BaseColorFactor": ("baseColorFactor", WHITE)}),
    "Metal": (PBR, {"MetallicRoughnessTexture": ("metallicRoughnessTexture", None),
                    "MetallicFactor": ("metallicFactor", 1.0),
                    "RoughnessFactor": ("roughnessFactor", 1.0)}),
    "Normal": (None, {"NormalTexture": ("normalTexture", None),
                      "NormalScale": ("normalTexture.scale", 1.0)}),
    "Occlusion": (None, {"OcclusionTexture": ("occlusionTexture", None),
                         "OcclusionStrength": ("occlusionTexture.strength", 1.0)}),
    "Emissive": (None, {"EmissiveTexture": ("emissiveTexture", None),
                        "EmissiveFactor": ("emissiveFactor", BLACK)}),
    "EmissiveStrength": (EXT + "emissive_strength", {"EmissiveStrength": ("emissiveStrength", 1.0)}),
    "Glossiness": (EXT + "pbrSpecularGlossiness", {
        "DiffuseTexture": ("diffuseTexture", None), "DiffuseFactor": ("diffuseFactor", WHITE),
        "SpecularGlossinessTexture": ("specularGlossinessTexture", None),
        "SpecFactor": ("specularFactor", WHITE), "GlossinessFactor": ("glossinessFactor", 1.0)}),
    "Specular": (EXT + "specular", {
        "SpecularTexture": ("specularTexture", None), "SpecularFactor": ("specularFactor", 0.5),
        "SpecularColorTexture": ("specularColorTexture", None),
        "SpecularColorFactor": ("specularColorFactor", WHITE)}),
    "Iridescence": (EXT + "iridescence", {
        "IridescenceIOR": ("iridescenceIor", 1.3), "IridescenceFactor": ("iridescenceFactor", 0.0),
        "IridescenceTexture": ("iridescenceTexture", None),
        "IridescenceThicknessTexture": ("iridescenceThicknessTexture", None),
        "IridescenceThicknessMinimum": ("iridescenceThicknessMinimum", 100.0),
        "IridescenceThicknessMaximum": ("iridescenceThicknessMaximum", 400.0)}),
    "Anisotropy": (EXT + "anisotropy", {
        "AnisotropyTexture": ("anisotropyTexture", None),
        "AnisotropyStrength": ("anisotropyStrength", 0.0),
        "AnisotropyRotation": ("anisotropyRotation", 0.0)}),
    "IOR": (EXT + "ior", {"IOR": ("ior", 1.5)}),
    "Volume": (EXT + "volume", {
        "ThicknessTexture": ("thicknessTexture", None), "ThicknessFactor": ("thicknessFactor", 0.0),
        "AttenuationDistance": ("attenuationDistance", 10.0),
        "AttenuationColor": ("attenuationColor", WHITE)}),
    "Transmission": (EXT + "transmission", {
        "TransmissionTexture": ("transmissionTexture", None),
        "TransmissionFactor": ("transmissionFactor", 0.0)}),
    "ClearCoat": (EXT + "clearcoat", {
        "ClearCoatTexture": ("clearcoatTexture", None), "ClearCoatFactor": ("clearcoatFactor", 0.0),
        "ClearCoatRoughnessTexture": ("clearcoatRoughnessTexture", None),
        "ClearCoatRoughnessFactor": ("clearcoatRoughnessFactor", 0.0),
        "ClearCoatNormalTexture": ("clearcoatNormalTexture", None),
        "ClearCoatNormalScale": ("clearcoatNormalTexture.scale", 1.0)}),
    "Sheen": (EXT + "sheen", {
        "SheenColorTexture": ("sheenColorTexture", None), "SheenColorFactor": ("sheenColorFactor", BLACK),
        "SheenRoughnessTexture": ("sheenRoughnessTexture", None),
        "SheenRoughnessFactor": ("sheenRoughnessFactor", 0.0)}),
}
# What a key that is missing means in a file, where it isn't the parents' own value.
STANDARD = {"specularFactor": 1.0}
# Switch -> the textures of which it says whether there are any.
HAS = {f"bHas{n}Texture": (n + "Texture",) for n in (
    "BaseColor", "MetallicRoughness", "Normal", "Occlusion", "Emissive", "Specular", "SpecularColor",
    "Thickness", "Transmission")} | {
    "bHasDiffuseSpecGlossTexture": ("DiffuseTexture", "SpecularGlossinessTexture"),
    "bHasIridescence": ("IridescenceTexture",),
    "bHasAnisotropyTextureAndOrRotation": ("AnisotropyTexture",),
    "bHasClearCoatTexture": ("ClearCoatTexture", "ClearCoatRoughnessTexture", "ClearCoatNormalTexture"),
    "bHasSheenTexture": ("SheenColorTexture", "SheenRoughnessTexture")}
LIT = ("Normal", "Occlusion")
METAL = (*LIT, "Base", "Metal", "Specular", "Iridescence", "Anisotropy", "IOR", "Volume")
SHADINGS = {"Unlit": ("Base",), "SpecularGlossiness": (*LIT, "Emissive", "EmissiveStrength", "Glossiness"),
            "Transmission": (*METAL, "Transmission"),
            **{word: (*METAL, "Emissive", "EmissiveStrength", *own) for word, own in (
                ("Default", ()), ("ClearCoat", ("ClearCoat",)), ("Sheen", ("Sheen",)))}}
ALPHA = ("Opaque", "Mask", "Blend")


def _companions(texture):
    return {f"{texture}_OffsetScale": (0.0, 0.0, 1.0, 1.0), f"{texture}_TilingMethod": (0.0,) * 4,
            f"{texture}_Rotation": 0.0, f"{texture}_TexCoord": 0.0}


def _parameters(groups, has_textures):
    """Name -> value, None for a texture, of a parent with these groups."""
    found = {"AlphaMode": 0.0, "AlphaCutoff": 0.0}
    for group in groups:
        for name, (_, value) in GROUPS[group][1].items():
            found |= {name: value} | (_companions(name) if value is None else {})
    return found | {switch: has_textures for switch, of in HAS.items() if of[0] in found}


def _fill(material, parameters):
    rows = {kind: [] for kind in (SCALARS, VECTORS, TEXTURES, SWITCHES)}
    for name, value in parameters.items():
        kind = (TEXTURES if value is None else SWITCHES if isinstance(value, bool)
                else SCALARS if isinstance(value, float) else VECTORS)
        rows[kind].append(entry(kind, name, value))
    set_rows(material, rows)


def classic(word, alpha, two_sided):
    """The package of a classic parent."""
    middle = "" if word == "Transmission" else "_" + ALPHA[alpha]
    return f"{CLASSIC}MI_{word}{middle}{'_DS' if two_sided else ''}"


def engine_material(package):
    """The parent in that package, made when it is first wanted; None if there is none."""
    if not editor.interchange or not package.startswith(FOLDER):
        return None
    if package == SUBSTRATE:
        made = Material(package)
        _fill(made, _parameters(GROUPS, False) | {"bHasDiffuseSpecGloss": False})
    elif package.startswith(FOLDER + "Materials/M_") and package.rsplit("_", 1)[1] in SHADINGS:
        made = Material(package)
        _fill(made, _parameters(SHADINGS[package.rsplit("_", 1)[1]], True))
    else:
        found = next(((word, alpha, two) for word in SHADINGS for alpha in range(3)
                      for two in (False, True) if classic(word, alpha, two) == package), None)
        if found is None:
            return None
        word, alpha, two_sided = found
        above = FOLDER + "Materials/M_" + word
        made = MaterialInstanceConstant(package)
        made._set("parent", editor.assets.get(above) or engine_material(above))
        overrides = made._get("base_property_overrides")
        overrides._p |= {
            "override_blend_mode": True, "override_two_sided": True, "two_sided": two_sided,
            "blend_mode": (BlendMode.BLEND_TRANSLUCENT if word == "Transmission" else
                           (BlendMode.BLEND_OPAQUE, BlendMode.BLEND_MASKED,
                            BlendMode.BLEND_TRANSLUCENT)[alpha])}
        made._set("base_property_overrides", overrides)
    editor.dirty.pop(package, None)
    return made
