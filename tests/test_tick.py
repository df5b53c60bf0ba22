"""The loop and the dispatch of messages: what runs when, what waits, what a failure leaves."""
import copy
import functools
from types import SimpleNamespace

import pytest
import unreal
from conftest import kinds, warnings
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st
from link_peer import Peer

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


def chair_of(ed):
    return ed.spawn("StaticMeshActor", label="Chair", mesh=ed.make_mesh("/Game/Props/Chair"))


def test_which_ticks_are_skipped(K, ed, helper, monkeypatch):
    def ran(*slate_ticks):
        K._S.pop("cost", None)
        for tick in slate_ticks:
            tick()
        return K._S.get("cost", [0, 0, 0])[1]

    frame = (ed.tick, ed.slate_tick, ed.slate_tick)
    K._S["in_tick"] = True  # of a run that ended badly
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


def test_a_greeting_during_play_waits(K, ed, tick, clock, on):
    ran = []
    on("tags", lambda m: (clock.advance(0.012), ran.append(m["n"])))
    ed.play()
    with Peer(ports=K.start()) as peer:
        peer.hello()
        for n in range(5):
            peer.send(msg("tags", n=n))
        tick(0.3)
        assert kinds(peer) == ["status"]
        ed.stop_play()
        tick(0.3)
        assert kinds(peer) == ["status", "hello", "snapshot"] and ran == [0, 1, 2, 3, 4]


def test_a_level_that_loads_or_changes(K, ed, clock, connect, tick, heard):
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
    ed.end_level_change()
    ed.play()  # not polled yet, but no level can be listed
    K._S["slow_t"] = clock.now
    tick()
    assert kinds(second) == [] and K._S["world"] == ""
    ed.stop_play()
    tick()
    assert kinds(second) == ["snapshot"]
    ed.open_level("/Game/Maps/Main")
    ed.play()
    tick(0.1)
    assert kinds(second) == ["status"] and second.level == "Other"
    ed.stop_play()
    tick(0.3)
    assert kinds(second) == ["status", "snapshot"] and second.level == "Main"


# Messages that edit the open level or point into it, and some that don't.
IN_LEVEL = ("xf drag_end spawn dup delete rename tags props set_mesh select exposure assign phys "
            "terrain_heights terrain_weights inst inst_edit spline_edit").split()
ANYWHERE = ("synced scope resync opts sel_mode cam mesh mat mat_params tex coll rig inst_src "
            "open_level need_levels").split()


def test_what_waits_stays_with_its_level(K, ed, clock, connect, tick, on):
    ran = []
    ed.new_level("/Game/Maps/Other")
    ed.open_level("/Game/Maps/Main")
    peer = connect()
    for kind in (*IN_LEVEL, *ANYWHERE):
        on(kind, lambda m: (clock.advance(0.012), ran.append(m["t"])))
    ed.play()
    tick(0.3)
    main = K._S["world"]
    for pair in zip(IN_LEVEL, [*ANYWHERE, "cam_get", "cam_get", "cam_get"]):
        for kind in pair:
            peer.send(msg(kind, tmp=kind))
    tick()
    assert K._S["pending_world"] == main
    ed.open_level("/Game/Maps/Other")
    ed.stop_play()
    K._S["slow_t"] = 0.0
    peer.clear()
    tick()
    said = peer.take()
    assert [m for m in said if m["t"] == "spawn_failed"] == [
        msg("spawn_failed", tmp=kind, msg="Unreal switched levels - try again")
        for kind in ("spawn", "dup")]
    assert said[-1]["t"] == "snapshot" and peer.level == "Other" and "pending_world" in K._S
    peer.send(msg("delete"))  # in the new one
    tick(0.3)
    assert ran == [*ANYWHERE, "delete"] and "pending_world" not in K._S
    dropped = "[Verrin] dropped Blender changes sent while Unreal switched levels"
    assert warnings(ed) == [dropped]
    # A handler that opens another level, and one that sends it.
    on("open_level", lambda m: (ed.open_level("/Game/Maps/Main"), clock.advance(0.012)))
    on("resync", lambda m: (K._snapshot(), clock.advance(0.012)))
    K._S.update(pending=[msg(t) for t in ("open_level", "tex", "resync", "spawn", "tex")],
                pending_world=K._S["world"])
    K._replay_pending()
    assert K._S["pending"] == [msg("tex")] and K._S["pending_world"] == main == K._S["world"]
    assert warnings(ed) == [dropped] * 2
    # The first of a run decides. If the mirror has gone on to another level, all of it is dropped.
    tick()
    ed.play()
    tick(0.3)
    K._S["pending_next"] = "/Game/Maps/Other.Other"  # of an earlier run
    for K._S["world"] in (main, "/Game/Maps/Other.Other"):
        peer.send(msg("tex"))
        tick()
        assert K._S["pending_world"] == main
    ran.clear()
    ed.stop_play()
    tick(0.3)
    assert ran == [] and K._S["pending"] == [] and warnings(ed) == [dropped] * 3


@pytest.mark.parametrize("change", ["stop", "start", "take"])
@pytest.mark.parametrize("where", ["batch", "replay", "greeting", "hold"])
def test_a_handler_that_changes_the_peer(K, ed, connect, tick, heard, on, change, where):
    sent = []
    newcomer = SimpleNamespace(closed=False, addr=("host", 1), read=list, send=sent.append,
                               flush=int, close=int)

    def leave(m):
        K._take(newcomer) if change == "take" else getattr(K, change)()
        K._S["fast_t"] = 0.0
        raise ValueError("gone")

    for kind in ("mesh", "asking"):
        on(kind, leave)
    peer = connect()
    if where == "replay":
        ed.play()
        tick(0.3)
    if where == "hold":
        K._S["pending"] = [msg("probe")]
        peer.send(msg("asking"))
    if where == "greeting":
        peer = Peer(ports=K._S["port"])
        tick()
        peer.hello(takeover=True)
    peer.send(msg("mesh"))
    peer.send(msg("probe"))
    tick()
    if where == "replay":
        ed.stop_play()
        K._S["slow_t"] = 0.0
        tick()
    assert heard == [] and K._S["fast_t"] == 0.0 and "errors" not in K._S
    assert K._S["conn"] is (newcomer if change == "take" else None) and sent == []
    assert change == "stop" or K._S["pending"] == []
    assert len(warnings(ed, " failed: gone")) == 1 and "gone" in K._S.pop("last_error")


# Of which messages only the newest counts, for which value of which field.
NEWEST = {"cam": None, "exposure": None, "tex": "path", "mat_params": "path", "coll": "asset",
          "phys": "id"}


def group(m):
    """Type and key of a message of which only the newest counts, None for any other; one with a
    key or parameters of the wrong type goes its own way to the handler."""
    kind = m.get("t")
    if not isinstance(kind, str) or kind not in NEWEST:
        return None
    key = m.get(NEWEST[kind])
    good = kind != "mat_params" or isinstance(m.get("params"), dict | None)
    return (kind, key) if good and isinstance(key, str | None) else None


def held_by_hand(pending, m):
    """What waits when `m` has come too: the plain way, with a search for each message."""
    same = []
    if group(m):
        merges = m["t"] == "mat_params"
        after = max((i for i, p in enumerate(pending) if merges and p.get("t") == "mat"), default=-1)
        same = [p for p in pending[after + 1:] if group(p) == group(m)]
        if same and merges:
            values = {}
            for p in (*same, m):
                values.update(p.get("params") or {})
            m = {**m, "params": values}
    return [p for p in pending if not any(p is s for s in same)] + [m]


def coalesced_by_hand(batch):
    """What remains of messages that came together: of several, parameters are filled in."""
    left = functools.reduce(held_by_hand, batch, [])
    return batch if len(batch) < 2 else [
        {**m, "params": m.get("params") or {}} if group(m) and m["t"] == "mat_params" else m
        for m in left]


def replayed_by_hand(pending):
    """What reaches the handlers: "xf" as one, at the place of the last."""
    moves, out, at = {}, [], None
    for m in pending:
        items = m.get("items") if m.get("t") == "xf" else {}
        items = [] if items is None else items
        if isinstance(items, list) and all(len(i) == 2 and isinstance(i[0], str) for i in items):
            moves.update(items)
            at = len(out)
        else:
            out.append(m)
    if at is not None:
        out.insert(at, msg("xf", items=[list(i) for i in moves.items()]))
    return out


KEYS = st.sampled_from(["A", "B", None, [1]])
PARAMS = st.dictionaries(st.sampled_from("ab"), st.integers(0, 9)) | st.sampled_from([None, [1]])
ITEMS = (st.lists(st.tuples(st.sampled_from("ab"), st.integers(0, 9)).map(list), max_size=2)
         | st.sampled_from([None, {}, [[1, 2]], [["a", 3, 4]]]))
MESSAGES = st.one_of(
    st.sampled_from(["probe", "mat", "cam", "exposure", None, ["cam"]]).map(msg), st.just({}),
    st.builds(msg, st.sampled_from(["tex", "mat_params"]), path=KEYS),
    st.builds(msg, st.just("mat_params"), path=KEYS, params=PARAMS),
    st.builds(msg, st.just("phys"), id=KEYS), st.builds(msg, st.just("coll"), asset=KEYS),
    st.builds(msg, st.just("xf"), items=ITEMS))


@settings(deadline=None, database=None, max_examples=100,
          suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(st.lists(st.lists(MESSAGES, max_size=8), max_size=8), st.sampled_from([1, 1, 1, 30]))
@example([[msg("xf", items=[["a", 1]])] * 8], 80)
def test_only_the_newest_counts(K, ed, clock, monkeypatch, batches, times):
    def accept():
        raise BlockingIOError

    ran = []
    monkeypatch.setattr(K, "HANDLERS", {kind: ran.append for kind in (*TYPES, "")})
    assert set(K.LATEST_ONLY) == set(NEWEST)
    before = copy.deepcopy(batches)
    K._S.update(server=SimpleNamespace(accept=accept, close=int), pie=True, paused=True, pending=[],
                slow_t=clock.now, world=K._world_name(),
                conn=SimpleNamespace(closed=False, read=lambda: batch, flush=int, close=int))
    expected, came = [], 0
    for batch in batches * times:
        K._step(0.0)
        left = coalesced_by_hand(batch)
        assert K._coalesce(batch) == left
        expected = functools.reduce(held_by_hand, left, expected)
        came += len(left)
        if came <= 256:
            assert K._S["pending"] == expected
        else:  # many wait for more of them before they merge
            assert len(K._S["pending"]) <= 256 + 2 * len(replayed_by_hand(expected))
    K._replay_pending()
    assert ran == replayed_by_hand(expected)
    assert K._S["pending"] == [] and "pending_world" not in K._S
    assert batches == before  # merging made copies


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
    seconds, ticks, worst = K._S["cost"]
    assert (seconds, worst) == pytest.approx((0.06, 0.024)) and ticks > 3
    peer.pump()
    assert peer.errors == ["slow: three"] and "ValueError: three" in K._S.pop("last_error")

    def interrupt(m):
        raise KeyboardInterrupt

    on("slow", interrupt)
    K._S["pending"] = [msg("slow"), msg("probe")]
    with pytest.raises(KeyboardInterrupt):
        K._replay_pending()
    assert K._S["pending"] == [msg("probe")]  # nothing is replayed twice
    ran = len(heard)
    for end in (K._replay_pending, lambda: K._S.update(pending=[])):  # within a handler
        on("slow", lambda m: end())
        K._S["pending"] = [msg("slow"), msg("probe")]
        K._replay_pending()
        assert heard[ran:] == [msg("probe")] and K._S["pending"] == []


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
    scans = ed.inject("EditorActorSubsystem.get_selected_level_actors", times=None)
    tick(1.0)  # a selection that fails rests a while
    assert scans.hits == 4 and "injected" in K._S.pop("last_error")


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
