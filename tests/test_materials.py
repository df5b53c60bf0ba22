"""Materials that the peer brings and tunes: both routes, what each build touches, failures, live edits."""
import json
import shutil

import numpy as np
import pytest
import unreal as u
from conftest import ROOT, failure, logged
from PIL import Image
from unreal._editor import editor

DATA = ROOT / "tests" / "data" / "materials"
MATERIALS = "/Game/Verrin/Materials"
EDITING = "MaterialEditingLibrary."


@pytest.fixture
def folder(tmp_path):
    """Copies of the sample folders, to be changed."""
    return shutil.copytree(DATA, tmp_path / "Blender files")


def under(path):
    return sorted(p.split(".")[0].removeprefix(path + "/") for p in u.EditorAssetLibrary.list_assets(path))


def touched(ed, deed):
    """(assets imported to, assets saved, settings changed) while `deed` is done."""
    imported, saved = [], []
    ed.inject("AssetTools.import_asset_tasks", times=0, when=lambda tools, tasks: imported.extend(
        t.destination_name or "file" for t in tasks))
    ed.inject("EditorAssetLibrary.save_loaded_asset", times=0,
              when=lambda asset, *_: saved.append(asset.get_name()))
    deed()
    ed.heal()
    return imported, saved


def overrides(mi, kind="scalar"):
    return {str(e.parameter_info.name): e.parameter_value
            for e in mi.get_editor_property(f"{kind}_parameter_values")}


def build(ask, name, file, **fields):
    [done] = ask("mat", name=name, key=name, req=[1], file=str(file), **fields)
    return done


def test_a_material_of_separate_files(ed, K, ask, peer, folder):
    file = folder / "full_pbr" / "material.gltf"
    done = build(ask, "Full PBR", file)
    mi = u.load_asset(done["path"])
    base = f"{MATERIALS}/Full_PBR/FBX"
    assert done == {"t": "mat_done", "req": [1], "key": "Full PBR", "path": f"{base}/Full_PBR.Full_PBR",
                    "textures": [[n, f"{base}/{n}.{n}"] for n in ("Gl_hen", "normal_map", "orm", "base_color")]}
    assert logged(ed)[-1] == f"material Full PBR -> {done['path']} (4 textures)"
    assert all(u.load_asset(p).defer_compression for _, p in done["textures"])
    assert mi._package() not in editor.dirty and len(under(base)) == 5
    changes, parent = editor.material_changes, mi.parent
    # Again, unchanged: the instance alone is written, by whole lists and one update.
    again = []
    assert touched(ed, lambda: again.append(build(ask, "Full PBR", file))) == ([], ["Full_PBR"])
    assert again == [done] and editor.material_changes == changes + 1
    # One image more: only that one.
    Image.new("RGB", (8, 4), (9, 8, 7)).save(file.parent / "tex files" / "orm.png")
    assert touched(ed, lambda: build(ask, "Full PBR", file))[0] == ["orm"]
    assert u.load_asset(base + "/orm")._pixels()[0, 0].tolist() == [9, 8, 7]
    # What somebody set or deleted comes right; what the file lost leaves the instance.
    u.load_asset(base + "/orm").set_editor_properties({"srgb": True, "filter": u.TextureFilter.TF_NEAREST})
    ed.delete_asset(u.load_asset(base + "/normal_map"))
    imported, saved = touched(ed, lambda: build(ask, "Full PBR", file))
    assert imported == ["normal_map"] and saved == ["normal_map", "orm", "Full_PBR"]
    document = json.loads(file.read_bytes())
    del document["materials"][0]["normalTexture"]
    document["materials"][0] |= {"alphaMode": "MASK", "doubleSided": True}
    file.write_text(json.dumps(document))
    editor.variables["r.Substrate"] = 0
    done = build(ask, "Full PBR", file)
    assert u.load_asset(done["path"]) is mi and mi.parent is not parent
    assert mi.parent.get_name() == "MI_Default_Mask_DS" and "NormalTexture" not in overrides(mi, "texture")
    assert not mi.get_editor_property("base_property_overrides").get_editor_property("override_blend_mode")
    assert [n for n, _ in done["textures"]] == ["Gl_hen", "orm", "base_color"] and "trash" not in K._S
    build(ask, "Full PBR", file, cleanup=True)
    assert list(K._S["trash"]) == [base + "/normal_map"]


def test_names_of_images(ed, K, ask, folder):
    done = build(ask, "GREY", folder / "one_image_two_roles" / "material.gltf")
    assert [n for n, _ in done["textures"]] == ["grey_Tex", "grey_Tex_2"]
    assert touched(ed, lambda: build(ask, "GREY", folder / "one_image_two_roles" / "material.gltf"))[0] == []
    shades = [u.load_asset(p)._pixels() for _, p in done["textures"]]
    assert not np.array_equal(*shades)
    # One image with two meanings: an asset each, and each build leaves both alone.
    file = folder / "frosted" / "material.gltf"
    done = build(ask, "F", file)
    assert [(n, u.load_asset(p).srgb) for n, p in done["textures"]] == [("grey", False), ("grey_2", True)]
    assert touched(ed, lambda: build(ask, "F", file)) == ([], ["F"])
    # Without a name the file's; the same file under two names is one asset a name.
    document = json.loads(file.read_bytes())
    document["images"] = [{"uri": "tex%20files/grey.png"}, {"uri": "tex%20files/grey.png", "name": "grey_2"}]
    document["textures"][1]["source"] = 1
    file.write_text(json.dumps(document))
    assert [n for n, _ in build(ask, "G", file)["textures"]] == ["grey", "grey_2"]


def test_a_name_that_is_taken(ed, K, ask, folder):
    file = folder / "glow_factor" / "material.gltf"
    taken = ed.make_material(f"{MATERIALS}/A/FBX/A")
    assert build(ask, "A", file)["path"] == f"{MATERIALS}/A/FBX/MI_A.MI_A"
    ed.make_material(f"{MATERIALS}/B/FBX/B")
    ed.make_mesh(f"{MATERIALS}/B/FBX/MI_B")
    assert failure(K, ask("mat", name="B", file=str(file))) == f"{MATERIALS}/B/FBX/B is taken by other assets"
    assert type(taken) is u.Material and taken._valid
    for name in ("", None):
        [done] = ask("mat", name=name, file=str(file))
        assert done["path"] == f"{MATERIALS}/Material/FBX/Material.Material" and done["key"] is done["req"] is None


def test_a_material_by_the_importer(ed, K, ask, peer, folder):
    shutil.copy(folder / "textured.glb", folder / "Wood.GLB")
    done = build(ask, "Car Paint", folder / "Wood.GLB")
    base = f"{MATERIALS}/Car_Paint"
    assert done["path"] == f"{base}/Materials/Car_Paint.Car_Paint"
    assert sorted(n for n, _ in done["textures"]) == ["coat", "normal_map"]
    assert {p.split("/")[0] for p in under(base)} == {"Materials", "Textures", "StaticMeshes"}
    # Nothing reported the second time: what lies there is found, but for what the link itself keeps.
    for sub in ("FBX", "Graph", "Displacement"):
        ed.make_material(f"{base}/{sub}/Car_Paint")
    ed.make_material(f"{base}/AAA")
    real = u.AssetTools.import_asset_tasks
    try:
        u.AssetTools.import_asset_tasks = lambda self, tasks: None
        assert build(ask, "Car Paint", folder / "Wood.GLB")["path"] == done["path"]
        assert failure(K, ask("mat", name="No such", file=str(folder / "Wood.GLB"))) == "no material in No_such.glb"
    finally:
        u.AssetTools.import_asset_tasks = real
    # A key that fits none takes the first; the other route's leavings go, and this one's unused textures.
    [done] = ask("mat", name="Car Paint", key="?", file=str(folder / "Wood.GLB"), cleanup=True)
    assert done["path"] == f"{base}/Materials/Full_PBR.Full_PBR"
    gone = {p.removeprefix(base + "/") for p in K._S["trash"]}
    assert "FBX/Car_Paint" in gone and "Textures/leaf" in gone and not any(
        p.startswith(("Materials", "StaticMeshes", "Graph")) for p in gone) and "Textures/orm" not in gone
    assert "Displacement/Car_Paint" in gone     # there is no height map
    K._S["trash"].clear()
    build(ask, "Car Paint", folder / "leaf_clip" / "material.gltf", cleanup=True)
    gone = [p.removeprefix(base + "/").split("/")[0] for p in K._S["trash"]]
    assert list(dict.fromkeys(gone)) == ["Displacement", "FBX", "Materials", "Textures", "StaticMeshes"]


def test_an_import_over_a_former_one_is_mended(ed, K, ask, tmp_path):
    def glb(**material):
        document = {"asset": {"version": "2.0"}, "materials": [{"name": "M"} | material]}
        text = json.dumps(document).encode()
        text += b" " * (-len(text) % 4)
        file = tmp_path / "m.glb"
        file.write_bytes(b"glTF" + b"".join(n.to_bytes(4, "little") for n in (2, 20 + len(text), len(text)))
                         + b"JSON" + text)
        return file
    mi = u.load_asset(build(ask, "M", glb(alphaMode="MASK", alphaCutoff=0.25, emissiveFactor=[1, 0, 0],
                                          doubleSided=True))["path"])
    assert overrides(mi)["AlphaCutoff"] == 0.25 and mi._base("two_sided")
    picture = ed.import_file(DATA / "frosted" / "tex files" / "grey.png")[0]
    for name in ("BaseColorTexture", "SheenColorTexture"):
        u.MaterialEditingLibrary.set_material_instance_texture_parameter_value(mi, name, picture)
    assert build(ask, "M", glb(pbrMetallicRoughness={"metallicFactor": 0.5}))["path"] == mi.get_path_name()
    assert {"AlphaMode", "AlphaCutoff"}.isdisjoint(overrides(mi)) and not mi._base("two_sided")
    assert overrides(mi)["MetallicFactor"] == 0.5 and overrides(mi, "vector")["EmissiveFactor"].r == 0
    assert list(overrides(mi, "texture")) == ["SheenColorTexture"]      # of which it has no say


def test_a_height_map_is_taken_off(ed, K, ask, folder):
    file = folder / "glow_factor" / "material.gltf"
    mi = u.load_asset(build(ask, "H", file)["path"])
    master = ed.make_material(K.DISP_MASTER)
    ed.make_mesh(f"{MATERIALS}/H/Displacement/height")

    def dress(parent):
        mi.set_editor_property("parent", parent)
        bo = mi.get_editor_property("base_property_overrides")
        bo.set_editor_property("override_displacement_scaling", True)
        mi.set_editor_property("base_property_overrides", bo)
        mi.set_editor_property("texture_parameter_values", [u.TextureParameterValue(
            u.MaterialParameterInfo("DisplacementTexture", u.MaterialParameterAssociation.GLOBAL_PARAMETER, -1))])

    def scaled():
        return mi.get_editor_property("base_property_overrides").get_editor_property("override_displacement_scaling")
    dress(master)
    build(ask, "H", file, cleanup=True)     # the build resets the parent before it is asked for
    assert not scaled() and mi.parent.get_name() == "M_GLTF"
    assert {p.rsplit("/", 1)[1] for p in K._S["trash"]} == {"height", "M_Mat"}
    for tag, parent in (("", "M_GLTF"), ("/InterchangeAssets/gltf/MaterialInstances/MI_Sheen_Mask.MI_Sheen_Mask",
                                         "MI_Sheen_Mask"), ("/Game/Gone.Gone", "M_Verrin_Displaced")):
        dress(master)
        u.EditorAssetLibrary.set_metadata_tag(mi, "VerrinParent", tag)
        assert K._on_disp_master(mi) and K._apply_displacement(mi, {}, "H", False) == []
        assert mi.parent.get_name() == parent and not scaled() and overrides(mi, "texture") == {}
    K._apply_displacement(mi, None, "H", False)
    mi.set_editor_property("parent", None)
    assert touched(ed, lambda: K._apply_displacement(mi, None, "H", False)) == ([], [])
    build(ask, "H", file, disp={"file": "x.png"})
    assert "height map of H left out" in ed.log[-2][1]


BAD = {"nothing": ({}, "'file'"), "missing": ({"file": "/no/such.gltf"}, "No such file"),
       "no material": ("{}", "no material in m.gltf"), "no json": ("{", "Expecting"), "deep": ("[" * 10**6, "recursion"),
       "no utf-8": (b"\xff", "utf-8"), "bad value": ('{"materials": [{"extensions": 5}]}', "object"),
       "number": ({"file": 5}, "a file's name is a text"), "folder": ({"file": "/"}, "directory")}


@pytest.mark.parametrize("case", BAD)
def test_bad_materials_have_one_clear_answer(ed, K, ask, tmp_path, case):
    given, reason = BAD[case]
    if not isinstance(given, dict):
        (tmp_path / "m.gltf").write_bytes(given if isinstance(given, bytes) else given.encode())
        given = {"file": str(tmp_path / "m.gltf")}
    answers = ask("mat", name="Bad", key="k", req=5, **given)
    assert answers[0]["req"] == 5 and answers[0]["key"] == "k" and "path" not in answers[0]
    assert reason in failure(K, answers)
    assert under(MATERIALS) == [] and not editor.dirty


def test_without_the_parents(ed, K, ask, folder):
    editor.interchange = False
    [done, _] = ask("mat", name="M", file=str(folder / "glow_factor" / "material.gltf"))
    assert done["error"] == ("missing /InterchangeAssets/gltf/Substrate/M_GLTF.M_GLTF (Interchange plugin assets)")
    ed.inject("SystemLibrary.get_console_variable_int_value", RuntimeError("no"))
    assert K._substrate() is True
    assert K._S.pop("last_error")
    [done, _] = ask("mat", name="M", graph={"nodes": []})
    assert "node graph" in done["error"] and K._S.pop("last_error")


@pytest.mark.parametrize("image", ["data:image/png;base64,AAAA", "", None, 5, "gone.png", "tex%20files", "bad.png", "bomb.png",
                                   "jpeg.png", "\0.png", "../outside.png", "%2e%2e/outside.png", "{here}/outside.png"])
def test_images_that_are_none_and_images_elsewhere(ed, K, ask, folder, image):
    file = folder / "mirror_nearest" / "material.gltf"
    (file.parent / "bad.png").write_bytes(b"\x89PNG\r\n\x1a\n" + b"x" * 50)
    bomb = bytearray((file.parent / "tex files" / "F mark.png").read_bytes())
    bomb[16:24] = (60000).to_bytes(4, "big") * 2
    (file.parent / "bomb.png").write_bytes(bomb)
    for name in ("outside.png", "mirror_nearest/jpeg.png"):
        Image.new("RGB", (4, 2)).save(folder / name, "JPEG" if "jpeg" in name else "PNG")
    document = json.loads(file.read_bytes())
    document["images"][0]["uri"] = image and isinstance(image, str) and image.format(here=folder) or image
    file.write_text(json.dumps(document))
    done = build(ask, "M", file)
    mi = u.load_asset(done["path"])
    # An editor reads a JPEG whatever its name says; a file that the document points at may lie anywhere.
    there = image is not None and str(image).endswith(("outside.png", "jpeg.png"))
    assert len(done["textures"]) == len(overrides(mi, "texture")) == there
    assert len(K._S.get("tex_md5", {})) == there


# -- live


@pytest.fixture
def wood(ask, folder):
    return u.load_asset(build(ask, "Wood", folder / "full_pbr" / "material.gltf")["path"])


def test_live_parameters(ed, K, ask, wood):
    answers, changes = [], editor.material_changes
    params = {"RoughnessFactor": 1, "BaseColorFactor": [1, 0.5, 0], "EmissiveFactor": [1, 2, 3, 4, 5],
              "MetallicFactor": [1], "NormalTexture_OffsetScale": 3, "Unknown": 5}
    imported, saved = touched(ed, lambda: answers.extend(ask("mat_params", path=wood.get_path_name(), params=params)))
    assert answers == [] and (imported, saved) == ([], []) and editor.material_changes == changes + 1
    got = overrides(wood, "vector")
    assert [[getattr(got[n], c) for c in "rgba"] for n in ("BaseColorFactor", "EmissiveFactor")] == [
        [1, 0.5, 0, 1], [1, 2, 3, 4]]
    assert overrides(wood)["RoughnessFactor"] == 1.0 and overrides(wood).get("MetallicFactor", 1.0) == 1.0
    assert "NormalTexture_OffsetScale" not in got and wood._package() in editor.dirty
    for bad in ("x", None, float("nan"), 1e39):
        [error] = ask("mat_params", path=wood.get_path_name(), params={"RoughnessFactor": bad})
        assert error["t"] == "error" and overrides(wood)["RoughnessFactor"] == 1.0 and K._S.pop("last_error")
    for path in ("/Game/No.No", wood.parent.get_path_name()):
        assert ask("mat_params", path=path, params={"RoughnessFactor": 0}) == []
    assert ask("mat_params", path=wood.get_path_name()) == []


def test_six_hundred_slider_moves(ed, K, peer, tick, wood):
    builds = ed.inject("MaterialEditingLibrary.clear_all_material_instance_parameters", times=0, when=lambda *_: False)
    saves = ed.inject("EditorAssetLibrary.save_loaded_asset", times=0, when=lambda *_: False)
    before = editor.material_changes
    for i in range(600):
        peer.send({"t": "mat_params", "path": wood.get_path_name(), "params": {"RoughnessFactor": i / 600}})
        peer.send({"t": "mat_params", "path": wood.get_path_name(), "params": {"BaseColorFactor": [i / 600] * 3}})
        if i % 3 == 2:
            tick()
    tick()
    assert overrides(wood)["RoughnessFactor"] == pytest.approx(599 / 600)
    assert overrides(wood, "vector")["BaseColorFactor"].g == pytest.approx(599 / 600)
    assert editor.material_changes - before <= 201 and builds.hits == saves.hits == 0


def test_pixels_are_replaced(ed, K, ask, wood, tmp_path):
    texture = u.load_asset(f"{MATERIALS}/Wood/FBX/orm")
    path, package = texture.get_path_name(), texture._package()
    kept = {"srgb": False, "filter": u.TextureFilter.TF_NEAREST, "address_x": u.TextureAddress.TA_MIRROR,
            "address_y": u.TextureAddress.TA_CLAMP, "flip_green_channel": True,
            "compression_settings": u.TextureCompressionSettings.TC_MASKS}
    texture.set_editor_properties(kept | {"defer_compression": False})
    Image.new("RGB", (2, 2), (1, 2, 3)).save(tmp_path / "new.png")
    assert ask("tex", path=path, file=str(tmp_path / "new.png")) == [{"t": "tex_done", "path": path}]
    assert u.load_asset(path) is texture and texture._pixels()[0, 0].tolist() == [1, 2, 3]
    assert {k: texture.get_editor_property(k) for k in kept} == kept and texture.defer_compression
    assert package in editor.dirty and package not in K._S["tex_md5"]
    assert overrides(wood, "texture")["MetallicRoughnessTexture"] is texture
    for bad in (str(tmp_path / "gone.png"), str(tmp_path)):
        assert ask("tex", path=path, file=bad) == [{"t": "tex_done", "path": path}]
        assert texture._pixels()[0, 0].tolist() == [1, 2, 3]
    done, error = ask("tex", path=path)
    assert done["t"] == "tex_done" and error["t"] == "error" and K._S.pop("last_error")
    for other in (wood.get_path_name(), "/Game/No.No"):
        assert ask("tex", path=other) == [{"t": "tex_done", "path": other}]


def test_which_materials_are_known(ed, ask, wood):
    items = [["W", wood.get_path_name()], ["P", wood._package()], ["none", ""], ["null", None], ["gone", "/Game/No.No"]]
    assert ask("mat_known", items=items) == [{"t": "mat_known", "ok": ["W", "P"]}]
    assert ask("mat_known") == [{"t": "mat_known", "ok": []}]
