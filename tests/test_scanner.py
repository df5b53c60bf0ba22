"""Finding changes: snapshots, the two scanners, and what the peer is told of each change."""
import itertools

import pytest
import unreal as u

from conftest import FRAME, warnings

PASS = 1.1          # seconds in which a small level is walked once and listed anew


def types(messages):
    return [m["t"] for m in messages]


@pytest.fixture
def chair(ed):
    return ed.spawn("StaticMeshActor", "Chair", mesh=ed.make_mesh("/Game/Props/Chair"))


def spawn_many(ed, count):
    return [ed.spawn("StaticMeshActor") for _ in range(count)]


# -- the snapshot

def test_snapshot_names_assets_first_and_every_actor_in_order(ed, K, connect, tick, chair):
    stool = ed.spawn("StaticMeshActor", "Stool", mesh=ed.make_mesh("/Game/Props/Stool"))
    ed.spawn("StaticMeshActor", "Twin", mesh="/Game/Props/Chair")
    ed.spawn("SkyLight")
    peer = connect()
    peer.send({"t": "resync"})
    tick()
    assets, snapshot = peer.take()
    assert [e["path"] for e in assets["items"]] == ["/Game/Props/Chair.Chair",
                                                    "/Game/Props/Stool.Stool"]
    assert [a["label"] for a in snapshot["actors"]] == ["Chair", "Stool", "Twin"]
    assert [snapshot["level"], snapshot["world"]] == ["Main", "/Game/Maps/Main.Main"]
    assert "gone" not in snapshot
    assert ed.log[-1] == ("log", "[Verrin] snapshot: 3 mesh, 2 meshes (Main)")
    ed.delete(chair, stool, ed.actor("Twin"))
    peer.send({"t": "resync", "have": []})
    tick()
    assert types(peer.take()) == ["snapshot"] and peer.gone == []
    assert ed.log[-1] == ("log", "[Verrin] snapshot: nothing, 0 meshes (Main)")


def test_an_actor_that_cannot_be_described_is_left_out(ed, K, connect, tick, chair):
    broken, _ = spawn_many(ed, 2)
    ed.inject("Actor.get_actor_label", when=lambda actor: actor is broken, times=None)
    peer = connect()
    assert len(peer.actors) == 2 and broken.get_path_name() in K._S["scan_ids"]
    late = ed.spawn("StaticMeshActor", "Late", mesh=ed.make_mesh("/Game/Props/Late"))
    tick(3 * PASS)
    assert types(peer.take()) == ["assets", "add"] and late.get_path_name() in peer.actors
    assert len(warnings(ed, "left out")) == 1
    ed.heal()
    tick(PASS)
    assert [m["actor"]["id"] for m in peer.take()] == [broken.get_path_name()]


def test_gone_is_what_was_deleted_from_this_level(ed, K, connect, tick, chair):
    hidden = ed.spawn("StaticMeshActor", folder="Attic")
    deleted, unloaded = spawn_many(ed, 2)
    have = [a.get_path_name() for a in (chair, hidden, deleted, unloaded)]
    have += ["/Game/Maps/Other.Other:PersistentLevel.Cube_0", 5, None, "\ud800"]
    ed.delete(deleted)
    ed.unload(unloaded)
    peer = connect(have=have, scope={"exclude": "Attic"})
    assert peer.gone == [have[2]] and list(peer.actors) == [have[0]]
    for lost, expected in [("WorldPartitionBlueprintLibrary", have[2:4]), (None, have[2:3])]:
        if lost:
            ed.remove(lost)
        peer.send({"t": "resync", "have": have})
        tick()
        ed.heal()
        assert peer.take()[-1]["gone"] == expected
    ed.inject("WorldPartitionBlueprintLibrary.get_actor_descs", times=None)
    assert K._gone_ids(have[:2], {have[0]: chair}) == []
    K._S["client_have"] = 5                             # of no use: the level goes out all the same
    K._snapshot()
    tick()
    assert "gone" not in peer.take()[-1]


def test_nothing_older_follows_a_snapshot(ed, K, connect, tick, chair):
    """What an earlier tick could not send any more is in the snapshot already, or out of date."""
    peer = connect()
    ed.select(chair)
    ed.move(chair, (2, 0, 0))
    K._scan_fast()                                      # as in a tick that fails behind it
    ed.move(chair, (3, 0, 0))
    ed.select()
    peer.send({"t": "resync"})
    tick()
    assert types(peer.take()) == ["assets", "snapshot"]
    assert peer.actors[chair.get_path_name()]["xf"][0] == 3


def test_an_asset_that_failed_is_named_the_next_time(ed, K, connect, tick, chair):
    stool = ed.make_mesh("/Game/Props/Stool")
    paths = [stool.get_path_name(), chair.static_mesh_component.static_mesh.get_path_name()]
    peer = connect()
    K._S["sent_assets"].clear()
    ed.inject("Paths.project_content_dir", after=1)
    with pytest.raises(RuntimeError):
        K._send_assets(paths)
    for _ in range(2):
        K._send_assets([*paths, None, "", *paths])
        tick()
    assert [[e["path"] for e in m["items"]] for m in peer.take()] == [sorted(paths)]


# -- the scan step

def test_quota_paces_the_walk(ed, K):
    K._S.update(scan_ids=[str(i) for i in range(40)], scan_i=0, scan_quota=0.0, known={}, scope={})

    def looked_at(dt):
        before = K._S["scan_i"]
        K._scan_step(dt)
        return K._S["scan_i"] - before

    # 40 actors in half a second: one in 12.5 ms.
    assert [looked_at(dt) for dt in (0.0125, 0.00625, 0.00625, -1.0, 0.025)] == [1, 0, 1, 0, 2]
    assert looked_at(3.0) == 20                         # a long frame counts as a quarter second
    K._S.update(scan_i=0, scan_quota=1000.0)
    assert looked_at(0.01) == 40 and K._S["scan_quota"] == 0.0
    # From 500 on a thousand actors a second.
    K._S.update(scan_ids=[str(i) for i in range(10000)], scan_i=0)
    assert [looked_at(dt) for dt in (0.25, 0.0625)] == [250, 62] and K._S["scan_quota"] == 0.5


def test_the_walk_stops_when_its_time_is_up(ed, K, connect, tick, clock):
    actors = spawn_many(ed, 8)
    connect()
    K._S.update(scan_i=0, scan_quota=8.0)
    ed.inject("Actor.get_actor_label", when=lambda actor: clock.advance(0.0015))
    K._scan_step(0.0)
    assert [K._S["scan_i"], K._S["scan_quota"]] == [3, 5.0]
    K._scan_step(0.0)
    assert K._S["scan_i"] == 6
    ed.heal()
    # An actor that fails ends the tick, but not the pass.
    ed.inject("Actor.get_actor_label", when=lambda actor: actor is actors[6], times=None)
    with pytest.raises(RuntimeError, match="injected"):
        K._scan_step(0.0)
    assert [K._S["scan_i"], K._S["scan_quota"]] == [7, 1.0]


def test_listings_keep_to_the_time_of_a_pass(ed, K, connect, tick, clock):
    peer = connect()
    tick(1.0)
    ed.spawn("StaticMeshActor")                         # into an empty level
    tick(0.5 + FRAME)
    assert types(peer.take()) == ["add"]

    def lists(seconds):
        clock.advance(seconds)
        K._S.update(scan_ids=[""] * 3000, scan_i=3000)
        K._scan_step(0.0)
        return len(K._S["scan_ids"]) == 1
    assert [lists(dt) for dt in (3.0, 0.0, 2.9, 0.1, 1.0)] == [True, False, False, True, False]


def test_play_that_begins_between_two_polls_takes_nothing_from_the_peer(ed, K, connect, tick,
                                                                        clock, chair):
    ed.select(chair)
    peer = connect()
    peer.send({"t": "sel_mode", "on": True})
    tick(0.5)
    assert {"t": "sel", "ids": [chair.get_path_name()]} in peer.take()
    ed.clear_log()
    ed.play()
    K._S.update(slow_t=clock.now, fast_t=0.0, list_t=0.0, scan_i=len(K._S["scan_ids"]))
    tick(0.2)
    assert [m["t"] for m in peer.take()] == ["status"] and ed.log == []
    K.show_in_blender()
    tick(0.1)
    assert peer.take() == [] and len(peer.actors) == 1
    assert [level for level, _ in ed.log] == ["warning"]


# -- changes

def test_changes_of_an_actor_and_their_order(ed, K, connect, tick, chair):
    stool, rust = ed.make_mesh("/Game/Props/Stool"), ed.make_material("/Game/Props/M_Rust")
    peer, aid = connect(), chair.get_path_name()
    mats = [[0, "Mat", "M_Mat", "/Game/Props/M_Rust.M_Rust"]]

    def told(*edits):
        for edit in edits:
            edit()
        tick(PASS)
        return [{k: v for k, v in m.items() if k not in ("t", "id", "items")} | {"t": m["t"]}
                for m in peer.take()]

    assert told(lambda: ed.set(chair, static_mesh=stool, override_materials=[rust]),
                lambda: ed.rename(chair, "Seat"), lambda: ed.retag(chair, "a", "b")) == [
        {"t": "assets"}, {"t": "set_mesh", "asset": "/Game/Props/Stool.Stool"},
        {"t": "mats", "mats": mats}, {"t": "rename", "label": "Seat", "folder": ""},
        {"t": "tags", "tags": ["a", "b"]}]
    assert told(lambda: ed.rename(chair, folder="Props")) == [
        {"t": "rename", "label": "Seat", "folder": "Props"}]
    assert told(lambda: ed.set(chair, static_mesh=None)) == [{"t": "set_mesh", "asset": ""},
                                                            {"t": "mats", "mats": []}]
    assert told(lambda: ed.undo()) == [{"t": "set_mesh", "asset": "/Game/Props/Stool.Stool"},
                                       {"t": "mats", "mats": mats}]
    assert told(lambda: ed.set(chair, override_materials=[]), lambda: ed.retag(chair)) == [
        {"t": "mats", "mats": []}, {"t": "tags", "tags": []}]
    assert told(lambda: ed.move(chair, (0.0004, 0, 0)), lambda: ed.set(chair, tags=("", ""))) == []
    assert told(lambda: ed.delete(chair)) == [{"t": "remove", "ids": [aid]}]
    [add] = told(lambda: ed.undo())
    assert add["actor"] == K._info(chair)
    # The same id may come to stand for another object, as when an actor's package is loaded anew.
    replaced = ed.spawn("StaticMeshActor")
    ed.delete(replaced)
    K._S["known"][aid]["actor"] = replaced
    assert told(lambda: ed.move(chair, (9, 0, 0)), lambda: tick(PASS)) == [{"t": "xf"}]


def test_moves_leave_once_per_tick_with_the_newest_transform(ed, K, connect, tick, chair):
    others = spawn_many(ed, 40)
    peer = connect()
    x = itertools.count(1)

    def creep(actor):                                   # moves whenever it is looked at
        if actor is chair:
            actor._root._xf = u.Transform(u.Vector(next(x), 0, 0))
    ed.inject("Actor.get_actor_label", when=creep)
    ed.select(chair)
    for actor in others:
        ed.move(actor, (5, 0, 0))
    K._S.update(fast_t=0.0, scan_i=0, scan_quota=41.0)
    tick()
    [xf] = peer.take()
    moves = dict(xf["items"])
    assert len(moves) == len(xf["items"]) == 41 and next(x) == 3
    assert moves[chair.get_path_name()][0] == 2
    # What has gone isn't moved any more.
    ed.heal()
    K._S.update(xf_out={chair.get_path_name(): xf["items"][0][1]}, scan_i=41, list_t=0.0)
    ed.delete(chair)
    tick()
    assert types(peer.take()) == ["remove"]


@pytest.mark.parametrize("gap", [0, 1])
def test_a_move_is_told_wherever_the_actor_stands_in_the_order(ed, K, connect, tick, gap):
    first, moved, broken, _ = spawn_many(ed, 4)
    ed.inject("Actor.get_actor_label", when=lambda actor: actor is broken, times=None)
    ed.select()
    peer, aid = connect(), moved.get_path_name()
    tick(3 * PASS)
    ed.delete(first)        # `broken` has its place now, where nothing is read any more
    tick(3 * PASS)
    ed.move(moved, (2, 0, 0))
    tick(3 * PASS)
    assert types(peer.take()) == ["remove", "xf"] and peer.actors[aid]["xf"][0] == 2
    tick(gap)
    ed.undo()
    ed.undo()
    tick(5 * PASS)
    peer.pump()
    assert peer.actors[aid]["xf"] == K._xf_of(moved) and peer.actors[aid]["xf"][0] == 0


@pytest.mark.parametrize("again", ["reset", "shorter", "longer", "grown"])
def test_the_walk_survives_what_an_editor_call_does_to_it(ed, K, connect, tick, again):
    actors = spawn_many(ed, 30)
    ed.select()
    peer = connect()
    tick(3 * PASS)
    calls = []

    def nested(actor):
        if actor is not actors[10] or calls:
            return False
        calls.append(actor)
        if again == "reset":
            K._reset_scan_state()
        elif again == "grown":
            K._S["scan_ids"].extend(K._S["scan_ids"] * 1000)
        else:
            ids = K._S["scan_ids"]
            K._S.update(scan_ids=ids[:1] if again == "shorter" else ids * 100,
                        scan_i=0, scan_quota=10.0)
            K._scan_step(0.01)
        return False

    ed.inject("Actor.get_actor_label", when=nested, times=None)
    ed.move(actors[10], (2, 0, 0))
    K._S.update(scan_i=0, scan_quota=30.0)
    K._scan_step(0.01)
    assert calls
    ed.heal()
    ed.move(actors[20], (3, 0, 0))
    peer.send({"t": "resync"})
    tick(5 * PASS)
    peer.pump()
    assert [peer.actors[a.get_path_name()]["xf"] for a in actors] == [K._xf_of(a) for a in actors]


def test_without_system_library_the_level_is_still_listed(ed, K, connect, tick, chair):
    peer = connect()
    ed.remove("SystemLibrary")
    stool = ed.spawn("StaticMeshActor", "Stool")
    tick(3 * PASS)
    peer.pump()
    assert stool.get_path_name() in peer.actors


def test_what_is_no_number_is_no_change(ed, K, connect, tick):
    nan = float("nan")
    actors = [ed.spawn(cls) for cls in ("PointLight", "CameraActor", "TextRenderActor")]
    peer = connect()
    for actor, name in zip(actors, ("attenuation_radius", "field_of_view", "world_size")):
        ed.set(actor, **{name: nan})
    tick(12 * PASS)
    assert sorted(m["id"] for m in peer.take()) == sorted(a.get_path_name() for a in actors)


def test_a_mesh_that_cannot_be_described_delays_only_itself(ed, K, connect, tick, chair):
    stool = ed.make_mesh("/Game/Props/Stool")
    peer = connect()
    ed.inject("Paths.project_content_dir", times=None)
    ed.set(chair, static_mesh=stool)
    ed.move(chair, (1, 0, 0))
    ed.rename(chair, "Seat")
    tick(4 * PASS)
    assert "injected" in K._S.pop("last_error")
    assert sorted(types(peer.take())) == ["rename", "xf"]
    ed.heal()
    tick(2 * PASS)
    assert types(peer.take()) == ["assets", "set_mesh"]


def test_settings_are_read_on_every_fourth_pass_unless_selected(ed, K, connect, tick):
    sign = ed.spawn("TextRenderActor", "Sign", text="old")
    peer = connect()
    ed.set(sign, text="new")
    told = []
    for n in (1, 2, 3, 4, 5, 8):
        ed.rename(sign, f"Sign {n}")
        K._S.update(pass_n=n, scan_i=0, scan_quota=1.0)
        K._scan_step(0.0)
        K._S["conn"].flush()
        told.append(types(peer.take()))
    assert told == [["rename"]] * 3 + [["props", "rename"], ["rename"], ["rename"]]
    ed.select(sign)
    ed.set(sign, text="newer")
    K._scan_fast()
    K._S["conn"].flush()
    assert types(peer.take()) == ["props"]


def test_the_axes_of_an_actor_that_stands_still_are_not_asked_for(ed, K, connect, tick, chair):
    connect()
    tick(2 * PASS)
    asked = []
    ed.inject("Quat.get_axis_x", times=0, when=asked.append)
    tick(5 * PASS)
    assert asked == []
    ed.move(chair, rotation=(0, 30, 0))
    tick(PASS)
    assert len(asked) == 1


def test_what_was_not_mirrored_is_classified_anew_on_every_tenth_listing(ed, K, connect, tick):
    hero = ed.spawn("SkeletalMeshActor", "Hero")
    peer = connect()
    ed.set(hero, skeletal_mesh_asset=ed.make_skeletal_mesh("/Game/Verrin/Hero"))
    told = []
    for n in range(27, 32):
        K._S.update(pass_n=n, scan_i=1, list_t=0.0)
        tick()
        told.append(types(peer.take()))
    assert told == [[], [], ["add"], [], []]


# -- the fast scan

def test_up_to_64_selected_actors_are_followed(ed, K, connect, tick):
    actors = spawn_many(ed, 65)
    peer = connect()
    for count, expected in ((64, 64), (65, 0)):
        ed.select(*actors[:count])
        for actor in actors:
            ed.move(actor, (count, 0, 0))
        K._scan_fast()
        assert len(K._S["xf_out"]) == expected
        K._S["xf_out"].clear()
    # What is new is taken up when selected, unless out of scope, painted foliage or no kind.
    new, hidden, nothing = spawn_many(ed, 2) + [ed.spawn("Actor")]
    foliage = ed.spawn("InstancedFoliageActor")
    ed.add_component(foliage, u.StaticMeshComponent)
    ed.rename(hidden, folder="Attic")
    K._S["scope"] = K._parse_scope({"exclude": "Attic"})
    ed.select(new, hidden, nothing, foliage)
    K._scan_fast()
    K._S["conn"].flush()
    assert [m["actor"]["id"] for m in peer.take()] == [new.get_path_name()]


def test_selection_reports(ed, K, connect, tick):
    actors = spawn_many(ed, 2000)
    ids = [a.get_path_name() for a in actors]
    peer = connect()

    def report(*selected):
        ed.select(*selected)
        tick(0.05)
        return [m["ids"] for m in peer.take()]

    assert report(actors[0]) == []                      # not asked for yet
    peer.send({"t": "sel_mode", "on": True})
    assert report(actors[1], actors[0]) == [ids[:2]]
    assert report(actors[0], actors[1]) == []           # another order is no change
    peer.send({"t": "sel_mode", "on": True})
    assert report(actors[0], actors[1]) == [ids[:2]]
    sky = ed.spawn("SkyLight")
    assert report(sky) == [[]]
    assert report(*actors) == [sorted(ids)]
    assert report(*actors, sky) == []                   # too many to report
    assert report() == [[]]
    for off in (False, None):
        peer.send({"t": "sel_mode", "on": 1})
        assert report(actors[1]) == [ids[1:2]] and K._S["sel_sync"] is True
        peer.send({"t": "sel_mode", "on": off})
        assert report(actors[0]) == [] and K._S["sel_sync"] is False


# -- levels and scope

def test_scope_changes_and_unloaded_actors(ed, K, connect, tick, chair):
    attic = ed.spawn("StaticMeshActor", "Attic", (0, 0, 900), "Attic")
    peer = connect()

    def told(msg=None):
        if msg is not None:
            peer.send({"t": "scope"} | msg)
        tick(PASS)
        return [(m["t"], sorted(r["label"] for r in peer.actors.values())) for m in peer.take()
                if m["t"] != "assets"]

    assert told({"exclude": "Attic"}) == [("snapshot", ["Chair"])]
    assert told({"exclude": "/Attic"}) == []
    ed.rename(chair, folder="Attic")
    assert told()[-1] == ("remove", [])
    ed.rename(attic, folder="")
    assert told() == [("add", ["Attic"])]
    ed.move_view((0, 0, 400))
    assert told({"radius_m": 5}) == [("snapshot", ["Attic", "Chair"])]
    ed.move_view((0, 0, 1000))
    assert told() == [("remove", ["Attic"])]
    assert told({"radius_m": 5, "grass_max": 7}) == []
    assert told({}) == [("snapshot", ["Attic", "Chair"])]
    ed.unload(chair)
    assert told() == [("remove", ["Attic"])]
    ed.reload(chair)
    assert told() == [("add", ["Attic", "Chair"])]
