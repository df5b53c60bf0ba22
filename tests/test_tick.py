"""The loop and the dispatch of messages: what runs when, what waits, what a failure leaves."""
import json
from types import SimpleNamespace

import pytest
import unreal
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from peer import Peer

TYPES = ("probe", "xf", "cam", "exposure", "tex", "mat", "mat_params", "coll", "phys", "mesh",
         "spawn", "dup", "delete", "set_mesh")


@pytest.fixture
def heard(K, monkeypatch):
    """The messages that reach their handlers."""
    got = []
    for kind in (*TYPES, *K.READ_ONLY):
        monkeypatch.setitem(K.HANDLERS, kind, got.append)
    return got


@pytest.fixture
def on(K, monkeypatch):
    """on(type, function): a handler of the test's own."""
    return lambda kind, function: monkeypatch.setitem(K.HANDLERS, kind, function)


@pytest.fixture
def helper(monkeypatch):
    """helper(function): installs a Foliage Helper whose is_editor_busy it is."""
    return lambda busy: monkeypatch.setattr(
        unreal, "OndrelFoliageLibrary", SimpleNamespace(is_editor_busy=busy), raising=False)


def msg(kind, **fields):
    return {"t": kind, **fields}


def kinds(peer):
    return [m["t"] for m in peer.take() if m["t"] not in ("ue_fps", "brush")]


def warnings(ed, part=""):
    return [text for level, text in ed.log if level == "warning" and part in text]


def chair_of(ed):
    return ed.spawn("StaticMeshActor", label="Chair", mesh=ed.make_mesh("/Game/Props/Chair"))


def test_which_ticks_are_skipped(K, ed, helper, monkeypatch):
    def ran(*slate_ticks):
        K._S.pop("cost", None)
        for tick in slate_ticks:
            tick()
        return K._S.get("cost", [0, 0, 0])[1]

    frame = (ed.tick, ed.slate_tick, ed.slate_tick)
    K.start()
    assert ran(*frame, *frame) == 2
    helper(lambda: True)
    assert ran(*frame) == 0
    helper(lambda: [])  # the helper knows better than the frame counter
    assert ran(*frame) == 3
    helper(lambda: 1 / 0)
    assert ran(*frame) == 1
    helper(None)
    assert ran(*frame) == 1
    monkeypatch.setattr(unreal, "KestrixFoliageLibrary", SimpleNamespace(), raising=False)
    helper(lambda: True)  # the other library comes first
    assert ran(*frame) == 1
    ed.inject("SystemLibrary.get_frame_count", times=None)
    assert ran(*frame) == 3


def test_a_tick_within_a_handler_does_nothing(K, ed, connect, tick, heard, on, helper):
    helper(lambda: False)
    peer = connect()

    def modal(m):
        peer.send(msg("probe"))
        ed.tick(3)
        heard.append(("in_tick", K._S["in_tick"]))

    on("modal", modal)
    peer.send(msg("modal"))
    tick()
    assert heard == [("in_tick", True)]
    tick()
    assert heard[1:] == [msg("probe")] and not K._S["in_tick"]

    def interrupt(m):
        raise KeyboardInterrupt

    on("mesh", interrupt)  # the user's, not the link's: goes on, and leaves nothing behind
    peer.send(msg("mesh"))
    with pytest.raises(KeyboardInterrupt):
        tick()
    assert not K._S["in_tick"] and peer.pump() and peer.busy is None


def test_play_pauses_the_link(K, ed, connect, tick, heard, on):
    chair = chair_of(ed)
    peer = connect()
    ed.select(chair)
    tick(0.3)
    ed.play()
    tick(0.3)
    assert kinds(peer) == ["status"] and peer.paused and ", paused for PIE" in K.status()
    ed.move(chair, location=(1, 0, 0))
    on("turn", lambda m: (ed.move(chair, location=(5, 0, 0)), K._send(msg("turned"))))
    asked = [msg(kind) for kind in sorted(K.READ_ONLY)]
    for m in (msg("turn"), *asked, msg("probe", n=1)):
        peer.send(m)
    tick(0.3)
    assert kinds(peer) == [] and heard == asked and len(asked) == 8
    ed.stop_play()
    peer.send(msg("probe", n=2))
    K._S["slow_t"] = 0.0  # the next tick looks
    K._S.update(scan_ids=["a long pass"] * 5000, scan_i=0, list_t=0.0)
    tick()
    assert K._S["scan_ids"] == [chair.get_path_name()]  # listed anew at once
    messages = [m for m in peer.take() if m["t"] not in ("ue_fps", "brush")]
    assert [m["t"] for m in messages] == ["status", "turned", "xf"]
    assert messages[2]["items"][0][1][:3] == [5, 0, 0]  # scanned behind the replay, flushed once
    assert heard[8:] == [msg("probe", n=1), msg("probe", n=2)]
    tick(0.2)
    ed.play()
    tick()  # noticed by the slow poll, so this still runs
    peer.send(msg("probe", n=3))
    tick()
    assert heard[10:] == [msg("probe", n=3)] and not peer.take()


def test_a_greeting_during_play_waits(K, ed, tick):
    ed.play()
    with Peer(ports=K.start()) as peer:
        peer.hello()
        tick(0.3)
        assert kinds(peer) == ["status"]
        ed.stop_play()
        tick(0.3)
        assert kinds(peer) == ["status", "hello", "snapshot"]


def test_a_level_that_loads_or_changes(K, ed, connect, tick, heard):
    ed.new_level("/Game/Maps/Other")
    ed.open_level("/Game/Maps/Main")
    peer = connect()
    ed.begin_level_change("/Game/Maps/Main")  # the same one again
    peer.send(msg("probe", n=1))
    peer.send(msg("need_mesh"))
    tick(0.3)
    assert kinds(peer) == [] and heard == [msg("need_mesh")] and K._S["slow_t"] == 0.0
    ed.end_level_change()
    tick(0.3)
    assert kinds(peer) == [] and heard[1:] == [msg("probe", n=1)]
    ed.open_level("/Game/Maps/Other")  # without a moment that has no world
    tick()
    assert kinds(peer) == ["snapshot"] and peer.level == "Other"
    # What was said to a level that is gone when it could be heard is dropped.
    ed.open_level("/Game/Maps/Main")
    ed.inject("UnrealEditorSubsystem.get_editor_world", result=None)
    peer.send(msg("probe", n=2))
    tick(0.1)
    assert kinds(peer) == ["snapshot"] and heard[2:] == [] and K._S["pending"] == []
    assert warnings(ed) == ["[Verrin] dropped Blender changes sent while Unreal switched levels"]
    peer.send(msg("probe", n=3))
    tick()
    assert heard[2:] == [msg("probe", n=3)]
    ed.begin_level_change("/Game/Maps/Other")
    second = connect(takeover=True)  # with no level mirrored yet, no world isn't a load
    assert second.level == "" and K._S["world"] == ""
    second.send(msg("probe", n=4))
    tick()
    assert heard[3:] == [msg("probe", n=4)]


def params(n, path="A", **values):
    return msg("mat_params", path=path, params=values, n=n)


BATCHES = [
    ([msg("cam", n=1), msg("probe"), msg("cam", n=2)], [msg("probe"), msg("cam", n=2)]),
    ([msg("exposure", id=1), msg("cam"), msg("exposure")], [msg("cam"), msg("exposure")]),
    ([msg("tex", path="A", n=1), msg("tex", path="B"), msg("tex", path="A", n=2), msg("probe")],
     [msg("tex", path="B"), msg("tex", path="A", n=2), msg("probe")]),
    ([msg("coll", asset="A", n=1), msg("phys", id="A"), msg("coll", asset="A", n=2)],
     [msg("phys", id="A"), msg("coll", asset="A", n=2)]),
    ([params(1, a=1, b=1), params(2, "B", a=9), params(3, b=2, c=3)],
     [params(2, "B", a=9), params(3, a=1, b=2, c=3)]),
    ([params(1, a=1), msg("mat", key="A"), params(2, b=2), params(3, c=3)],
     [params(1, a=1), msg("mat", key="A"), params(3, b=2, c=3)]),
    ([msg("tex", path="A", n=1), msg("mat"), msg("tex", path="A", n=2)],
     [msg("mat"), msg("tex", path="A", n=2)]),
    ([msg("mat_params", path="A", params=None), msg("mat_params", path="A", n=2), params(3, a=1)],
     [params(3, a=1)]),
    # Keys and parameters of the wrong type go their own way to the handler.
    ([msg("mat_params", path="A", params=[1]), params(2, a=1), msg("tex", path=[1]),
      msg("tex", path=[1]), msg("phys", id=None), msg("phys")],
     [msg("mat_params", path="A", params=[1]), params(2, a=1), msg("tex", path=[1]),
      msg("tex", path=[1]), msg("phys")]),
    ([{"t": ["cam"]}, {"t": ["cam"]}, {}, {}], [{"t": ["cam"]}, {"t": ["cam"]}, {}, {}]),
]


def held(K, clock, msgs):
    """What waits after these messages have come during Play, one by one."""
    def accept():
        raise BlockingIOError

    K._S.update(server=SimpleNamespace(accept=accept, close=int), pie=True, paused=True, pending=[],
                slow_t=clock.now, world="")
    for m in msgs:
        K._S["conn"] = SimpleNamespace(closed=False, read=lambda: [m], flush=int, close=int)
        K._step(0.0)
    return K._S["pending"]


@pytest.mark.parametrize("batch, left", BATCHES)
def test_only_the_newest_counts(K, clock, batch, left):
    before = json.dumps(batch)
    assert K._coalesce(batch) == left
    assert held(K, clock, batch) == left
    assert json.dumps(batch) == before  # merging made copies
    assert K._coalesce([*batch, 7, None])[-2:] == [7, None]


def test_one_message_twice_in_a_batch(K):
    cam = msg("cam")
    assert K._coalesce([cam, cam]) == [cam]


@settings(deadline=None, database=None,
          suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(st.lists(st.sampled_from([msg("cam"), msg("mat"), msg("probe"), msg("tex", path="A")])
                | st.builds(params, st.just(0), st.sampled_from("AB"),
                            a=st.integers(0, 9), b=st.integers(0, 9)), max_size=12))
def test_one_batch_or_one_by_one_makes_no_difference(K, clock, msgs):
    once = K._coalesce(msgs)
    assert held(K, clock, msgs) == once == K._coalesce(once)


def xf(*items):
    return msg("xf", items=[list(item) for item in items])


@pytest.mark.parametrize("pending, run", [
    ([xf("a1", "b1"), msg("probe", n=1), xf("a2"), msg("probe", n=2)],
     [msg("probe", n=1), xf("a2", "b1"), msg("probe", n=2)]),
    ([xf("a1"), msg("xf", items=[["a", 3, 4]]), msg("xf"), msg("xf", items={"a": 1}), xf("c1")],
     [msg("xf", items=[["a", 3, 4]]), msg("xf", items={"a": 1}), xf("a1", "c1")]),
    ([msg("xf", items=[[1, 2]]), msg("xf", items=None)], [msg("xf", items=[[1, 2]]), xf()]),
    ([msg("probe")], [msg("probe")]),
])
def test_held_transforms_replay_as_one(K, heard, pending, run):
    K._S.update(pending=pending, world="W", pending_world="W")
    K._replay_pending()
    assert heard == run and K._S["pending"] == [] and "pending_world" not in K._S


def test_replay_in_slices(K, ed, clock, connect, heard, tick, on):
    def slow(m):
        clock.advance(0.012)
        heard.append(m["n"])
        if m["n"] == 3:
            raise ValueError("three")

    on("slow", slow)
    peer = connect()
    ed.play()
    tick(0.3)
    for n in range(5):
        peer.send(msg("slow", n=n))
    tick()
    ed.stop_play()
    K._S["slow_t"] = 0.0
    tick()
    assert heard == [0, 1]
    peer.send(msg("probe"))  # doesn't overtake
    peer.send(msg("need_mesh"))
    tick()
    assert heard == [0, 1, msg("need_mesh"), 2, 3]
    tick()
    assert heard[5:] == [4, msg("probe")] and K._S["pending"] == []
    peer.pump()
    assert peer.errors == ["slow: three"] and "ValueError: three" in K._S.pop("last_error")

    def interrupt(m):
        raise KeyboardInterrupt

    on("slow", interrupt)
    K._S["pending"] = [msg("slow"), msg("probe")]
    with pytest.raises(KeyboardInterrupt):
        K._replay_pending()
    assert K._S["pending"] == [msg("probe")]  # nothing is replayed twice


def test_a_failing_handler_costs_only_its_message(K, ed, connect, tick, heard, on):
    class Unprintable(Exception):
        __str__ = None

    def odd(m):
        raise Unprintable

    on("mesh", lambda m: m["path"])
    on("odd", odd)
    peer = connect()
    for m in (msg("mesh"), msg("odd"), msg("unheard of"), msg("\ud800"), {}, msg("probe"),
              msg(None)):
        peer.send(m)
    tick()
    told = [m for m in peer.take() if m["t"] in ("busy", "error")]
    assert told == [msg("busy", what="importing a mesh"), msg("error", msg="mesh: 'path'"),
                    msg("busy", what=None), msg("error", msg="odd: unprintable error")]
    assert warnings(ed) == [
        "[Verrin] mesh failed: 'path'", "[Verrin] odd failed: unprintable error"]
    assert heard == [msg("probe")] and K._S.get("errors", 0) == 0
    assert "raise Unprintable" in K._S.pop("last_error")
    ed.inject("log_warning", times=None)  # what can't even be logged is still told
    peer.send(msg("mesh"))
    tick()
    assert "error" in kinds(peer) and K._S.pop("last_error")


def test_a_failing_tick_keeps_its_output(K, ed, connect, tick, heard, on):
    peer = connect()
    on("ask", lambda m: K._send(msg("answer")))
    peer.send(msg("ask"))
    fault = ed.inject("UnrealEditorSubsystem.get_editor_world", after=1)  # the level work fails
    tick()
    assert fault.hits == 1 and kinds(peer) == [] and not K._S["in_tick"]
    tick()
    assert kinds(peer) == ["answer"]
    peer.send_raw(b'{"t":"probe","n":1}\n[1]\n{"t":"probe","n":2}\n')
    tick()
    assert heard == [msg("probe", n=1)]  # what stood behind the odd one is lost
    assert "must be an object, not list" in K._S.pop("last_error")
    assert [e for level, e in ed.log if level == "error"] == [] and K._S["errors"] == 2


def test_a_failure_in_every_tick_is_reported_seldom(K, ed, connect, tick):
    connect()
    ed.clear_log()
    ticks = K._S["cost"][1]
    ed.inject("UnrealEditorSubsystem.get_editor_world", times=None)
    for _ in range(1000):
        tick()
    said = warnings(ed, "tick error #")
    assert [s.split("#")[1] for s in said] == [
        f"{n}: injected" for n in (*range(1, 20), 500, 1000)]
    assert K._S["cost"][1] == ticks and "injected" in K._S.pop("last_error")
    ed.heal()
    tick()
    assert K._S["cost"][1] == ticks + 1


def test_adding_waits_for_the_copy_of_the_level(K, ed, connect, tick, heard):
    peer = connect(synced=False)
    adds = [msg("spawn", tmp="x7"), msg("dup"), msg("delete", ids=[])]
    assert K.ADDS == {m["t"] for m in adds}
    for m in adds:
        peer.send(m)
    tick()
    why = "the link was still syncing - try again"
    assert [m for m in peer.take() if m["t"] != "ue_fps"] == [
        msg("spawn_failed", tmp="x7", msg=why), msg("spawn_failed", tmp=None, msg=why)]
    assert len(warnings(ed, "from Blender before its level copy was synced")) == 3
    peer.synced()
    for m in adds:
        peer.send(m)
    tick()
    assert heard == adds


def test_the_peer_is_told_at_once_what_takes_long(K, ed, connect, tick, heard, on):
    peer, seen = connect(), []
    on("mat", lambda m: (peer.pump(), seen.append(peer.busy)))
    on("set_mesh", lambda m: (K._busy("exporting"), K._busy("exporting"), K._busy(None)))
    for m in (msg("mat", key="Oak"), msg("mat", key=""), msg("probe"), msg("set_mesh")):
        peer.send(m)
    tick()
    assert seen == ["building material Oak", "building material"]
    assert [m["what"] for m in peer.take() if m["t"] == "busy"] == [
        *seen[:1], None, *seen[1:], None, "updating a mesh", "exporting", None]

    def hang_up(m):
        peer.close()
        K._S["conn"].read()

    on("mat", hang_up)
    peer.send(msg("mat"))
    tick()
    on("mat", heard.append)
    for version, texts in ((16, ["building material", None]), (5, [])):
        peer = connect(version=version)
        peer.send(msg("mat"))
        tick()
        assert [m["what"] for m in peer.take() if m["t"] == "busy"] == texts
        peer.close()
        tick(0.1)


def test_last_words_of_a_peer_are_heard(K, ed, connect, tick, heard):
    peer = connect()
    K._S["asking"] = "what"
    peer.send(msg("probe"))
    peer.close()
    tick()
    assert heard == [msg("probe")] and K._S["conn"].closed
    known = dict(K._S["known"])
    tick()
    assert K._S["conn"] is None and K._S["asking"] is None and K._S["known"] == known
    assert ("log", "[Verrin] Blender disconnected") in ed.log
