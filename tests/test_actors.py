"""What an actor is to the mirror: its kind, its record, its scope, and how it is found again."""
import pytest
import unreal as u
from conftest import warnings

CUBE = "/Engine/BasicShapes/Cube"


def reading(name):
    """For ed.inject("Object.get_editor_property", when=...): reads of that property."""
    return lambda obj, key, *rest: key == name


def listed(K):
    return {actor.get_actor_label() for actor in K._list_actors().values()}


def test_kinds(ed, K):
    class LightSky(u.SkyLight, u.Light):
        """A sky light that is a light by class."""

    def skel(path):
        return ed.spawn("SkeletalMeshActor", skeletal_mesh_asset=ed.make_skeletal_mesh(path))

    house = ed.spawn_blueprint("BP_House_C", parts=[(CUBE, (0, 0, 0))])
    rail, hlod, lit_sky = ed.spawn("Actor"), ed.spawn("WorldPartitionHLOD"), ed.spawn(LightSky)
    ed.add_component(rail, u.SplineComponent)
    for actor in (hlod, lit_sky):
        ed.add_component(actor, u.StaticMeshComponent, mesh=CUBE)
    for actor, kind in [
            (ed.spawn("StaticMeshActor"), "mesh"), (skel("/Game/Verrin/Rigs/Hero"), "skel"),
            (skel("/Game/Verrined/Orc"), None), (ed.spawn("SkeletalMeshActor"), None),
            (ed.spawn("RectLight"), "light"), (ed.spawn("SkyLight"), None), (lit_sky, "group"),
            (ed.spawn("CineCameraActor"), "camera"), (ed.spawn("TextRenderActor"), "text"),
            (ed.spawn("Landscape"), "terrain"), (ed.spawn("LandscapeStreamingProxy"), None),
            (hlod, None), (house, "group"), (rail, "group"), (ed.spawn("Actor"), None)]:
        assert K._kind_of(actor) == kind, actor
    ed.inject("Actor.get_components_by_class")
    assert K._kind_of(house) is None
    # Classified once per id; an error leaves no entry behind.
    aid = rail.get_path_name()
    ed.remove("CameraActor")
    with pytest.raises(AttributeError):
        K._kind(aid, rail)
    ed.heal()
    assert [K._kind(aid, rail), K._kind(aid, house)] == ["group", "group"]
    assert [K._kind("x", hlod), K._kind("x", rail)] == [None, None]


def test_record_of_a_mesh_actor(ed, K):
    mesh = ed.make_mesh("/Game/Props/Chair", slots=("Wood", "Seat"))
    rust = ed.make_material("/Game/Props/M_Rust")
    chair = ed.spawn("StaticMeshActor", "Chair", (1.00049, -0.0001, 3), "Props/Row", ("x", "", "y"),
                     mesh, rotation=(0, 90, 0), scale=(1, 2, 3),
                     override_materials=[None, rust, rust])
    aid = chair.get_path_name()
    record = {"id": aid, "kind": "mesh", "label": "Chair", "folder": "Props/Row",
              "xf": [1.0, 0.0, 3.0, 0.0, 1.0, 0.0, -1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 1.0, 2.0, 3.0],
              "tags": ["x", "y"], "asset": "/Game/Props/Chair.Chair",
              "mats": [[1, "Seat", "M_Seat", "/Game/Props/M_Rust.M_Rust"]]}
    for info in (K._info(chair), K._info(chair, aid=""), K._info(chair, aid, False, False)):
        assert info == record
    assert "-0.0" not in str(K._info(chair)["xf"])

    bare = ed.spawn("StaticMeshActor", "Bare", tags=("", "None"), override_materials=[rust])
    assert K._info(bare) | {"xf": 0} == {"id": bare.get_path_name(), "kind": "mesh", "xf": 0,
                                         "label": "Bare", "folder": "", "asset": ""}
    ed.inject("Object.get_editor_property", when=reading("tags"))
    ed.inject("Actor.get_folder_path")
    assert K._tags_of(chair) == [] and K._folder_of(chair) == ""
    ed.inject("Object.get_editor_property", when=reading("static_mesh"))
    assert K._info(chair)["asset"] == ""
    ed.inject("Actor.get_actor_label")
    with pytest.raises(RuntimeError, match="injected"):
        K._info(chair)

    K._set_tags(chair, None)
    assert K._tags_of(chair) == ["x", "y"]
    K._set_tags(chair, ["", "z"])
    assert K._tags_of(chair) == ["z"]
    K._set_tags(chair, [])
    assert "tags" not in K._info(chair)


def test_records_of_other_kinds(ed, K):
    hero = ed.spawn("SkeletalMeshActor",
                    skeletal_mesh_asset=ed.make_skeletal_mesh("/Game/Verrin/Hero"))
    sign = ed.spawn("TextRenderActor", text="Exit")
    house = ed.spawn_blueprint("BP_House_C", parts=[(CUBE, (0, 0, 0))])
    assert K._info(hero)["asset"] == "/Game/Verrin/Hero.Hero"
    assert K._info(sign)["text"]["body"] == "Exit"
    assert "text" not in K._info(sign, props=False)
    assert K._info(house)["cls"] == "BP_House_C"
    assert K._info(ed.spawn("Actor"))["kind"] is None
    # Skeletal meshes have no catalogue entry; groups name the meshes of their components.
    infos = [K._info(hero), K._info(sign), {"kind": "mesh", "asset": CUBE}, {"asset": ""},
             {"kind": "group", "comps": [{"asset": "/Game/A.A"}, {"asset": ""}, {"asset": CUBE}]}]
    assert K._info_assets(infos) == [CUBE, "/Game/A.A", CUBE]
    # An engine that knows the mesh by one of its names only, and one that knows neither.
    ed.inject("Object.get_editor_property", when=reading("skeletal_mesh"), times=None)
    assert K._skel_of(hero).get_name() == "Hero"
    ed.heal()
    K._remember("x", house, {"kind": "group", "comps": [1]})
    assert K._S["known"]["x"]["info"] == {"kind": "group"}
    ed.inject("Object.get_editor_property", when=reading("skeletal_mesh_asset"), times=None)
    assert K._skel_of(hero).get_name() == "Hero"
    ed.inject("Object.get_editor_property", when=reading("skeletal_mesh"), times=None)
    assert K._skel_of(hero) is None


def test_overrides(ed, K):
    theirs, ours = (ed.make_mesh(path, slots="AB") for path in ("/Game/T", "/Game/Verrin/T"))
    rust = ed.make_material("/Game/M_Rust")
    rows = {}
    for mesh in (theirs, ours):
        own = mesh.get_material(0)
        actor = ed.spawn("StaticMeshActor", mesh=mesh, override_materials=[own, rust, rust])
        rows[mesh] = K._overrides(actor.static_mesh_component)
        assert rows[mesh] == K._override_list([own, rust, rust], mesh)
    row_b = [1, "B", "M_B", "/Game/M_Rust.M_Rust"]
    assert rows == {theirs: [row_b],
                    ours: [[0, "A", "M_A", "/Game/Verrin/M_A.M_A"], row_b]}

    component = actor.static_mesh_component
    assert K._override_list([rust], None) == []
    ed.inject("Object.get_editor_property", when=reading("static_mesh"))
    assert K._overrides(component) == []
    ed.inject("Object.get_editor_property", when=reading("override_materials"))
    assert K._overrides(component, ours) == []
    ed.inject("Object.get_editor_property", when=reading("static_materials"), result=None)
    assert K._overrides(component, ours) == []
    assert len(K._overrides(component, ours)) == 2
    ed.set(actor, override_materials=[None, None])
    touched = [ed.inject("Object.get_path_name", times=None),
               ed.inject("Object.get_editor_property", when=reading("static_mesh"), times=None)]
    assert K._overrides(component) == [] == [one for one in touched if one.hits]
    ed.heal()

    theirs.set_editor_property("static_materials", [u.StaticMaterial(material_slot_name="Bare")])
    assert K._override_list([rust], theirs) == [[0, "Bare", "", "/Game/M_Rust.M_Rust"]]
    assert K._slot_mats(theirs) == [["Bare", "", ""]]
    assert K._slot_mats(ours)[1] == ["B", "M_B", "/Game/Verrin/M_B.M_B"]
    ed.inject("Object.get_editor_property", when=reading("material_interface"))
    ed.inject("StaticMaterial.get_editor_property")
    assert K._slot_mats(ours) == []


def test_scope_by_kind_and_folder(ed, K):
    for label, folder in [("top", ""), ("prop", "Props"), ("row", "Props/Row"), ("old", "PropsOld"),
                          ("attic", "Props/Row/Attic"), ("lamp", "Lights")]:
        ed.spawn("StaticMeshActor", label, folder=folder)
    ed.spawn("TextRenderActor", "sign", folder="Lights")
    ed.spawn("Actor", "no kind")
    meshes = {"top", "prop", "row", "old", "attic", "lamp"}
    for scope, version, expected in [
            ({}, 4, meshes | {"sign"}), ({}, 3, meshes), ({"kinds": {"mesh": True}}, 3, meshes),
            ({"kinds": {"mesh": False, "light": True}}, 4, {"sign"}),
            ({"folders": "/Props/"}, 16, {"prop", "row", "attic"}),
            ({"folders": "Lights, Props/Row"}, 16, {"row", "attic", "lamp", "sign"}),
            ({"folders": "Lights"}, 3, {"lamp"}),
            ({"exclude": "Props/Row,Lights"}, 16, {"top", "prop", "old"}),
            ({"folders": "Props", "exclude": "Props/Row"}, 16, {"prop"}),
            ({"folders": " , /,", "exclude": ""}, 16, meshes | {"sign"})]:
        K._S.update(scope=K._parse_scope(scope), client_ver=version)
        assert listed(K) == expected, scope
    K._S.update(scope={}, client_ver=3)         # as a new connection leaves it
    assert listed(K) == meshes
    assert [a.get_path_name() for a in K._list_actors().values()] == list(K._list_actors())


def test_scope_by_radius(ed, K, clock):
    for label, at in [("near", (300, 0, 400)), ("far", (300, 1, 400)), ("high", (0, 0, -501))]:
        ed.spawn("StaticMeshActor", label, at)
    # The landscape's own place is far; one of its streamed pieces reaches near the camera.
    land = ed.spawn("Landscape", "land", (9000, 0, 0), landscape_guid="one")
    ed.spawn("LandscapeStreamingProxy", "flat", landscape_guid="one")     # not loaded: no extent
    piece = ed.spawn("LandscapeStreamingProxy", "piece", (900, 0, 0), landscape_guid="one")
    other = ed.spawn("LandscapeStreamingProxy", "other", landscape_guid="two")
    for part in (piece, other):
        part._root._box = u.Vector(-400, -100, -50), u.Vector(400, 100, 50)
    K._S["scope"] = K._parse_scope({"radius_m": 5})
    everything = {"near", "far", "high", "land"}
    K._S["scope"] |= {"radius": 0.0, "center": [0, 0, 0]}
    assert listed(K) == everything              # no limit, wherever the camera was
    K._S["scope"] = K._parse_scope({"radius_m": 5})
    assert listed(K) == everything              # the camera isn't known yet
    K._S["scope"]["center"] = None
    assert listed(K) == everything
    ed.move_view((0, 0, 0))
    K._scope_center()
    assert listed(K) == {"near", "land"}        # at the limit is within

    low, high = K._land_box(land.get_path_name(), land)
    assert (low, high) == ([500, -100, -50], [1300, 100, 50])
    ed.move(piece, (901, 0, 0))
    clock.advance(4.9)
    assert "land" in listed(K)
    clock.advance(0.1)
    assert "land" not in listed(K)
    ed.delete(piece)
    K._S["land_box"].clear()
    assert K._land_box(land.get_path_name(), land) == ([9000, 0, 0], [9000, 0, 0])
    ed.activate_pane(2)                         # an orthographic pane has no camera
    K._S["cam_key"] = None
    K._scope_center()
    assert listed(K) == everything


def test_an_actor_that_cannot_be_judged(ed, K):
    kept, new = ed.spawn("StaticMeshActor", "kept"), ed.spawn("StaticMeshActor", "new")
    K._S["scope"] = K._parse_scope({"radius_m": 5}) | {"center": [0, 0, 0]}
    K._remember(kept.get_path_name(), kept, K._info(kept))
    ed.inject("Actor.get_actor_location", times=None)
    for _ in range(2):
        assert listed(K) == {"kept"}
    assert warnings(ed) == [f"[Verrin] left out {new.get_name()}: injected"]
    ed.heal()
    ed.inject("Object.get_path_name", when=lambda actor: actor is new)
    assert listed(K) == {"kept"} and len(warnings(ed)) == 2


def test_finding_actors(ed, K):
    chair, lamp = ed.spawn("StaticMeshActor"), ed.spawn("PointLight")
    aid = chair.get_path_name()
    K._remember(aid, chair, K._info(chair))
    assert K._find_actor(aid) is chair
    assert K._find_actor(lamp.get_path_name()) is lamp          # not mirrored, yet there
    for no_actor in (lamp.light_component.get_path_name(), "/Engine/BasicShapes/Cube.Cube", "", 5,
                     []):
        assert K._find_actor(no_actor) is None
    ed.inject("find_object")
    assert K._find_actor(lamp.get_path_name()) is None
    ed.inject("Actor.is_actor_being_destroyed", result=True, times=2)
    assert K._find_actor(aid) is None
    ed.delete(chair)
    assert aid in K._S["known"] and K._find_actor(aid) is None
    ed.undo()
    assert K._find_actor(aid) is chair

    ed.inject("SystemLibrary.is_valid")
    assert not K._is_alive(chair)
    assert K._is_alive(chair) and not K._is_alive(None) and not K._is_alive(u)


def test_viewports_are_redrawn_by_whatever_way_the_editor_has(ed, K):
    K._invalidate_viewports()
    ed.remove("LevelEditorSubsystem.editor_invalidate_viewports")
    K._invalidate_viewports()
    assert ed.redraws == 2
    ed.remove("EditorLevelLibrary.editor_invalidate_viewports")
    K._invalidate_viewports()
    assert ed.redraws == 2


def test_an_editor_that_gives_nothing_has_nothing(ed, K, connect, tick):
    ed.select(ed.spawn("Landscape", "Land"))
    peer = connect()
    for listing in ("all_level", "selected_level"):
        ed.inject(f"EditorActorSubsystem.get_{listing}_actors", result=None, times=None)
    ed.inject("AssetRegistry.get_assets_by_class", result=None)
    assert K._list_actors() == {} and K._land_parts(None) == [] and K._expo_volume(False) is None
    K._scan_fast(), K.show_in_blender()
    assert "select actors that are linked" in ed.log[-1][1]
    peer.send({"t": "need_levels"})
    tick()
    assert [m["levels"] for m in peer.take() if m["t"] == "levels"] == [[]]
    with ed.record() as called:
        assert K._find_actor("") is None
    assert "find_object" not in called
