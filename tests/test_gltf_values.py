"""A glTF material as parameters of the editor's parents: what is written, and what the editor then shows."""
import json
import random

import pytest
import unreal as u
from conftest import ROOT
from sim import preview
from unreal._gltf_parents import EXT, GROUPS, PBR
from unreal._editor import editor

DATA = ROOT / "tests" / "data" / "materials"
SUBSTRATE = "/InterchangeAssets/gltf/Substrate/M_GLTF.M_GLTF"
MISSING = ["bHasSpecularTexture", "bHasSpecularColorTexture", "bHasIridescence",
           "bHasAnisotropyTextureAndOrRotation"]
# What the link's roles of these images say is colour or nothing, whatever the standard does.
LOOSE = ("TransmissionTexture", "ThicknessTexture", "SheenRoughnessTexture", "SpecularTexture",
         "IridescenceTexture", "IridescenceThicknessTexture", "AnisotropyTexture", "SheenColorTexture",
         "SpecularGlossinessTexture")
TEXTURES = {"textures": [{"source": 0, "sampler": 0}, {"source": 0}],
            "samplers": [{"wrapS": 33071, "wrapT": 33648}]}


def agree(told, shown, missing=()):
    for found in (told, shown):
        for name in LOOSE:
            if isinstance(found.get(name), dict):
                found[name] = found[name] | {"meaning": None}
    assert {k: shown.get(k) for k in told if k not in missing} == {k: v for k, v in told.items()
                                                                   if k not in missing}


@pytest.fixture(params=[1, 0], ids=["substrate", "classic"])
def project(request, ed):
    editor.variables["r.Substrate"] = request.param
    return request.param


@pytest.mark.parametrize("name", sorted(p.name for p in DATA.iterdir() if p.is_dir()))
def test_a_file_is_shown_as_it_says(ed, K, project, name):
    file = DATA / name / "material.gltf"
    mi, textures = K._gltf_files_material({"file": str(file)}, name)
    [told] = preview.told_by(file)
    # A volume without a distance is endless in the file, the parents have no such thing.
    agree(told, preview.shown(mi), ["AttenuationDistance"] if name == "frosted" else [])
    document = json.loads(file.read_bytes())
    used = K._gltf_values(document["materials"][0], document, bool(project))["textures"]
    roles = K._gltf_texture_roles(document["materials"][0], set(used.values()))
    for parameter, index in used.items():
        texture = mi._parameter("texture_parameter_values", parameter)
        assert texture in textures and preview.sampler_settings(document, index) == preview.settings_of(texture)
        assert roles[index][0] in (None, texture.srgb)


@pytest.mark.parametrize("file", ["materials/textured.glb", "glb/specular.glb", "glb/unlit.glb"])
def test_an_imported_file_is_shown_as_it_says(ed, K, project, file):
    file = ROOT / "tests" / "data" / file
    for index, told in enumerate(preview.told_by(file)):
        name = K._glb_json(str(file))["materials"][index]["name"]
        for _ in range(2):
            mi, _ = K._glb_material({"key": K._safe(name), "file": str(file)}, "Imported")
            agree(dict(told), preview.shown(mi))


def everything(dice, groups):
    """A material in which every key of these groups has a value of its own."""
    material = {}
    for where, rows in (GROUPS[g] for g in groups):
        into = (material if where is None else material.setdefault(PBR, {}) if where == PBR
                else material.setdefault("extensions", {}).setdefault(where, {}))
        for key, default in rows.values():
            key, _, detail = key.partition(".")
            value = round(dice.uniform(0.01, 0.99), 4)
            if detail:
                into[key][detail] = value
            elif default is None:
                move = {"offset": [0.25, value], "scale": [2, 3], "rotation": 0.5}
                into[key] = {"index": dice.randrange(2), "texCoord": dice.randrange(3)} | (
                    {"extensions": {"KHR_texture_transform": move}} if value > 0.4 else {})
            elif isinstance(default, float):
                into[key] = value
            else:
                channels = 4 if key in ("baseColorFactor", "diffuseFactor") else 3
                into[key] = [round(dice.uniform(0.01, 0.99), 4) for _ in range(channels)]
    return material


COMMON = ["Normal", "Occlusion", "Emissive", "EmissiveStrength"]
METAL = ["Base", "Metal", "Specular", "Iridescence", "Anisotropy", "IOR", "Volume"]


@pytest.mark.parametrize("seed", range(3))
@pytest.mark.parametrize("groups", [COMMON + METAL, COMMON + ["Glossiness"], [*COMMON, *METAL, "ClearCoat"],
                                    [*COMMON, *METAL, "Sheen"], [*COMMON, *METAL, "Transmission"]],
                         ids=lambda groups: groups[-1])
def test_every_key_arrives(ed, K, tmp_path, project, groups, seed):
    dice = random.Random(seed)
    document = TEXTURES | {"materials": [everything(dice, groups) | {
        "alphaMode": dice.choice(["OPAQUE", "MASK", "BLEND"]), "doubleSided": seed == 1}]}
    picture = ed.import_file(DATA / "frosted" / "tex files" / "grey.png")[0]
    vals = K._gltf_values(document["materials"][0], document, bool(project))
    mi = K._instance_at("/Game/Verrin/Materials/A", "A")
    K._apply_gltf_values(mi, vals, {0: picture, 1: picture})
    told = preview.told(document, lambda _: picture._pixels())
    shown = preview.shown(mi)
    for found in (told, shown):     # one picture in all roles: each can't have its settings
        found |= {k: v | {"meaning": None} for k, v in found.items() if isinstance(v, dict)}
    agree(told, shown)
    blend = mi._base("blend_mode").name
    alpha = told["alpha"]
    clear = alpha != "OPAQUE" or groups[-1] == "Transmission"
    if project:
        assert blend == ("BLEND_TRANSLUCENT_COLORED_TRANSMITTANCE" if clear else "BLEND_OPAQUE")
    else:
        assert vals["blend"] is vals["two_sided"] is None
        assert blend == ("BLEND_TRANSLUCENT" if groups[-1] == "Transmission" else
                         {"OPAQUE": "BLEND_OPAQUE", "MASK": "BLEND_MASKED", "BLEND": "BLEND_TRANSLUCENT"}[alpha])


def classic(name):
    return f"/InterchangeAssets/gltf/MaterialInstances/{name}.{name}"


@pytest.mark.parametrize("material, parent", [
    ({}, "MI_Default_Opaque"), ({"alphaMode": "MASK", "doubleSided": True}, "MI_Default_Mask_DS"),
    ({"extensions": {EXT + "unlit": None}, "alphaMode": "BLEND"}, "MI_Unlit_Blend"),
    ({"extensions": {EXT + "transmission": {}, EXT + "clearcoat": {}}, "alphaMode": "MASK"}, "MI_Transmission"),
    ({"extensions": {EXT + "transmission": {}}, "doubleSided": 1}, "MI_Transmission_DS"),
    ({"extensions": {EXT + "clearcoat": {}, EXT + "sheen": {}}}, "MI_ClearCoat_Opaque"),
    ({"extensions": {EXT + "sheen": {}}, "alphaMode": "other"}, "MI_Sheen_Opaque"),
    ({"extensions": {EXT + "sheen": None}}, "MI_Default_Opaque"),
    ({"extensions": {EXT + "pbrSpecularGlossiness": {}, EXT + "transmission": {}}},
     "MI_SpecularGlossiness_Opaque")])
def test_parents(K, material, parent):
    found = K._gltf_values(material, {}, False)
    assert found["parent"] == classic(parent) and found["blend"] is found["two_sided"] is None
    assert u.load_asset(found["parent"]) is not None
    found = K._gltf_values(material, {}, True)
    unlit = "Unlit" in parent
    assert found["parent"] == (classic(parent) if unlit else SUBSTRATE)
    assert found["two_sided"] == (None if unlit else parent.endswith("DS"))


def test_only_what_differs_is_written(K):
    def values(material=None, sub=False, **document):
        found = K._gltf_values(material or {}, document, sub)
        return [found[k] for k in ("scalars", "vectors", "textures", "switches")]
    plain = [f"bHas{n}Texture" for n in ("Normal", "Emissive", "Occlusion", "BaseColor", "MetallicRoughness")]
    assert values() == [{}, {}, {}, dict.fromkeys(plain + MISSING, False)]
    assert values(sub=True) == [{}, {}, {}, dict.fromkeys(["bHasDiffuseSpecGloss", *MISSING], False)]
    image = {PBR: {"baseColorTexture": {"index": 0}}, "extensions": {EXT + "unlit": {}}}
    assert values(image, True, textures=[{}])[2:] == [{"BaseColorTexture": 0}, {"bHasBaseColorTexture": True}]
    assert values(image, False, textures=[{}])[3] == {}
    assert values({"alphaMode": "MASK"})[0] == {"AlphaCutoff": 0.5, "AlphaMode": 1.0}
    assert values({"alphaMode": "MASK", "alphaCutoff": 0})[0] == {"AlphaMode": 1.0}
    clear = {"extensions": {EXT + "transmission": {}}}
    assert values(clear)[0] == {"AlphaMode": 0.0} and values(clear)[3]["bHasEmissiveTexture"] is False
    assert values(clear | {"alphaMode": "BLEND"})[0] == {"AlphaMode": 2.0}
    assert values({"extensions": {EXT + "ior": {}, EXT + "volume": {}, EXT + "specular": {}}})[0] == {
        "IOR": 1.0, "AttenuationDistance": 1.0, "SpecularFactor": 1.0}
    same = {EXT + "ior": {"ior": 1.5}, EXT + "volume": {"attenuationDistance": 10.0 + 1e-9},
            EXT + "specular": {"specularFactor": 0.5, "specularColorFactor": [1, 1, 1]}}
    assert values({"extensions": same})[:2] == [{}, {}]
    both = values({"extensions": {EXT + "pbrSpecularGlossiness": {}, EXT + "transmission": {}}})
    assert both[0] == {} and both[3] == dict.fromkeys(
        ["bHasNormalTexture", "bHasEmissiveTexture", "bHasOcclusionTexture", "bHasDiffuseSpecGlossTexture"], False)
    turned = values({"extensions": {EXT + "anisotropy": {"anisotropyRotation": 1e-9}}})
    assert "bHasAnisotropyTextureAndOrRotation" not in turned[3] and turned[0] == {}
    for factor, written in (([1, 1, 1], [1, 1, 1, 1]), ([0, 1, 1, 1, 5], [0, 1, 1, 1]), ([1] * 5, None), ([], [1] * 4)):
        assert values({PBR: {"baseColorFactor": factor}})[1].get("BaseColorFactor") == written


def test_textures_and_their_companions(K):
    def mapped(info, **document):
        found = K._gltf_values({"normalTexture": info}, {"textures": [{"sampler": 0}, {}], **document}, False)
        return found["textures"], found["scalars"], found["vectors"]
    for wrong in (None, 5, [], {}, {"index": -1}, {"index": 2}, {"index": 1.0}, {"index": "0"}, {"index": 2**70}):
        assert mapped(wrong)[0] == {}
    assert mapped({"index": 0, "texCoord": 1, "scale": 2}) == (
        {"NormalTexture": 0}, {"NormalTexture_TexCoord": 1.0, "NormalScale": 2.0}, {})
    for sampler, tiling in (({"wrapS": 33071}, [1, 0, 0, 0]), ({"wrapT": 33648}, [0, 2, 0, 0]),
                            ({"wrapS": 10497, "wrapT": 7}, None), ({}, None)):
        assert mapped({"index": 0}, samplers=[sampler])[2].get("NormalTexture_TilingMethod") == tiling
        assert mapped({"index": 1}, samplers=[sampler])[2] == {}
    for move, written in (({}, None), ({"offset": [0.5, 0]}, [0.5, 0, 1, 1]), ({"scale": [2, 3, 4]}, [0, 0, 2, 3]),
                          ({"offset": [], "scale": [1, 1]}, None), ({"offset": [7]}, [7, 1, 1, 1])):
        found = mapped({"index": 1, "extensions": {"KHR_texture_transform": move}})
        assert found[2].get("NormalTexture_OffsetScale") == written


@pytest.mark.parametrize("material", [
    5, {"extensions": 5}, {"extensions": {EXT + "clearcoat": []}}, {"extensions": {EXT + "ior": None}},
    {PBR: {"metallicFactor": "much"}}, {PBR: {"metallicFactor": None}}, {PBR: {"baseColorFactor": 1}},
    {PBR: {"roughnessFactor": float("nan")}}, {"emissiveFactor": [1e300, 0, 0]}, {"emissiveFactor": {"r": 1}}])
def test_what_is_no_material_is_refused(K, material):
    with pytest.raises((TypeError, ValueError, RuntimeError, AttributeError)):
        K._gltf_values(material, {}, True)


def test_roles_override_in_order(K):
    def roles(**material):
        return K._gltf_texture_roles(material, {2, 0, 1})
    t = [{"index": i} for i in range(4)]
    assert list(roles()) == [0, 1, 2] and roles()[0] == (None, False)
    found = roles(normalTexture=t[0], occlusionTexture=t[1], emissiveTexture=t[2],
                  **{PBR: {"baseColorTexture": t[1], "metallicRoughnessTexture": t[3]}})
    assert found == {0: (None, True), 1: (False, False), 2: (True, False)}
    found = roles(normalTexture=t[0], occlusionTexture=t[0], extensions={
        EXT + "volume": {"thicknessTexture": t[0]}, EXT + "clearcoat": {
            "clearcoatNormalTexture": t[1], "clearcoatTexture": t[2], "clearcoatRoughnessTexture": t[2]}})
    assert found == {0: (True, True), 1: (None, True), 2: (False, False)}
    for key, extension, srgb in (("diffuseTexture", "pbrSpecularGlossiness", True), ("specularTexture", "specular", True),
                                 ("specularColorTexture", "specular", True), ("sheenColorTexture", "sheen", None),
                                 ("transmissionTexture", "transmission", False)):
        assert roles(extensions={EXT + extension: {key: t[1]}})[1] == (srgb, False)
