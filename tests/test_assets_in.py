"""Meshes, collision, physics and rigs that the peer brings, as real files."""
import os
import pathlib
import shutil

import pytest
import unreal as u
from conftest import ROOT, failure, kinds, logged, warnings

DATA = ROOT / "tests" / "data" / "glb"
XF = [10.0, 20.0, 30.0, 0.0, 1.0, 0.0, -1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 1.0, 1.0, 1.0]
CHAIR_FILE = str(DATA / "chair.glb")
# The chair's slots as Blender has them.
SLOTS = ["Oak Wood.001", "Stoff – Grün", "Métal brossé"]
RIG_FILE = str(DATA / "rig.glb")


def materials(mesh):
    return [slot.material_interface and slot.material_interface.get_name()
            for slot in mesh.static_materials]


# -- import

def test_a_mesh_becomes_an_asset_and_comes_back_as_an_entry(ed, K, peer, ask, tick):
    actor = ed.spawn("StaticMeshActor", "Seat")
    aid = actor.get_path_name()
    tick(2.0)
    entry, done = ask("mesh", file=CHAIR_FILE, name="Stuhl – blau", ids=[aid, "/No.Body"], req=[1])
    path = "/Game/Verrin/Stuhl___blau/StaticMeshes/chair_mesh.chair_mesh"
    assert done == {"t": "mesh_done", "req": [1], "asset": path, "ids": [aid, "/No.Body"]}
    assert [e["path"] for e in entry["items"]] == [path]
    assert entry["items"][0]["coll"] == {"shape": "AUTO", "sac": False}
    mesh = actor.static_mesh_component.static_mesh
    assert mesh.get_path_name() == path and mesh.get_num_triangles(0) == 108
    assert [str(s.material_slot_name) for s in mesh.static_materials] == SLOTS
    assert ed.history[-1] == "Verrin: mesh Stuhl – blau" and ed.redraws
    assert os.path.exists(K._package_file(path)) and K._S["asset_rev"] == {path: 1}
    assert logged(ed)[-1] == f"imported chair.glb -> {path}"
    assert os.path.exists(os.path.join(K.cache_dir(), "import", "Stuhl___blau.glb"))
    assert K._S["known"][aid]["info"]["asset"] == path
    tick(2.5)
    assert kinds(peer) == []        # no echo
    ed.undo()
    assert actor.static_mesh_component.static_mesh is None
    ed.redo()
    # Again over the same asset: a new key, the actor isn't touched.
    first, steps = entry["items"][0]["key"], len(ed.history)
    entry, _ = ask("mesh", file=CHAIR_FILE, asset=path, name="else", ids=[aid])
    assert entry["items"][0]["path"] == path and entry["items"][0]["key"] != first
    assert len(ed.history) == steps and K._S["asset_rev"] == {path: 2}


def test_folders_and_names(ed, K, ask):
    tiny = str(DATA / "tiny.glb")
    got = [ask("mesh", file=tiny, name=name)[1]["asset"].split("/")[3:]
           for name in ("Rock", "Rock", None, "")]
    assert [folder for folder, *_ in got] == ["Rock", "Rock_2", "Mesh", "Mesh_2"]
    os.makedirs(os.path.join(ed.project_dir, "Content", "Verrin", "Empty"))
    assert K._unique_folder("Empty") == "Empty" and K._unique_folder("Rock") == "Rock_3"
    # Outside the link's folder "asset" picks the mesh by its name only.
    shapes = str(DATA / "unlit.glb")
    _, done = ask("mesh", file=shapes, name="Set", asset="/Game/Other/No_Such.No_Such")
    first = done["asset"]
    others = [p for p in u.EditorAssetLibrary.list_assets("/Game/Verrin/Set")
              if isinstance(u.load_asset(p), u.StaticMesh) and p != first]
    wanted = others[-1].rsplit(".", 1)[1]
    _, done = ask("mesh", file=shapes, name="Set", asset=f"/Game/Other/{wanted}.{wanted}")
    assert done["asset"] == f"/Game/Verrin/Set_2/StaticMeshes/{wanted}.{wanted}"
    long = "Ü b e r " + "x" * 247
    _, done = ask("mesh", file=str(DATA / "longname.glb"), name=long)
    assert len(done["asset"].split("/")[3]) == 64


def test_names_are_compared_without_what_copies_add(K):
    for name, key in (("Wood.001", "wood"), ("wood_002", "wood"), ("WOOD", "wood"), ("Wood.01", "wood.01"),
                      ("a.0001", "a.0001"), ("x1.123", "x1"), (".123", ""), ("", ""), (None, ""),
                      (u.Name("Öl_007"), "öl")):
        assert K._mat_key(name) == key


def test_materials_by_name_slot_and_index(ed, K):
    oak, rust, glass = (ed.make_material(f"/Game/{n}") for n in ("Oak.001".replace(".", "_"), "Rust", "Glass"))

    def mesh(path, *slots):
        made = ed.make_mesh(path, slots=[name for name, _ in slots])
        for i, (_, material) in enumerate(slots):
            made.set_material(i, material)
        return made

    source = mesh("/Game/Src", ("Seat", None), ("Leg", oak), ("seat.001", rust), ("Top", glass))
    target = mesh("/Game/T", ("A", ed.make_material("/Game/Oak")), ("Leg.002", None),
                  ("Seat", rust), ("Odd", None))
    K._copy_materials(target, source.get_path_name())
    assert materials(target) == ["Oak_001", "Oak_001", "Rust", "Glass"]     # the last by its place
    odd = mesh("/Game/Odd", ("A", None), ("B", rust), ("C", None))
    K._copy_materials(odd, source.get_path_name())
    K._copy_materials(odd, "/Game/Glass.Glass")
    K._copy_materials(odd, None)
    assert materials(odd) == [None, "Rust", None]
    path = oak.get_path_name()
    K._put_slot_mats(odd, {"a.001": path, "RUST": "/Game/Glass.Glass", "B": path, "C": "/Game/No.No",
                           "": path})
    assert materials(odd) == ["Oak_001", "Glass", "Oak_001"]
    ed.inject("StaticMesh.set_material", times=None)
    K._put_slot_mats(odd, {"a": path, "c": "/Game/T.T", "b": ""})      # nothing differs, or is one
    for nothing in (None, {}):
        K._put_slot_mats(odd, nothing)
    with pytest.raises(TypeError):
        K._put_slot_mats(odd, [["a", path]])


def test_materials_and_collision_come_with_the_mesh(ed, K, ask):
    rust = ed.make_material("/Game/Rust")
    source = ed.make_mesh("/Game/Src", slots=("Oak_Wood", "x", "y"))
    source.set_material(2, rust)
    _, done = ask("mesh", file=CHAIR_FILE, name="A", mat_src=source.get_path_name(),
                  slot_mats={"stoff – grün": rust.get_path_name()}, coll={"shape": "box", "sac": 1})
    mesh = u.load_asset(done["asset"])
    assert materials(mesh)[1:] == ["Rust", "Rust"] and K._coll_of(mesh) == {"shape": "BOX", "sac": True}
    _, done = ask("mesh", file=CHAIR_FILE, asset=done["asset"])      # keeps what it had
    assert K._coll_of(mesh) == {"shape": "BOX", "sac": True} and K._simple_shapes(mesh) == 1
    _, done = ask("mesh", file=CHAIR_FILE, name="B", coll=False)
    assert K._coll_of(u.load_asset(done["asset"])) == {}
    ed.inject("StaticMeshEditorSubsystem.remove_collisions")
    ed.inject("EditorAssetLibrary.save_loaded_asset")
    _, done = ask("mesh", file=CHAIR_FILE, name="C")
    assert logged(ed, "warning") == ["collision of chair_mesh: injected"]


@pytest.mark.parametrize("file, says", [
    ("lost.glb", "No such file"), ("folder.glb", "Is a directory"), ("half.glb", "no static mesh ([])"),
    ("notes.txt", "no static mesh ([])"), (5, "is a text"), (None, "'file'")])
def test_a_file_that_gives_no_mesh_is_answered_once(ed, K, ask, tmp_path, file, says):
    (tmp_path / "folder.glb").mkdir()
    (tmp_path / "half.glb").write_bytes(pathlib.Path(CHAIR_FILE).read_bytes()[:5000])
    (tmp_path / "notes.txt").write_text("no mesh")
    before = ed.state()
    fields = {} if file is None else {"file": str(tmp_path / file) if isinstance(file, str) else file}
    assert says in failure(K, ask("mesh", name="X", req=7, ids=["a"], **fields))
    assert ed.state() == before and ed.history == []
    assert len([t for t in logged(ed, "warning") if t.startswith("mesh failed")]) == 1
    assert u.EditorAssetLibrary.list_assets("/Game/Verrin") == []


def test_a_full_disk(ed, K, ask, monkeypatch):
    def full(*_):
        raise OSError(28, "No space left on device")

    with monkeypatch.context() as patch:
        patch.setattr(shutil, "copyfile", full)
        assert failure(K, ask("mesh", file=CHAIR_FILE)) == "[Errno 28] No space left on device"
    path = ask("mesh", file=CHAIR_FILE, name="A")[1]["asset"]
    saved = pathlib.Path(K._package_file(path)).read_bytes()
    monkeypatch.setattr(os, "replace", full)
    entry, done = ask("mesh", file=str(DATA / "tiny.glb"), asset=path)
    assert pathlib.Path(K._package_file(path)).read_bytes() == saved     # the old file is whole
    assert entry["items"][0]["path"] == done["asset"]


# -- overwrite

def test_an_overwrite_keeps_a_backup_and_leaves_the_asset_unsaved(ed, K, peer, ask, tick):
    rust = ed.make_material("/Game/Rust")
    crate = ed.make_mesh("/Game/Props/Crate", slots=("Oak_Wood", "b", "c"))
    crate.set_material(2, rust)
    ed.save()
    ed.spawn("StaticMeshActor", mesh=crate)
    tick(2.0)
    path = crate.get_path_name()
    file = pathlib.Path(K._package_file(path)).read_bytes()
    entry, done = ask("mesh", file=CHAIR_FILE, asset=path, overwrite=True, req="r", ids=["a"])
    assert done == {"t": "mesh_done", "req": "r", "asset": path, "ids": ["a"], "overwrite": True}
    assert [e["path"] for e in entry["items"]] == [path]
    assert crate.get_num_triangles(0) == 108 and materials(crate)[2] == "Rust"
    assert pathlib.Path(K._package_file(path)).read_bytes() == file
    assert crate._package() in {p.get_name() for p in
                                u.EditorLoadingAndSavingUtils.get_dirty_content_packages()}
    [backup] = u.EditorAssetLibrary.list_assets("/Game/Verrin/_Backups")
    assert u.load_asset(backup).get_num_triangles(0) == 12 and os.path.exists(K._package_file(backup))
    backed, imported, overwrote = logged(ed)[-3:]
    assert backed == f"backed up {path} -> {backup.split('.')[0]}"
    assert overwrote == (f"overwrote {path} from Blender (unsaved - save it to keep, or reload it to drop "
                         "the change)")
    tick(5.0)
    assert [m for m in peer.take() if m["t"] == "assets"] == []     # the peer's own work
    # The second time neither another backup nor another temporary mesh.
    ask("mesh", file=str(DATA / "tiny.glb"), asset=path, overwrite=True)
    assert crate.get_num_triangles(0) == 1
    assert len(u.EditorAssetLibrary.list_assets("/Game/Verrin/_Backups")) == 1
    assert K._unique_folder("EditTemp_Crate") == "EditTemp_Crate_2"
    assert K._unique_folder("EditTemp_Crate_2") == "EditTemp_Crate_2"
    u.load_asset(backup)._delete()
    again, _ = ask("mesh", file=CHAIR_FILE, asset=path, overwrite=True)
    assert again["items"][0]["key"] != entry["items"][0]["key"]     # though it measures the same
    assert len(u.EditorAssetLibrary.list_assets("/Game/Verrin/_Backups")) == 1
    ed.reload_asset(crate)
    assert crate.get_num_triangles(0) == 12


def test_an_overwrite_is_undone(ed, K):
    crate = ed.make_mesh("/Game/Crate")
    with u.ScopedEditorTransaction("by hand"):
        K._overwrite_asset(CHAIR_FILE, crate.get_path_name())
    assert crate.get_num_triangles(0) == 108
    ed.undo()
    assert crate.get_num_triangles(0) == 12


def test_what_cannot_be_overwritten(ed, K, ask, monkeypatch):
    crate = ed.make_mesh("/Game/Crate").get_path_name()
    material = ed.make_material("/Game/M").get_path_name()
    assert failure(K, ask("mesh", file=CHAIR_FILE, asset=material, overwrite=True)) == (
        f"not a static mesh: {material}")
    ed.inject("EditorAssetLibrary.duplicate_asset", result=None)
    assert "no backup" in failure(K, ask("mesh", file=CHAIR_FILE, asset=crate, overwrite=True))
    assert u.load_asset(crate).get_num_triangles(0) == 12 and crate in K._S["ours"]
    _, done = ask("mesh", file=CHAIR_FILE, name="New", asset="", overwrite=True)    # a plain import
    assert "overwrite" not in done and done["asset"].startswith("/Game/Verrin/New/")


# -- collision and physics

@pytest.mark.parametrize("record, shapes, flag, stored", [
    ({"shape": "box"}, {"box_elems": 1}, "DEFAULT", ("BOX", False)),
    ({"shape": "SPHERE", "sac": 1}, {"sphere_elems": 1}, "SIMPLE_AS_COMPLEX", ("SPHERE", True)),
    ({"shape": "Capsule"}, {"sphyl_elems": 1}, "DEFAULT", ("CAPSULE", False)),
    ({"shape": "MESH", "sac": True}, {}, "COMPLEX_AS_SIMPLE", ("MESH", True)),
    ({"shape": "NONE", "sac": True}, {}, "SIMPLE_AS_COMPLEX", ("NONE", True)),
    ({"shape": "HULL"}, {"convex_elems": 1}, "DEFAULT", ("HULL", False)),
    ({"shape": "round"}, {"convex_elems": 8}, "DEFAULT", ("AUTO", False)),
    ({"shape": None}, {"convex_elems": 8}, "DEFAULT", ("AUTO", False)),
    ({}, {"convex_elems": 8}, "DEFAULT", ("AUTO", False))])
def test_collision_shapes(ed, K, record, shapes, flag, stored):
    mesh = ed.make_mesh("/Game/Verrin/Rock/Rock")
    K._apply_collision(mesh, {"shape": "BOX"})
    got = K._apply_collision(mesh, record)
    assert (got["shape"], got["sac"]) == stored and K._coll_of(mesh) == got
    tag = u.EditorAssetLibrary.get_metadata_tag(mesh, "VerrinCollision")
    assert tag == '{"sac": %s, "shape": "%s"}' % (str(stored[1]).lower(), stored[0])
    body = mesh.get_editor_property("body_setup")
    assert body.get_editor_property("collision_trace_flag").name == "CTF_USE_" + flag
    geometry = body.get_editor_property("agg_geom")
    found = {key: len(geometry.get_editor_property(key)) for key in
             ("box_elems", "sphere_elems", "sphyl_elems", "convex_elems")}
    assert {k: n for k, n in found.items() if n} == shapes
    assert K._simple_shapes(mesh) == sum(shapes.values())


def test_collision_of_what_is_flat_large_or_odd(ed, K):
    flat = ed.make_mesh("/Game/Verrin/Flat/Flat", bounds=((0, 0, 0), (9, 9, 0)))
    asked = []
    ed.inject("StaticMeshEditorSubsystem.set_convex_decomposition_collisions", times=0,
              when=lambda _, mesh, *numbers: asked.append(numbers))
    assert K._apply_collision(flat, {"shape": "AUTO"})["shape"] == "AUTO"
    assert K._simple_shapes(flat) == 1          # a box, since nothing came of the pieces
    for count, numbers in ((200000, (8, 16, 100000)), (200001, (1, 32, 100000))):
        ed.inject("StaticMesh.get_num_triangles", result=count)
        assert K._apply_collision(flat, {}) == {"shape": "AUTO", "sac": False}
        assert asked[-1] == numbers
    assert logged(ed) == ["Flat: 200001 triangles - one convex hull instead of fitted pieces (pick Mesh for "
                          "an exact collision)"]
    for text in ("{", "[1]", '"BOX"', "null"):
        u.EditorAssetLibrary.set_metadata_tag(flat, "VerrinCollision", text)
        assert K._coll_of(flat) == {}
    assert K._coll_of(None) == {} and K._simple_shapes(None) == 0
    cube = ed.make_mesh("/Game/Verrin/Cube/Cube")
    K._apply_collision(cube, {})
    ed.inject("KAggregateGeom.get_editor_property")     # what can't be read counts nothing
    assert K._simple_shapes(cube) == 8


def test_the_peer_chooses_a_collision(ed, K, ask, tick):
    path = ask("mesh", file=CHAIR_FILE, name="A")[1]["asset"]
    key = K._asset_entry(path)["key"]
    K._S["sent_assets"].discard(path)
    [m] = ask("coll", asset=path, coll={"shape": "SPHERE"})
    [entry] = m["items"]
    assert entry["coll"] == {"shape": "SPHERE", "sac": False} and entry["key"] == key
    assert entry["stamp"] == K._file_stamp(path) and path not in K._S["sent_assets"]
    assert K._asset_entry(path) is K._S["assets"][path]
    for empty in (None, {}):
        [m] = ask("coll", asset=path, coll=empty)
        assert m["items"][0]["coll"]["shape"] == "AUTO"
    crate = ed.make_mesh("/Game/Crate").get_path_name()
    material = ed.make_material("/Game/Verrin/A/M").get_path_name()
    for asset in (crate, material, "/Game/Verrin/No.No", "", None):
        assert ask("coll", asset=asset, coll={"shape": "BOX"}) == []
    assert K._simple_shapes(u.load_asset(crate)) == 0


def body_of(actor):
    component = actor.static_mesh_component
    body = component.body_instance
    return component, {key: body.get_editor_property(key) for key in (
        "simulate_physics", "override_mass", "mass_in_kg_override", "phys_material_override")}


def test_physics(ed, K, peer, ask, tick):
    mesh = ed.make_mesh("/Game/Verrin/Rock/Rock")
    K._apply_collision(mesh, {})
    rock, twin = (ed.spawn("StaticMeshActor", n, mesh=mesh) for n in ("Rock", "Twin"))
    tick(2.0)
    before = ed.state()
    aid = rock.get_path_name()
    values = {"sim": True, "mass": 12.5, "friction": 0.5, "bounce": 0.25, "ldamp": 0.1, "adamp": 0.2}
    assert ask("phys", id=aid, phys={**values, "colour": "red"}) == []
    component, body = body_of(rock)
    surface = body["phys_material_override"]
    assert surface.get_path_name() == "/Game/Verrin/PhysMats/PM_F050_B025.PM_F050_B025"
    assert (surface.friction, surface.restitution) == (0.5, 0.25)
    assert os.path.exists(K._package_file(surface.get_path_name()))
    assert component.mobility is u.ComponentMobility.MOVABLE and body["simulate_physics"]
    assert str(component.get_collision_profile_name()) == "PhysicsActor"
    assert ed.history[-1] == "Verrin: physics Rock" and logged(ed, "warning") == []
    assert K._phys_of(component) == values == K._S["known"][aid]["info"]["phys"] == K._info(rock)["phys"]
    assert "phys" not in K._info(rock, full=False)
    tick(2.5)
    assert kinds(peer) == []
    ask("resync")
    assert peer.actors[aid]["phys"] == values and "phys" not in peer.actors[twin.get_path_name()]
    ask("phys", id=twin.get_path_name(), phys={"friction": 0.5, "bounce": 0.25})
    assert body_of(twin)[1]["phys_material_override"] is surface
    # Missing and null values are the defaults, not what is there.
    ask("phys", id=aid, phys={"mass": None, "friction": 0.704, "bounce": None, "sim": None})
    component, body = body_of(rock)
    assert body["phys_material_override"] is None and not body["override_mass"]
    assert str(component.get_collision_profile_name()) == "BlockAll" and K._phys_of(component) == {}
    for _ in range(3):
        ed.undo()
    assert ed.state() == before
    for nothing in (None, [], 5):
        assert ask("phys", id=aid, phys=nothing) == []
    assert ask("phys", id="/No.Body", phys={"sim": True}) == [] == ask("phys")
    for bad in ("heavy", [1], float("nan")):
        assert ask("phys", id=aid, phys={"mass": bad})[0]["t"] == "error" and K._S.pop("last_error")
    assert ed.state() == before


def test_physics_profiles_surfaces_and_a_mesh_without_shapes(ed, K):
    actor = ed.spawn("StaticMeshActor", "Ball", mesh=ed.make_mesh("/Game/Verrin/Ball/Ball"))
    component = actor.static_mesh_component
    for profile, sim, then in (("Pawn", True, "Pawn"), ("BlockAllDynamic", True, "PhysicsActor"),
                               ("None", True, "PhysicsActor"), ("PhysicsActor", False, "BlockAll"),
                               ("Pawn", False, "Pawn")):
        component.set_collision_profile_name(profile)
        K._apply_phys(actor, {"sim": sim})
        assert str(component.get_collision_profile_name()) == then
    assert set(logged(ed, "warning")) == {
        "Ball simulates physics but its mesh has no simple collision (Mesh / No Collision) - it won't move"}
    for friction, bounce, name in ((0.706, 0.3, "PM_F071_B030"), (0, 2.5, "PM_F000_B250"),
                                   (0.7, 0.304, None), (12.345, 0.3, "PM_F1234_B030")):
        made = K._phys_mat(friction, bounce)
        assert (made and made.get_name()) == name
    K._apply_phys(actor, {"mass": -3})
    assert K._phys_of(component) == {}
    house = ed.spawn_blueprint("BP_House_C", parts=[("/Engine/BasicShapes/Cube", (0, 0, 0))])
    K._apply_phys(house, {"sim": True})
    assert house.get_components_by_class(u.StaticMeshComponent)[0].mobility.name == "MOVABLE"
    K._apply_phys(ed.spawn("PointLight"), {"sim": True})        # has no such component
    ed.inject("Object.get_editor_property", when=lambda o, key: key == "body_instance")
    assert K._phys_of(component) == {}


# -- spawns with a file, rigs

def test_spawning_with_a_file(ed, K, ask):
    spawn = {"tmp": 1, "xf": XF, "label": "Seat", "file": CHAIR_FILE}
    entry, spawned = ask("spawn", **spawn, slot_mats={}, coll={"shape": "BOX"})
    record = spawned["actor"]
    assert record["asset"] == "/Game/Verrin/Seat/StaticMeshes/chair_mesh.chair_mesh" and record["xf"] == XF
    assert entry["items"][0]["coll"]["shape"] == "BOX" and ed.history == ["Verrin: add Seat"]
    _, again = ask("spawn", **{**spawn, "name": "Chair"})
    assert again["actor"]["asset"].startswith("/Game/Verrin/Chair/")
    [failed] = ask("spawn", **{**spawn, "file": "/no/such.glb"})
    assert failed["t"] == "spawn_failed" and "No such file" in failed["msg"]
    _, dup = ask("dup", **{**spawn, "src": "/No.Body"})
    assert dup["t"] == "spawned"


def test_a_rig_walks(ed, K, peer, ask, tick):
    [spawned] = ask("spawn", tmp=1, kind="skel", xf=XF, label="Hero", file=RIG_FILE, anim="wave")
    record = spawned["actor"]
    hero = ed.actor("Hero")
    component = hero.skeletal_mesh_component
    assert record["kind"] == "skel" and record["asset"] == "/Game/Verrin/Hero/SkeletalMeshes/Body.Body"
    assert component.animation_mode is u.AnimationMode.ANIMATION_SINGLE_NODE
    data = component.animation_data
    assert (data.anim_to_play.get_name(), data.saved_looping, data.saved_playing,
            data.saved_position) == ("Wave_Hand", True, True, 0.0)
    at = component._p["_position"]
    tick(0.2)
    assert component._p["_position"] > at and logged(ed)[-1] == (
        "imported rig rig.glb -> /Game/Verrin/Hero/SkeletalMeshes/Body.Body (2 animations)")
    aid = hero.get_path_name()
    [done] = ask("rig", id=aid, file=RIG_FILE, anim="Armature|Walk Cycle")
    assert done == {"t": "rig_done", "id": aid, "asset": record["asset"]}   # over the same one
    assert ed.history[-1] == "Verrin: rig Hero"
    assert component.animation_data.anim_to_play.get_name() == "Walk_Cycle"
    ask("rig", id=aid, file=RIG_FILE, name="Other", asset="/Game/Elsewhere/Body.Body")
    assert component.skeletal_mesh_asset.get_path_name() == "/Game/Verrin/Other/SkeletalMeshes/Body.Body"
    assert K._S["known"][aid]["info"]["asset"] == "/Game/Verrin/Other/SkeletalMeshes/Body.Body"
    assert component.animation_data.anim_to_play is None and component._p["_anim"] is None
    tick(2.5)
    assert kinds(peer) == []
    ed.undo()
    assert component.skeletal_mesh_asset.get_path_name() == record["asset"]
    [done] = ask("rig", id="/No.Body", file=RIG_FILE)
    assert done["asset"] == "/Game/Verrin/Rig/SkeletalMeshes/Body.Body"
    assert failure(K, ask("rig", id=aid, file=CHAIR_FILE, name="X", asset="/Game/A.A")) == (
        "the rig import made no skeletal mesh (chair.glb)")
    assert "No such file" in failure(K, ask("rig", id=aid, file="/no.glb"))
    ed.inject("SkeletalMeshComponent.set_animation", times=None)
    [done] = ask("rig", id=aid, file=RIG_FILE, anim="walk")
    assert "error" not in done and logged(ed, "warning")[-1] == "animation on Hero: injected"


@pytest.mark.parametrize("want, names, chosen", [
    ("Run", ["Run_Cycle", "Armature|Run"], 1), ("run cycle", ["Walk", "Run_Cycle_2"], 1),
    ("None such", ["Walk", "Run"], 0), ("", ["Walk"], None), (None, ["Walk"], None), ("Walk", [], None)])
def test_the_animation_is_chosen_by_its_name(ed, K, want, names, chosen):
    hero = ed.spawn("SkeletalMeshActor")
    anims = [u.AnimSequence(f"/Game/A{i}/{name}") for i, name in enumerate(names)]
    K._rig_anim(hero, anims, want)
    playing = hero.skeletal_mesh_component.animation_data.anim_to_play
    assert playing is (None if chosen is None else anims[chosen])
    assert hero.skeletal_mesh_component.animation_mode.name == "ANIMATION_SINGLE_NODE"


def test_materials_on_a_rig(ed, K):
    mesh = ed.make_skeletal_mesh("/Game/Verrin/Hero/Hero")
    rust, oak = (ed.make_material(f"/Game/{n}") for n in ("Rust", "Oak"))
    mesh.set_editor_property("materials", [
        u.SkeletalMaterial(material_slot_name=name) for name in ("Skin", "Cloth.001")])
    ed.save()
    hero = ed.spawn("SkeletalMeshActor", skeletal_mesh_asset=mesh)

    def assigned(*triples):
        K._assign_skel(hero, [list(t) for t in triples])
        return [slot.material_interface and slot.material_interface.get_name() for slot in mesh.materials]

    path, other = rust.get_path_name(), oak.get_path_name()
    assert assigned((5, "x", path), (-1, "", path), (0, "Skin", "/Game/No.No"), (0, "Skin", None)) == [
        None, None] and not ed.redraws
    assert assigned((0, "cloth", path), (0, "", other)) == ["Oak", "Rust"]
    assert ed.redraws == 1 and mesh._package() not in {
        p.get_name() for p in u.EditorLoadingAndSavingUtils.get_dirty_content_packages()}
    fault = ed.inject("EditorAssetLibrary.save_loaded_asset", times=None)
    assert assigned((1, "x", path), (0, "skin", other)) == ["Oak", "Rust"] and fault.hits == 0
    hero.skeletal_mesh_component.set_skeletal_mesh_asset(ed.make_skeletal_mesh("/Game/Mine"))
    K._assign_skel(hero, [[0, "", path]])       # the user's own
    assert warnings(ed) == [] and ed.redraws == 1
