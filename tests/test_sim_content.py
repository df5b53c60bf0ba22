"""The stand-in's assets and grids: real files in, real geometry inside, real files out."""
import json
import pathlib
import struct
import zlib

import numpy as np
import pytest
import sim
import unreal as u
from hypothesis import given, settings, strategies as st
from hypothesis.extra import numpy as arrays
from sim.formats import fbx, glb, gltf, images, places, png
from unreal import _importing
from unreal._editor import editor

HERE = pathlib.Path(__file__).parent
DATA = HERE / "data"
# Measured by Blender before it wrote the files: metres, z up, right-handed; V up; see the first test.
MEASURED = json.loads((DATA / "glb" / "measured.json").read_text("utf-8"))
BROKEN = sorted((DATA / "glb" / "broken").iterdir())


def sample(name):
    """A file that Blender wrote; the larger ones are not in this folder, but may lie beside the project."""
    for folder in (DATA / "glb", *(above / "shared" / "samples" for above in HERE.parents)):
        if (folder / name).exists():
            return folder / name
    pytest.skip(f"{name} isn't here")


def box_of(mesh):
    box = mesh.get_bounding_box()
    return [tuple(round(v, 2) for v in corner.to_tuple()) for corner in (box.min, box.max)]


def faces_outward(mesh):
    """Whether each triangle's own normal, by the editor's left hand, is that of its corners."""
    for part in mesh._sections():
        a, b, c = (part["positions"][part["indices"].reshape(-1, 3)[:, i]] for i in range(3))
        normal = part["normals"][part["indices"].reshape(-1, 3)[:, 0]]
        if not ((np.cross(c - a, b - a) * normal).sum(1) > -1e-3).all():
            return False
    return True


@settings(max_examples=60, deadline=None, database=None, derandomize=True)
@given(arrays.arrays(st.sampled_from([np.uint8, np.uint16]), st.one_of(
    st.tuples(st.integers(1, 9), st.integers(1, 9)),
    st.tuples(st.integers(1, 9), st.integers(1, 9), st.integers(2, 4)))))
def test_what_is_written_as_png_is_read_again(pixels):
    assert np.array_equal(png.read(png.write(pixels)), pixels)


def test_files_that_are_none(tmp_path, ed):
    good = (DATA / "glb" / "chair.glb").read_bytes()
    chair, hills = glb.read(good), (DATA / "hills_127.png").read_bytes()
    first = chair.document["bufferViews"][0]
    deep = struct.pack("<5I", glb.MAGIC, 2, 200020, 200000, glb.JSON_CHUNK) + b"[" * 200000
    for i, bad in enumerate((
            deep, good[:-4], good[:300], b"x" + good[1:], good.replace(b"POSITION", b"POSITIOX"),
            glb.write(chair.document | {"materials": []}, chair.binary),
            glb.write(chair.document | {"materials": [{"alphaMode": 1}] * 3}, chair.binary),
            glb.write(chair.document | {"nodes": [{"mesh": 9}]}, chair.binary),
            glb.write(chair.document | {"nodes": [{"children": [2]}, {"children": [2]}, {}]}, chair.binary),
            glb.write(chair.document | {"buffers": [{"byteLength": 99}]}, chair.binary),
            glb.write(chair.document | {"accessors": [{"componentType": 5126, "type": "VEC3",
                                                       "count": 1 << 40}]}, chair.binary),
            glb.write(chair.document | {"bufferViews": [first | {"byteOffset": len(chair.binary) - 1}]},
                      chair.binary),
            *(file.read_bytes() for file in BROKEN))):
        path = tmp_path / f"Bad{i}.glb"
        path.write_bytes(bad)
        before = set(editor.assets)
        assert ed.import_file(path) == [] and set(editor.assets) == before, (i, bad[:99])
        (level, line), = ed.log
        assert level == "error" and path.name in line, ed.log
        ed.clear_log()
    for bad in (b"", hills[:200], hills[:-40] + b"\0" * 40, hills[:5000] + b"\1" + hills[5001:]):
        with pytest.raises(ValueError):
            png.read(bad)
    assert ed.import_file(tmp_path / "Missing.glb") == [] and "Missing.glb" in ed.log.pop()[1]


@pytest.mark.parametrize("name", sorted(MEASURED))
def test_a_file_comes_in_and_goes_out_as_blender_measured_it(ed, tmp_path, name):
    file, truth = sample(name), MEASURED[name]
    made = ed.import_file(file)
    assert [k for k, _ in ed.log] == {"empty.glb": ["warning"], "lines.glb": ["warning"],
                                      "shapes.glb": ["warning"] * 2}.get(name, [])
    meshes = [a for a in made if isinstance(a, (u.StaticMesh, u.SkeletalMesh))]
    assert made[:len(meshes)] == meshes
    content = gltf.read(file.read_bytes())
    source = {m.name: m for m in content.meshes}
    options, out = u.GLTFExportOptions(), tmp_path / "out" / "x.glb"
    options.export_vertex_colors = True
    solid = [(key, known) for key, known in truth["meshes"].items() if known["slots"]]
    for (key, known), mesh in zip(solid, meshes, strict=True):
        parts, skeletal = mesh._sections(), isinstance(mesh, u.SkeletalMesh)
        slots = mesh.materials if skeletal else mesh.static_materials
        assert [[str(s.material_slot_name), len(p["indices"]) // 3] for s, p in
                zip(slots, parts, strict=True)] == [[k or "None", n] for k, n in known["slots"]]
        (x, y, z), (X, Y, Z) = (np.multiply(c, 100) for c in known["bounds"])
        box = mesh._box
        assert np.allclose((box.min.to_tuple(), box.max.to_tuple()), [(x, -Y, z), (X, -y, Z)], atol=0.01)
        for i, ((low, down), (high, up)) in enumerate(known["uv"]):
            uvs = np.concatenate([p[f"uvs{i or ''}"] for p in parts])
            assert np.allclose((uvs.min(0), uvs.max(0)), ((low, 1 - up), (high, 1 - down)), atol=1e-4)
        if "colour" in known:
            assert np.allclose(parts[0]["colours"].mean(0), known["colour"], atol=0.04)   # one a point there
        assert faces_outward(mesh) or skeletal
        assert u.GLTFExporter.export_to_gltf(mesh, str(out), options, set())
        back = gltf.read(out.read_bytes())
        written, = back.meshes
        for part, other in zip(source[key].parts, written.parts, strict=True):
            assert part.arrays.keys() | {"normals"} == other.arrays.keys()
            for kind, rows in part.arrays.items():
                assert np.allclose(rows, other.arrays[kind], atol=1e-6), kind
            if part.material is not None:
                one, two = content.materials[part.material], back.materials[other.material]
                assert one["name"] == two["name"] and one.get("alphaMode") == two.get("alphaMode")
                assert two["pbrMetallicRoughness"]["baseColorFactor"] == pytest.approx(
                    one["pbrMetallicRoughness"].get("baseColorFactor", [1] * 4))
        again = ed.import_file(out, "/Game/Again")[0]
        assert type(again) is type(mesh)
        assert [set(p) for p in again._sections()] == [set(p) for p in parts]
    for material in made:
        if isinstance(material, u.Material):
            key = next(k for k in [*truth["base"], None] if k is None or _importing._safe(k)
                       == material.get_name().removesuffix("_1"))
            colour = material._parameter("vector_parameter_values", "BaseColorFactor")
            textured = material._parameter("texture_parameter_values", "BaseColorTexture")
            assert key is None or textured or np.allclose(
                [colour.r, colour.g, colour.b], truth["base"][key][:3], atol=1e-6)
    textures = [a for a in made if isinstance(a, u.Texture2D)]
    for texture, (size, mean) in zip(textures, truth.get("images", []), strict=True):
        rows = texture._pixels()
        assert rows.shape[1::-1] == tuple(size)
        mean = mean if rows.shape[2] == 4 else mean[:3]
        texture._save()
        assert texture._p["srgb"] != (texture.get_name() in (
            "normal_map", "orm", "coat", "grey_1", "grey_2", "specular_level"))
        assert np.allclose(rows.mean((0, 1)) / 255, mean, atol=2e-3)


def test_a_rig_comes_in_and_goes_out(ed, tmp_path):
    truth = MEASURED["rig.glb"]
    mesh, skeleton, *sequences = ed.import_file(sample("rig.glb"))[:4]
    names, parents = skeleton._p["bone_names"], skeleton._p["bone_parents"]
    assert [(n, names[p] if p >= 0 else None) for n, p in zip(names, parents)] == [
        (n, p) for n, p, _ in truth["bones"]]
    assert mesh._p["skeleton"] is skeleton and [
        str(s.get_editor_property("imported_material_slot_name")) for s in mesh.materials] == [
            "Skin.Body", "Cloth"]
    world = []
    for place, parent, bind, (_, _, head) in zip(skeleton._pose(), parents, skeleton._bind(),
                                                 truth["bones"]):
        world.append((world[parent] if parent >= 0 else np.eye(4)) @ places.matrix_of(place))
        assert np.allclose(world[-1][:3, 3], np.multiply(head, (100, -100, 100)), atol=0.01)
        assert np.allclose(bind @ world[-1], np.eye(4), atol=1e-3)
    for sequence, (name, (seconds, animated)) in zip(sequences, truth["actions"].items(), strict=True):
        assert sequence.get_name() == _importing._safe(name) and sequence._p["skeleton"] is skeleton
        assert sequence._p["sequence_length"] == pytest.approx(seconds, abs=1e-5)
        tracks = sequence._tracks()
        assert {n for (n, _), (_, rows) in tracks.items() if np.ptp(rows, 0).max() > 1e-4} == set(animated)
        assert all(times[0] == 0 for times, _ in tracks.values()) and len(tracks) == 60
        hips = tracks["hips", "translation"][1][0]
        assert np.allclose(hips, skeleton._pose()[names.index("hips"), :3], atol=1e-3)
        assert np.allclose(np.abs((tracks["hips", "rotation"][1][0] * skeleton._pose()[1, 3:7]).sum()), 1)
    assert u.GLTFExporter.export_to_gltf(mesh, str(tmp_path / "x.glb"), u.GLTFExportOptions(), set())
    before, after = (gltf.read(f.read_bytes()).skins[0] for f in (sample("rig.glb"), tmp_path / "x.glb"))
    assert after.names == before.names and after.parents == before.parents
    assert np.allclose(after.pose, before.pose, atol=1e-6)
    assert np.allclose(after.inverse_bind, before.inverse_bind, atol=1e-6)


def test_what_blender_does_not_write(ed, tmp_path):
    """A moved armature, morph targets with a skin, strips, sparse and 8-bit numbers, splines."""
    b = glb.Builder()
    flat = np.array([(0, 0, 0), (1, 0, 0), (0, 1, 0), (1, 1, 0)], np.float32)
    where = b.data(np.array([3], np.uint8).tobytes())
    moved = b.data(np.array([(1, 1, 2)], np.float32).tobytes())
    sparse = b.array(flat)
    b.document["accessors"][sparse]["sparse"] = {
        "count": 1, "indices": {"bufferView": where, "componentType": 5121}, "values": {"bufferView": moved}}
    colours = b.array(np.full((4, 4), 51, np.uint8))
    b.document["accessors"][colours]["normalized"] = True
    attributes = {"POSITION": sparse, "COLOR_0": colours, "JOINTS_0": b.array(
        np.array([(0, 9, 0, 0)] * 4, np.uint8)), "WEIGHTS_0": b.array(
            np.array([(3, 0, 1, 0)] * 4, np.float32))}
    b.add("meshes", {"primitives": [{"mode": 5, "attributes": attributes, "targets": [
        {"POSITION": b.array(flat)}]}], "extras": {"targetNames": ["Wide/r"]}})
    b.document["nodes"] = [{"mesh": 0, "skin": 0, "translation": [5, 5, 5]},
                           {"name": "Rig", "children": [2], "rotation": [0.5] * 4,
                            "translation": [0, 0, 3], "scale": [-2, -2, -2]},
                           {"name": "bone", "translation": [1, 2, 0], "rotation": [0.1, 0.5, -0.5, 0.7]}]
    b.add("skins", {"joints": [2]})
    times = b.array(np.array([[1.0], [3.0]], np.float32))
    spline = b.array(np.array([(9, 9, 9), (1, 2, 0), (9, 9, 9), (9, 9, 9), (0, 2, 0), (9, 9, 9)], np.float32))
    weights = b.array(np.array([[0.0], [0.5]], np.float32))
    b.add("animations", {"name": "Go", "samplers": [
        {"input": times, "output": spline, "interpolation": "CUBICSPLINE"},
        {"input": times, "output": weights}], "channels": [
        {"sampler": 0, "target": {"node": 2, "path": "translation"}},
        {"sampler": 1, "target": {"node": 0, "path": "weights"}}]})
    (tmp_path / "Odd.glb").write_bytes(b.bytes())
    mesh, skeleton, action = ed.import_file(tmp_path / "Odd.glb", name="Odd")
    part, = mesh._sections()
    assert part["positions"][3].tolist() == [100, 200, 100] and not part["joints"].any()
    assert part["indices"][:, 0].tolist() == [0, 1, 2, 1, 3, 2] and not ed.log
    assert np.allclose(part["colours"], 0.2) and part["target:Wide/r"][1].tolist() == [100, 0, 0]
    assert part["weights"].tolist() == [[1, 0, 0, 0]] * 4
    # The bone's (1, 2, 0), times -2, its axes passed on by one and moved, is (0, -2, -1) there.
    assert np.allclose(skeleton._pose()[0, :3], (0, -100, -200), atol=1e-3)
    read = gltf.read((tmp_path / "Odd.glb").read_bytes())
    assert np.allclose(places.matrix_of(read.skins[0].pose[0]), gltf.world(read, 2, {}), atol=1e-6)
    tracks = action._tracks()
    assert np.allclose(tracks["bone", "translation"][1], [(0, -100, -200), (0, -100, 0)], atol=1e-4)
    assert tracks["Wide/r", "weight"][1].tolist() == [[0], [0.5]] and action._p["sequence_length"] == 2
    out = tmp_path / "Out.glb"
    assert u.GLTFExporter.export_to_gltf(mesh, str(out), u.GLTFExportOptions(), set())
    back, = gltf.read(out.read_bytes()).meshes
    assert back.target_names == ["Wide/r"] and np.array_equal(back.parts[0].targets[0], flat)


def test_importing_again(ed, tmp_path):
    """What the user set stays where slots agree; nothing of another kind is replaced."""
    chair, oak, *_ = ed.import_file(DATA / "glb" / "chair.glb", name="Chair")
    assert chair.get_path_name() == "/Game/Imported/chair/StaticMeshes/Chair.Chair" and len(editor.dirty) == 4
    own, sections = ed.make_material("/Game/M"), chair._sections()
    chair.set_material(1, own)
    oak._set("scalar_parameter_values", [])
    ed.edit_mesh(chair, bounds=((0, 0, 0), (9, 9, 9)))
    again = ed.import_file(DATA / "glb" / "chair.glb", name="Chair")
    assert again[0] is chair and again[1] is oak and chair.get_num_triangles(0) == 108
    assert chair.get_material(1) is own and chair.get_material(0) is oak and len(sections) == 3
    assert len(oak.get_editor_property("scalar_parameter_values")) == 3
    task = u.AssetImportTask()
    task.set_editor_properties({"filename": str(DATA / "glb" / "chair.glb"), "save": True,
                                "destination_path": "/Game/Imported/"})
    u.MaterialInstanceConstant("/Game/Imported/chair/StaticMeshes/chair_mesh")
    u.AssetToolsHelpers.get_asset_tools().import_asset_tasks([task])
    assert list(task.imported_object_paths) == ["/Game/Imported/chair/StaticMeshes/chair_mesh_1.chair_mesh_1"]
    assert (pathlib.Path(ed.project_dir) / "Content/Imported/chair/StaticMeshes/chair_mesh_1.uasset").exists()


def test_export_options_and_materials(ed, tmp_path):
    mesh, *_, sign, _ = ed.import_file(sample("unlit.glb"))
    options, out = u.GLTFExportOptions(), tmp_path / "x.glb"
    size = options.default_material_bake_size
    size.x, size.y = 64, 32
    options.default_material_bake_size = size
    kinds = u.GLTFTextureImageFormat
    material = mesh.get_material(0)
    base, = material.get_editor_property("texture_parameter_values")
    glow = u.TextureParameterValue(u.MaterialParameterInfo("EmissiveTexture"), base.parameter_value)
    material.set_editor_property("texture_parameter_values", [base, glow])
    for asset in (mesh, mesh.get_material(0)):
        for changes, kind in (({}, "image/jpeg"), ({"texture_image_format": kinds.PNG}, "image/png"),
                              ({"texture_image_format": kinds.NONE}, None),
                              ({"bake_material_inputs": u.GLTFMaterialBakeMode.DISABLED}, None)):
            options.set_editor_properties(changes)
            assert u.GLTFExporter.export_to_gltf(asset, str(out), options, set())
            back = gltf.read(out.read_bytes())
            assert [k for _, _, k in back.images] == [kind] * bool(kind)
            assert all(images.read(data).shape == (32, 64, 3) for _, data, _ in back.images)
            made = back.materials[0]
            assert ("baseColorTexture" in made["pbrMetallicRoughness"]) == bool(kind)
            assert made.get("emissiveTexture") == ({"index": 0} if kind else None)
            assert [m["name"] for m in back.materials] == ["Unlit Image" if asset is mesh else "Unlit_Image"]
            options = u.GLTFExportOptions()
            options.default_material_bake_size = size
    colours = ed.import_file(sample("colours.glb"))[0]
    assert u.GLTFExporter.export_to_gltf(colours, str(out), options, set())
    assert "colours" not in gltf.read(out.read_bytes()).meshes[0].parts[0].arrays and not ed.log
    options.default_material_bake_size = u.GLTFMaterialBakeSize()
    ed.edit_mesh(mesh, {"positions": [(0, 0, 0), (9, 0, 0), (0, 9, 0)], "normals": [(0, 0, 7)] * 3,
                        "indices": [0, 2, 1]})
    assert u.GLTFExporter.export_to_gltf(mesh, str(out), options, set())
    back = gltf.read(out.read_bytes())
    assert back.meshes[0].parts[0].arrays["normals"].tolist() == [[0, 1, 0]] * 3
    assert images.read(back.images[0][1]).shape == (128, 128, 3)
    u.StaticMesh("/Game/Bare")
    for asset, file in ((mesh, tmp_path), (sign, out), (u.load_asset("/Game/Bare"), out)):
        assert u.GLTFExporter.export_to_gltf(asset, str(file), options, set()) is None
        assert ed.log.pop()[0] == "error"


def test_fbx(ed, tmp_path):
    """Out and in again; triangles may be listed anew, so what they cover is compared."""
    for name in ("chair.glb", "colours.glb", "longname.glb"):
        mesh, out = ed.import_file(sample(name))[0], tmp_path / "Fbx.fbx"
        task = u.AssetExportTask()
        task.set_editor_properties({"object": mesh, "filename": str(out), "options": u.FbxExportOption()})
        assert u.Exporter.run_asset_export_task(task) is True and not ed.log
        again = ed.import_file(out, f"/Game/{name[:3]}")[0]
        assert again.get_path_name() == f"/Game/{name[:3]}/Fbx.Fbx" and faces_outward(again)
        for one, other in zip(mesh.static_materials, again.static_materials, strict=True):
            assert str(one.material_slot_name).replace('"', "'") == str(other.material_slot_name)
        for one, other in zip(mesh._sections(), again._sections(), strict=True):
            assert one.keys() == other.keys()
            for key in one.keys() - {"indices", "uvs1"}:
                corners = [part[key][part["indices"][:, 0]] for part in (one, other)]
                assert np.allclose(*corners, atol=1e-4), key
    chair = glb.read((DATA / "glb" / "chair.glb").read_bytes())
    del chair.document["nodes"][0]["extras"]
    nodes = [{"name": "All", "children": [1]}, {"name": "Up", "translation": [0, 0, 3], "children": [2]},
             {"name": "Mirrored", "mesh": 0, "scale": [-2, 2, 2]}]
    out.write_bytes(fbx.from_glb(glb.write(chair.document | {"nodes": nodes}, chair.binary)))
    placed, *_ = ed.import_file(out, "/Game/Placed")    # its metres are centimetres now
    assert placed.get_num_triangles(0) == 108 and faces_outward(placed)
    assert box_of(placed) == [(-0.48, 2.52, 0.0), (0.48, 3.48, 2.0)]
    out.write_bytes(b"; FBX")
    task.object = ed.make_material("/Game/M")
    assert ed.import_file(out) == [] and not u.Exporter.run_asset_export_task(task)
    assert [k for k, _ in ed.log] == ["error"] * 2


def test_an_image_that_cannot_be_read_is_left_out(ed, tmp_path):
    good = sample("unlit.glb").read_bytes()
    head = good.index(b"IHDR")
    size = b"IHDR" + struct.pack(">II", 60000, 60000) + good[head + 12:head + 17]
    data = good.index(b"IDAT")
    for bad in (good.replace(b"image/png", b"image/tif", 1), good[:data + 40] + b"\0" + good[data + 41:],
                good[:head] + size + struct.pack(">I", zlib.crc32(size)) + good[head + 21:]):
        (tmp_path / "Bad.glb").write_bytes(bad)
        made = ed.import_file(tmp_path / "Bad.glb")
        assert len([a for a in made if isinstance(a, u.StaticMesh)]) == 4
        assert [a.get_name() for a in made if isinstance(a, u.Texture2D)] == ["unlit_leaf"]
        (level, line), = ed.log
        assert level == "warning" and "'sign'" in line
        ed.clear_log()


def test_packages(ed, tmp_path):
    rock = ed.make_mesh("/Game/Props/Rock", ((0, 0, 0), (30, 20, 10)))
    paint = ed.make_material("/Game/Props/Paint")
    paint.set_editor_property("scalar_parameter_values", [u.ScalarParameterValue(
        u.MaterialParameterInfo("Wear"), 0.25)])
    red = ed.make_material("/Game/Props/Red", paint)
    lib, editing = u.EditorAssetLibrary, u.MaterialEditingLibrary
    assert editing.set_material_instance_scalar_parameter_value(red, "wear", 0.5)
    assert not editing.set_material_instance_scalar_parameter_value(red, "Gloss", 0.5)
    picture, = ed.import_file(DATA / "hills_127.png", name="Hills")
    registry, hard = u.AssetRegistryHelpers.get_asset_registry(), u.AssetRegistryDependencyOptions
    assert registry.get_referencers("/Game/Props/M_Mat", hard(False, True)) == ["/Game/Props/Rock"]
    ed.edit_mesh(rock, {"positions": [(0, 0, 0), (9, 0, 0), (0, 9, 0)], "indices": [0, 2, 1]})
    assert rock.get_num_vertices(0) == 3 and box_of(rock)[1] == (9.0, 9.0, 0.0)
    dirty = {p.get_name() for p in u.EditorLoadingAndSavingUtils.get_dirty_content_packages()}
    assert {"/Game/Props/Rock", "/Game/Props/Red", "/Game/Imported/Hills"} <= dirty
    ed.reload_asset(rock)
    assert rock.get_num_triangles(0) == 12 and box_of(rock)[1] == (30.0, 20.0, 10.0)
    lib.set_metadata_tag(rock, "From", "Blender")
    ed.spawn("StaticMeshActor", "Rock", mesh=rock)
    ed.save()
    ed.edit_mesh(rock, bounds=((0, 0, 0), (1, 1, 1)))       # not saved

    sim.Editor(ed.project_dir)                              # another day
    rock, red, picture = (u.load_asset(p) for p in (
        "/Game/Props/Rock.Rock", "/Game/Props/Red", "/Game/Imported/Hills"))
    assert rock.get_num_triangles(0) == 12 and box_of(rock)[1] == (30.0, 20.0, 10.0)
    assert lib.get_metadata_tag(rock, "From") == "Blender"
    assert editing.get_material_instance_scalar_parameter_value(red, "Wear") == 0.5
    assert editing.get_scalar_parameter_names(red) == ["Wear"]
    assert picture.blueprint_get_size_x() == 127 and picture._pixels().dtype == np.uint16
    assert ed.actor("Rock").static_mesh_component.static_mesh is rock
    ed.delete_asset(rock)
    assert not lib.does_asset_exist("/Game/Props/Rock")
    assert not (pathlib.Path(ed.project_dir) / "Content/Props/Rock.uasset").exists()
    assert registry.get_assets_by_path("/Game/Props").__len__() == 3
    assert registry.get_assets_by_path("") is None
