"""Meshes on their way to the peer: files in the cache, the queue, edits that are offered again."""
import json
import os
import pathlib
from types import SimpleNamespace

import pytest
import unreal as u
from conftest import FRAME, kinds, logged, warnings
from sim.formats import glb
from sim.windows import Desktop

CHAIR = "/Game/Props/Chair.Chair"


@pytest.fixture
def chair(ed):
    return ed.make_mesh("/Game/Props/Chair", slots=("Wood", "Seat"))


@pytest.fixture
def peer(ed, chair, connect):
    """A peer of a level with a chair in it."""
    ed.spawn("StaticMeshActor", "Chair", mesh=chair)
    return connect()


def files(peer, *types):
    """What came of "mesh_file" and "mat_file", without the files' folders."""
    got = [m for m in peer.take() if m["t"] in ("mesh_file", "mat_file", *types)]
    return [{**m, "file": os.path.basename(m["file"])} if "file" in m else m for m in got]


def exports(ed):
    """The calls of the exporter from now on: (asset's name, textures or not)."""
    calls = []
    ed.inject("GLTFExporter.export_to_gltf", times=0, when=lambda asset, file, options, actors:
              calls.append((asset.get_name(), options.bake_material_inputs.name)))
    return calls


def test_what_is_exported_once_is_given_again(ed, K, chair, clock, monkeypatch):
    calls = exports(ed)
    key = K._asset_entry(CHAIR)["key"]
    folder = os.path.join(K.cache_dir(), "ue")
    full, geo = K._export_asset(CHAIR), K._export_asset(CHAIR, phase="geo")
    assert [full, geo] == [os.path.join(folder, f"Chair_{key}_v2{end}.glb") for end in ("", "_geo")]
    assert calls == [("Chair", "SIMPLE"), ("Chair", "DISABLED")]
    assert logged(ed) == [f"exported {CHAIR} (0.00 s)"]
    for file in (full, geo):
        document = glb.read(pathlib.Path(file).read_bytes()).document
        assert [m["name"] for m in document["materials"]] == ["Wood"]   # nothing is in the other
    os.utime(full, (5, 5))
    assert K._export_asset(CHAIR) == full and os.stat(full).st_mtime > 5
    monkeypatch.setattr(os, "utime", lambda *_: (_ for _ in ()).throw(PermissionError()))
    assert K._export_asset(CHAIR) == full and len(calls) == 2
    monkeypatch.undo()
    pathlib.Path(full).write_bytes(b"")     # is no export
    assert K._export_asset(CHAIR) == full and os.path.getsize(full) and len(calls) == 3
    long = ed.make_mesh("/Game/" + "Long" * 20)
    assert os.path.basename(K._export_asset(long.get_path_name())).startswith("Long" * 12 + "_")


def test_options_of_the_exporter(ed, K):
    options = K._gltf_options(True)
    size = options.default_material_bake_size
    assert (size.x, size.y, size.auto_detect) == (512, 512, False)
    assert [options.texture_image_format.name, K._gltf_options(0).texture_image_format.name] == [
        "JPEG", "NONE"]
    for flag, value in {"export_source_model": True, "export_vertex_colors": True,
                        "export_lights": False, "export_cameras": False}.items():
        assert options.get_editor_property(flag) is value
    ed.inject("Object.set_editor_property", times=None,
              when=lambda o, name, *_: name in ("bake_material_inputs", "export_lights"))
    ed.inject("Object.get_editor_property")
    options = K._gltf_options(False)        # of an engine that knows fewer
    assert options.export_lights and not options.export_cameras


def test_fallbacks_and_their_words(ed, K, chair, clock):
    folder = os.path.join(K.cache_dir(), "ue")
    base = os.path.join(folder, f"Chair_{K._asset_entry(CHAIR)['key']}_v2")
    ed.inject("GLTFExporter.export_to_gltf", ValueError("no shader"))
    assert K._export_asset(CHAIR) == base + ".fbx"
    assert logged(ed)[-1] == f"exported {CHAIR} as FBX (0.00 s) [glTF: no shader]"
    assert K._export_asset(CHAIR) == base + ".fbx"      # a hit while there is no .glb
    glb_file = K._export_asset(CHAIR, glb_only=True)
    assert glb_file == base + ".glb" == K._export_asset(CHAIR)
    K._S["ue_format"] = "FBX"
    assert K._export_asset(CHAIR) == base + ".fbx" and K._export_asset(CHAIR, "full", True) == glb_file
    assert K._export_asset(CHAIR, "geo") == base + "_geo.fbx"
    assert logged(ed)[-1] == f"exported {CHAIR} as FBX (0.00 s) []"
    K._S["ue_format"] = "GLB"
    # Nothing is written, and the exporter says nothing.
    for file in os.listdir(folder):
        os.remove(os.path.join(folder, file))
    ed.inject("GLTFExporter.export_to_gltf", result=None, times=None)
    with pytest.raises(RuntimeError, match=r"^glTF export failed for .*Chair \(glTF export failed\)$"):
        K._export_asset(CHAIR, glb_only=True)
    ed.inject("Exporter.run_asset_export_task", result=True)     # but there is no file
    with pytest.raises(RuntimeError, match=r"^export failed for .*Chair \(glTF export failed\)$"):
        K._export_asset(CHAIR)
    ed.remove("FbxExportOption")
    assert K._export_asset(CHAIR, "geo") == base + "_geo.fbx"
    with pytest.raises(RuntimeError, match="asset not found: /Game/No.No"):
        K._export_asset("/Game/No.No")
    ed.heal()
    ed.remove("GLTFExporter")
    K._S["asset_rev"] = {CHAIR: 1}
    K._S["assets"].clear()
    assert K._export_asset(CHAIR).endswith("_v2.fbx") and logged(ed)[-1].endswith("(0.00 s) []")


def test_a_material_by_itself(ed, K, clock):
    oak = ed.make_material("/Game/M_Oak").get_path_name()
    file = K._export_material(oak)
    assert os.path.basename(file).startswith("mat_M_Oak_") and logged(ed) == [
        f"exported material {oak} (0.00 s)"]
    assert K._export_material(oak) == file and len(logged(ed)) == 1
    K._S["ue_textures"] = False
    assert K._export_material(oak) == file.replace(".glb", "_flat.glb")
    K._S["ue_textures"] = True
    os.remove(file)
    for make_fail, path, why in (
            (lambda: None, CHAIR, f"material not found: {CHAIR}"),
            (lambda: ed.inject("GLTFExporter.export_to_gltf", result=None), oak,
             f"glTF export of material {oak} failed"),
            (lambda: ed.remove("GLTFExporter"), oak, "the glTF Exporter plugin is off - materials of "
             "overrides can't go to Blender")):
        make_fail()
        with pytest.raises(RuntimeError) as failure:
            K._export_material(path)
        assert str(failure.value) == why


def test_requests_are_answered_geometry_first_and_heavy_ones_apart(ed, K, peer, tick, clock):
    ed.make_mesh("/Game/Props/Table")
    ed.make_material("/Game/Props/Oak")
    table = "/Game/Props/Table.Table"
    calls = exports(ed)
    peer.send({"t": "need_mat", "paths": ["", "/Game/Props/Oak.Oak"]})
    for _ in range(2):
        peer.send({"t": "need_mesh", "assets": [CHAIR, table]})
    tick()
    first = files(peer)
    assert [(m["asset"], m["phase"]) for m in first[:2]] == [(CHAIR, "geo"), (table, "geo")]
    assert [m["t"] for m in first] == ["mesh_file", "mesh_file", "mat_file"]
    key = K._asset_entry(CHAIR)["key"]
    assert first[0] == {"t": "mesh_file", "asset": CHAIR, "file": f"Chair_{key}_v2_geo.glb",
                        "key": key, "phase": "geo", "slot_mats": [
                            ["Wood", "M_Wood", "/Game/Props/M_Wood.M_Wood"],
                            ["Seat", "M_Seat", "/Game/Props/M_Seat.M_Seat"]]}
    times = []
    for _ in range(40):
        tick()
        times += [clock.now] * len(files(peer))
    assert len(times) == 2 and times[1] - times[0] > 0.25 and len(calls) == 5
    assert K._eq() == {"geo": K._eq()["geo"], "rest": K._eq()["rest"], "set": set()}
    peer.send({"t": "need_mesh", "assets": [CHAIR], "full": True})
    tick(0.3)
    assert [m["phase"] for m in files(peer, "busy")] == ["full"] and len(calls) == 5    # from the cache
    assert logged(ed, "warning") == []


def test_the_slice_ends_and_output_goes_first(ed, K, peer, tick, clock):
    paths = [ed.make_mesh(f"/Game/Many/M{i}").get_path_name() for i in range(20)]
    ed.inject("GLTFExporter.export_to_gltf", times=0, when=lambda *_: clock.advance(0.003))
    peer.send({"t": "opts", "ue_textures": False})
    peer.send({"t": "need_mesh", "assets": paths, "full": True})     # without textures: geometry alone
    tick()
    assert len(files(peer)) == 3
    conn, full = K._S["conn"], SimpleNamespace(wbuf=b"x")
    K._export_tick(full)
    assert len(K._eq()["geo"]) == 17
    K._export_tick(conn)
    conn.flush()
    assert [m["phase"] for m in files(peer)] == ["geo"] * 3


def test_heavy_work_waits_for_the_user(ed, K, peer, tick):
    desktop = Desktop()
    desktop.add(os.getpid(), (0, 0, 9, 9))
    other = desktop.add(os.getpid() + 1, (0, 0, 9, 9))
    peer.send({"t": "need_mesh", "assets": [CHAIR]})
    with desktop.installed():
        desktop.last_input, desktop.tick_count = 2**32 - 900, 2**32 + 900     # 1.8 s, across the wrap
        tick(1.0)
        assert [m["phase"] for m in files(peer)] == ["geo"] and K._S["fg"] is True
        desktop.foreground = other
        tick(0.3)
        assert [m["phase"] for m in files(peer)] == ["full"] and K._S["fg"] is False
        desktop.foreground = desktop.windows[0]
        assert K._user_in_unreal() is False     # an answer is good for a quarter second
        tick(0.3)
        assert K._user_in_unreal() is True
        desktop.tick_count += 200
        tick(0.3)
        assert K._user_in_unreal() is False
    tick(0.3)
    assert K._user_in_unreal() is False         # no Windows: nobody can tell


@pytest.mark.parametrize("ue_format, textures, full, phases", [
    ("FBX", True, False, ["full"]), ("FBX", False, True, ["full"]), ("GLB", False, True, ["geo"]),
    ("GLB", True, True, ["full"]), (None, None, False, ["geo", "full"])])
def test_which_phases_a_request_has(K, ed, ue_format, textures, full, phases):
    K._S.update(ue_format=ue_format, ue_textures=textures)
    K._h_need_mesh({"assets": [CHAIR], "full": full})
    eq = K._eq()
    assert [ph for _, ph in [*eq["geo"], *eq["rest"]]] == phases and len(eq["set"]) == len(phases)
    K._h_need_mat({"paths": ["/Game/M.M"]})
    K._h_opts({"ue_textures": False})
    assert [ph for _, ph in K._eq()["rest"]] == ["mat"]
    assert K._eq()["set"] == {*K._eq()["geo"], *K._eq()["rest"]}
    for bad in ([5], "abc", [None]):
        with pytest.raises(TypeError):
            K._h_need_mesh({"assets": bad})


def test_failures_are_answered_once(ed, K, peer, tick):
    ed.inject("GLTFExporter.export_to_gltf", OSError(28, "No space left on device"), times=None)
    ed.inject("Exporter.run_asset_export_task", result=False, times=None)
    peer.send({"t": "need_mesh", "assets": ["/Game/Gone.Gone", CHAIR]})
    peer.send({"t": "need_mat", "paths": ["/Game/Gone.Gone"]})
    tick(2.0)
    got = files(peer)
    full = f"export failed for {CHAIR} (glTF: [Errno 28] No space left on device)"
    assert [(m["t"], m["file"], m["error"]) for m in got] == [
        ("mesh_file", "", "asset not found: /Game/Gone.Gone"), ("mesh_file", "", full),
        ("mesh_file", "", "asset not found: /Game/Gone.Gone"), ("mesh_file", "", full),
        ("mat_file", "", "material not found: /Game/Gone.Gone")]
    assert "key" not in got[1] and len(warnings(ed)) == 5 and peer.busy is None
    assert K._eq()["set"] == set() and "last_error" not in K._S
    # The extra file for the materials is worth a warning, not the answer.
    ed.heal()
    ed.clear_log()
    K._S["ue_format"] = "FBX"
    for fails in (True, False):
        if fails:
            ed.inject("GLTFExporter.export_to_gltf", ValueError("no"))
        peer.send({"t": "need_mesh", "assets": [CHAIR]})
        tick(0.3)
        [m] = files(peer)
        assert m["file"].endswith(".fbx") and ("mat_file" in m) is not fails
    assert [w.split(": ", 1)[0] for w in logged(ed, "warning")] == [f"materials of {CHAIR}"]


def test_a_peer_that_leaves_while_much_waits(ed, K, peer, connect, tick):
    peer.send({"t": "need_mesh", "assets": [CHAIR] + [f"/Game/M{i}.M{i}" for i in range(200)]})
    peer.send({"t": "need_mat", "paths": [f"/Game/M{i}.M{i}" for i in range(200)]})
    tick()
    peer.close()
    tick(0.5)
    assert K._S["conn"] is None and K._S["busy_what"] is None
    second = connect()
    assert K._S["eq"] is None or K._eq()["set"] == set()
    tick(1.0)
    assert files(second) == [] and second.busy is None


# -- edits in the editor

def test_an_edited_mesh_comes_again_under_a_new_key(ed, K, peer, chair, tick):
    def offered(seconds=2.5):
        tick(seconds)
        return [(e["path"], e["key"]) for m in peer.take() if m["t"] == "assets" for e in m["items"]]

    keys = [K._asset_entry(CHAIR)["key"]]
    assert offered() == []
    ed.edit_mesh(chair, bounds=((0, 0, 0), (9, 9, 9)))
    [(path, key)] = offered()
    assert path == CHAIR and key not in keys and K._S["asset_rev"] == {CHAIR: 1}
    assert logged(ed)[-1] == "edited in Unreal: Chair - sent to Blender again"
    assert offered() == []                              # unsaved still, but the same shape
    for low in ((0, 0, 0.004), (0, 0, 5)):              # too little to tell; another shape
        ed.edit_mesh(chair, bounds=(low, (9, 9, 9)))
        assert len(offered()) == (low[2] == 5)
    ed.save()
    assert offered() == []      # a new stamp is asked for by nobody yet
    ed.edit_mesh(chair, {"positions": [(0, 0, 5), (9, 0, 9), (0, 9, 9)], "indices": [0, 1, 2]})
    assert len(offered()) == 1
    ed.inject("StaticMesh.get_bounding_box", times=None, when=lambda m: K._S["dirty_t"] != 0)
    assert offered() == [] and K._S["dirty_sig"] == {CHAIR: None}
    ed.heal()
    assert offered() == []                              # none was held
    ed.inject("EditorLoadingAndSavingUtils.get_dirty_content_packages", times=None)
    assert offered() == []
    ed.heal()
    ed.remove("StaticMesh.get_num_vertices")
    ed.clear_log()
    assert offered(5.0) == []
    assert warnings(ed) == ["[Verrin] this engine is too old for get_num_vertices; get_number_verts is "
                            "asked instead"]
    assert K._S["dirty_sig"][CHAIR][6:] == (3, 1)
    # What the link made, or the peer overwrote, isn't offered back.
    K._S["ours"] = {CHAIR}
    ed.edit_mesh(chair, bounds=((0, 0, 0), (1, 1, 1)))
    assert offered() == []


def test_the_line_names_five_of_many(ed, K, connect, tick):
    meshes = [ed.make_mesh(f"/Game/Many/M{i}") for i in range(8)]
    for mesh in meshes:
        ed.spawn("StaticMeshActor", mesh=mesh)
    peer = connect()
    tick(2.5)
    for mesh in meshes:
        ed.edit_mesh(mesh, bounds=((0, 0, 0), (9, 9, 9)))
    tick(2.5)
    [entries] = [m["items"] for m in peer.take() if m["t"] == "assets"]
    assert len(entries) == 8
    names = logged(ed)[-1].removeprefix("edited in Unreal: ").removesuffix(" - sent to Blender again")
    assert len(set(names.split(", "))) == 5


def test_a_reimport_is_told_to_who_has_the_mesh(ed, K, peer, chair, tick):
    other = ed.make_mesh("/Game/Other")
    for asset in (chair, other, ed.make_material("/Game/M"), None):
        u.get_editor_subsystem(u.ImportSubsystem).on_asset_reimport._fire(asset)
    tick(FRAME)
    assert kinds(peer) == ["assets"] and K._S["asset_rev"] == {CHAIR: 1, "/Game/Other.Other": 1}
    K._S["conn"].close()
    ed.reimport(chair)
    assert K._S["asset_rev"][CHAIR] == 2 and CHAIR in K._S["sent_assets"]
    before = len(u.get_editor_subsystem(u.ImportSubsystem).on_asset_reimport._callables)
    K.start()
    assert len(u.get_editor_subsystem(u.ImportSubsystem).on_asset_reimport._callables) == before == 1


def test_the_samples_entries_are_json(ed, K, chair):
    ours = ed.make_mesh("/Game/Verrin/Rock/Rock")
    u.EditorAssetLibrary.set_metadata_tag(ours, "VerrinCollision", '{"shape": "BOX", "sac": true}')
    entry = K._asset_entry(ours.get_path_name())
    assert list(entry)[-1] == "coll" and json.loads(json.dumps(entry))["coll"] == {
        "shape": "BOX", "sac": True}
    u.EditorAssetLibrary.set_metadata_tag(chair, "VerrinCollision", '{"shape": "BOX"}')
    assert "coll" not in K._asset_entry(CHAIR)      # not the link's own
