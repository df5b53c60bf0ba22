"""The stand-in's assets and grids: real files in, real geometry inside, real files out."""
import pathlib

import numpy as np
import pytest
import sim
import unreal as u
from hypothesis import given, settings, strategies as st
from hypothesis.extra import numpy as arrays
from sim.formats import glb, png

DATA = pathlib.Path(__file__).parent / "data"
# Measured by Blender before it wrote the file: triangles per slot.
CHAIR = {"Oak_Wood_001": 72, "Stoff___Grün": 12, "Métal_brossé": 24}


def box_of(mesh):
    box = mesh.get_bounding_box()
    return [tuple(round(v, 3) for v in corner.to_tuple()) for corner in (box.min, box.max)]


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
    hills = (DATA / "hills_127.png").read_bytes()
    document = glb.read(good).document
    loop = {**document, "nodes": [{"children": [0]}], "scenes": [{"nodes": [0]}]}
    for bad in (b"", good[:-4], good[:300], b"x" + good[1:], good.replace(b"POSITION", b"POSITIOX"),
                glb.write(loop), glb.write({**document, "extensionsRequired": ["X"]}),
                glb.write({**document, "materials": []}, glb.read(good).binary)):
        with pytest.raises(ValueError):
            file = glb.read(bad)
            for _, mesh, _ in glb.placed_meshes(file):
                [glb.triangles_of(file, part) for part in mesh["primitives"]]
        path = tmp_path / "Bad.glb"
        path.write_bytes(bad)
        if bad != glb.write(loop):
            assert ed.import_file(path) == [] and ed.log.pop()[0] == "error"
    for bad in (b"", hills[:200], hills[:-40] + b"\0" * 40, hills[:5000] + b"\1" + hills[5001:]):
        with pytest.raises(ValueError):
            png.read(bad)
    assert ed.import_file(tmp_path / "Missing.glb") == [] and "Missing.glb" in ed.log.pop()[1]


def test_a_mesh_comes_in_and_goes_out_as_it_is(ed, tmp_path):
    chair, *materials = ed.import_file(DATA / "glb" / "chair.glb", name="Chair")
    assert box_of(chair) == [(-24.0, -24.0, 0.0), (24.0, 24.0, 100.0)]
    assert {str(s.material_slot_name): len(part["indices"]) // 3 for s, part in
            zip(chair.static_materials, chair._sections())} == CHAIR
    assert chair.get_num_triangles(0) == 108 and len(materials) == 3 and faces_outward(chair)
    file = tmp_path / "out" / "chair.glb"
    assert u.GLTFExporter.export_to_gltf(chair, str(file), u.GLTFExportOptions(), set())
    (_, _, matrix), = glb.placed_meshes(glb.read(file.read_bytes()))
    again, *_ = ed.import_file(file, "/Game/Again", "Chair")
    for one, other in zip(chair._sections(), again._sections(), strict=True):
        assert np.array_equal(one["indices"], other["indices"])
        assert np.allclose(one["positions"], other["positions"], atol=1e-4)
        assert np.allclose(one["uvs"], other["uvs"]) and (matrix == np.eye(4)).all()
    tri, = ed.import_file(DATA / "glb" / "tiny.glb")    # (0 0 0), (1 0 0), (1 0 -1) in the file
    assert box_of(tri) == [(0.0, -100.0, 0.0), (100.0, 0.0, 0.0)] and faces_outward(tri)
    assert u.GLTFExporter.export_to_gltf(ed.make_material("/Game/M"), "x", None, set()) is None


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
