"""Listening, taking and refusing peers, and what a reload or a second copy of the module finds."""
import importlib.util
import json
import os
import pathlib
import random
import re
import runpy
import shutil
import socket
import struct
import sys

import pytest
import unreal
from conftest import ROOT, kinds
from link_peer import Peer

THROTTLE = "bThrottleCPUWhenNotForeground"
KEYS = dict(re.findall(r"  KEY\((\w+), (\w+)", (ROOT / "src/link/state_keys.h").read_text()))
HOLDS = {"truth": int, "number": int, "time": int, "text": str, "map": dict, "list": list,
         "set": set, "anything": object}
START_UP = ROOT / "plugin/Content/Python/init_unreal.py"


def texts(ed, level="log"):
    return [text.removeprefix("[Verrin] ") for kind, text in ed.log if kind == level]


def ended(peer):
    peer.pump()
    return peer.closed


def callbacks():
    return len(unreal._editor.editor.ticks)


@pytest.fixture
def block():
    """block(n): the first of six ports in a row, n of which are taken."""
    taken = []

    def make(n):
        for base in range(20000, 60000, 6):
            try:
                for port in range(base, base + 6):
                    taken.append(socket.create_server(("127.0.0.1", port)))
            except OSError:
                continue
            for server in taken[-6:][n:]:
                server.close()
            return base

    yield make
    for server in taken:
        server.close()


def test_start_and_stop(K, ed, tick, block, monkeypatch):
    base = block(2)
    K._S["asset_rev"] = {"/Game/A.A": 3}
    assert K.start(base) == K._S["port"] == base + 2
    assert texts(ed) == [f"listening on 127.0.0.1:{base + 2} (cache {K.cache_dir()})"]
    with Peer(ports=base + 2) as peer:
        tick()
        assert K.start(base) == base + 2  # again, with a peer connected
        assert callbacks() == 1 and ended(peer) and K._S["conn"] is None
        assert K.status().startswith(f"listening on {base + 2}, tick")
    ed.clear_log()
    ed.inject("unregister_slate_post_tick_callback")
    K.stop(True)
    assert K._S["handle"] is None and texts(ed) == [] and K.status() == "stopped"
    K.stop()
    assert "stopped" not in texts(ed)[1:]  # it wasn't on
    assert K.start(base) and K.stop() is None and texts(ed)[-1] == "stopped"
    full = block(6)
    assert K.start(full) is None and K._S["server"] is None and K._S["handle"] is None
    assert texts(ed, "warning") == [f"no free port in {full}..{full + 5}"]
    assert K._S["asset_rev"] == {"/Game/A.A": 3}
    monkeypatch.setattr(socket, "SO_EXCLUSIVEADDRUSE", socket.SO_KEEPALIVE, raising=False)
    kept = K.start(base)
    assert [K._S["server"].getsockopt(socket.SOL_SOCKET, option) for option in (
        socket.SO_KEEPALIVE, socket.SO_REUSEADDR)] == [1, 0]
    for port, error in (("9920", TypeError), (-3, ValueError), (65536, ValueError),
                        (2 ** 63, OverflowError)):
        with pytest.raises(error):
            K.start(port)
        assert K._S["port"] == kept and K._S["server"]  # still listening


def reset(peer):
    peer.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()


def speak(peer):
    peer.send({"t": "opts", "ue_format": "FBX"})


@pytest.mark.parametrize("state, hello, wins", [
    (id, {}, False), (speak, {}, False), (id, {"takeover": True}, True),
    (Peer.synced, {"version": 5}, True), (Peer.close, {}, True), (reset, {}, True),
    (id, {"version": "5"}, False), (id, {"version": 6}, False), (id, {"version": 10 ** 400}, False),
    (id, {"version": -10 ** 30}, False), (id, {"version": 5.5}, False),
    (id, {"version": None}, True)])
def test_a_second_blender(K, ed, connect, tick, state, hello, wins):
    """`state` is what becomes of the first one meanwhile."""
    first = connect()
    second = Peer(ports=K._S["port"])
    second.address = second.sock.getsockname()
    second.send({"t": "sel_mode", "on": True})
    second.send({"t": "hello", "version": 16, "client": "second", **hello})
    state(first)
    tick()
    if wins:
        assert kinds(second)[:2] == ["hello", "snapshot"] and ended(first)
        assert "refused" not in kinds(first) and K._S["sel_sync"] is True
        assert K._S["client"] == "second" and K._S["cands"] == []
    else:
        assert kinds(second) == ["refused"] and ended(second) and second.refused == (
            "Another Blender is linked to this Unreal editor - press Connect to take over")
        host, port = second.address
        assert not ended(first) and K._S["client"] == "peer"
        assert (K._S.get("ue_format") == "FBX") is (state is speak)  # whole, though peeked at
        assert texts(ed)[-1] == f"refused a second Blender ({host}:{port}): another one is linked"
    second.close()


@pytest.mark.parametrize("begin", ["_take", "start"])
def test_nothing_of_the_old_peer_is_left(K, connect, begin):
    connect()
    stale = {"touched": {"x": [None, 0.0]}, "cam_send": True, "cam_last": [1.0], "sel_last": ["x"],
             "sel_sync": True, "pending": [{"t": "synced"}], "xf_out": {"x": [1.0]}, "paused": True,
             "sent_assets": {"x"}, "kinds": {"x": None}, "scope": {"folders": ["x"]}, "scan_i": 7,
             "scan_ids": ["x"], "world": "/Game/X.X", "known": {"x": {}}}
    stale |= ({"pending_world": "/Game/X.X", "busy_what": "x", "brush_seen": {"size": 1.0},
               "greeted": True, "client_ready": True} if begin == "_take" else {"in_tick": True})
    K._S.update(stale)
    K._take(K._S["conn"]) if begin == "_take" else K.start()
    assert [key for key, value in stale.items() if K._S.get(key) == value] == []


def test_candidates_side_by_side(K, connect, tick):
    first = connect()
    before, winner, after = others = [Peer(ports=K._S["port"]) for _ in range(3)]
    tick()
    assert len(K._S["cands"]) == 1  # at most one a tick
    tick(0.1)
    before.send({"t": "probe"})
    winner.hello(takeover=True)
    after.send_raw(b'{"t":"hel')
    tick()
    assert [ended(peer) for peer in (first, before, winner, after)] == [True, True, False, True]
    assert kinds(before) == kinds(after) == [] and K._S["cands"] == []
    for peer in others:
        peer.close()


def test_candidates_have_five_seconds(K, connect, tick):
    connect()
    silent, late, gone = others = [Peer(ports=K._S["port"]) for _ in range(3)]
    tick(0.1)
    gone.close()
    tick(4.8)
    assert len(K._S["cands"]) == 2 and not ended(silent)
    late.hello()
    tick()
    assert kinds(late) == ["refused"] and not ended(silent)
    tick(0.2)
    assert ended(silent) and kinds(silent) == [] and K._S["cands"] == []
    for peer in others:
        peer.close()


@pytest.mark.parametrize("beside", [False, True])
def test_a_web_page_drives_nothing(K, ed, connect, tick, beside):
    first = connect() if beside else K.start() and None
    page = Peer(ports=K._S["port"])
    tick()
    assert len(K._S.get("cands", [])) == beside
    hello = b'{"t":"hello","version":16,"takeover":true}\n{"t":"sel_mode","on":true}\n'
    page.send_raw(b"POST / HTTP/1.1\r\nContent-Type: text/plain\r\n\r\n" + hello)
    tick(0.1)
    assert ended(page) and kinds(page) == [] and not K._S.get("cands")
    assert texts(ed, "warning") == ["closed a connection that speaks HTTP"]
    assert not K._S.get("sel_sync") and K._S.get("client") == ("peer" if beside else None)
    assert not ended(first) if beside else K._S["conn"] is None
    page.close()


def test_a_winner_whose_greeting_fails(K, connect, tick):
    connect()
    rival, other = Peer(ports=K._S["port"]), Peer(ports=K._S["port"])
    tick(0.1)
    rival.send_raw(b'{"t":"hello","version":16,"takeover":true}\n5\n{"t":"synced"}\n')
    tick()
    assert ended(other) and not ended(rival) and K._S["cands"] == []
    assert "must be an object" in K._S.pop("last_error") and not K._S["client_ready"]
    rival.close()
    other.close()


def test_background_throttle(K, ed, connect, tick):
    settings = unreal.load_object(None, "/Script/UnrealEd.Default__EditorPerformanceSettings")

    def value():
        return settings.get_editor_property(THROTTLE)

    for users in (True, False):
        settings.set_editor_property(THROTTLE, users)
        first = connect()
        assert value() is False and K._S["throttle_saved"] is users
        second = connect(takeover=True)
        assert value() is False and K._S["throttle_saved"] is users and ended(first)
        second.close()
        tick(0.1)
        assert value() is users and K._S["throttle_saved"] is None
    settings.set_editor_property(THROTTLE, True)
    connect()
    ed.inject("load_object")
    K.stop()
    assert texts(ed, "warning") == ["throttle setting: injected"]
    assert value() is False and K._S["throttle_saved"] is True  # not forgotten
    connect()
    K.stop()
    assert value() is True
    ed.inject("load_object", result=None)
    connect()
    assert len(texts(ed, "warning")) == 2 and value() is True


def test_connections_that_come_and_go_leave_nothing(K, ed, connect, tick):
    def descriptors():
        return len(os.listdir("/proc/self/fd")) if os.path.isdir("/proc/self/fd") else 0

    dice = random.Random(1)
    connect().close()
    tick(0.1)
    before = descriptors()
    for _ in range(100):
        peer = Peer(ports=K._S["port"])
        peer.send_raw(dice.choice((b"", b'{"t":"hello","version":16}\n', b"{", b"[]\n")))
        for _ in range(dice.randint(1, 3)):
            tick()
        dice.choice((reset, Peer.close))(peer)
    tick(6.0)
    assert descriptors() <= before and "object" in K._S.pop("last_error")
    assert not connect(takeover=True).closed


def test_status(K, ed, connect, tick):
    ed.spawn("StaticMeshActor", label="Chair", mesh=ed.make_mesh("/Game/Props/Chair"))
    assert K.status() == "stopped"
    connect()
    K._S["cost"] = [0.0123, 3, 0.0101]
    head = f"listening on {K._S['port']}, Blender connected (1 actors linked)"
    assert K.status() == head + ", tick cost avg 4.10 ms / worst 10.1 ms over 3 ticks"
    assert K.status() == head == texts(ed)[-1]
    tick()
    assert K._S["cost"][1] == 1 and "over 1 ticks" in K.status()
    for name in "EBDAC":
        ed.make_material(f"/Game/{name}")
    K._S["unused"] = {"/Game/Gone.Gone", *(f"/Game/{name}.{name}" for name in "EBDAC")}
    K._S["conn"].close()
    assert K.status() == (
        f"listening on {K._S['port']}\n  material assets no longer used (not deleted, AUTO_DELETE "
        "is off):\n    " + "\n    ".join(f"/Game/{name}.{name}" for name in "ABCDE"))


def test_reload(K, ed, connect, tick):
    peer = connect()
    K._CACHE[:] = [str(ed.project_dir) + "elsewhere"]
    state, conn, server = K._S, K._S["conn"], K._S["server"]
    del sys.modules["kestrix"]
    import kestrix as again
    assert again is not K and again._S is state and again._CACHE == []
    assert again._Conn is K._Conn and state["conn"] is conn and state["server"] is server
    peer.send({"t": "resync"})  # the old registration goes on
    tick()
    assert kinds(peer) == ["snapshot"]
    assert again.start() and callbacks() == 1 and ended(peer)
    assert connect().editor["cache"] == again.cache_dir() and again._CACHE


def load(copy):
    spec = importlib.util.spec_from_file_location("kestrix", copy)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def test_a_second_copy_of_the_library(K, ed, connect, tick, tmp_path):
    peer = connect()
    other = load(shutil.copy(K.__file__, tmp_path))
    assert other._S is K._S and other._Conn is not K._Conn
    other._send({"t": "hi"})  # through the first copy's connection
    assert ", Blender connected (0 actors linked)" in other.status()
    assert K._S["conn"].flush() is None and kinds(peer) == ["hi"]
    assert other.start() and ended(peer) and callbacks() == 1
    assert connect().editor and type(K._S["conn"]) is other._Conn
    K._send({"t": "ho"})
    assert json.loads(bytes(K._S["conn"].wbuf)) == {"t": "ho"}


def test_a_reload_ends_what_the_old_module_kept(K, tmp_path):
    copy = shutil.copy(K.__file__, tmp_path)
    said = []

    class Kept:
        def __del__(self):
            with pytest.raises(AttributeError) as failure:  # nothing is there yet
                self.ask()
            said.append(str(failure.value))

    old = load(copy)
    old.kept = Kept()
    old.kept.ask = old.cache_dir
    del old
    load(copy)
    assert said == ["module 'kestrix' has no attribute '_CACHE'"]


def test_a_sub_interpreter_is_refused(K):
    interpreters = pytest.importorskip("_xxsubinterpreters")
    id = interpreters.create()
    interpreters.run_string(id, f"""if True:
        import sys
        sys.path.insert(0, {str(pathlib.Path(K.__file__).parent)!r})
        try:
            import kestrix
        except ImportError as error:
            assert "sub-interpreter" in str(error)
        else:
            raise AssertionError
        """)
    interpreters.destroy(id)
    assert K.status() == "stopped"


def test_start_up_script(K, ed, tick, monkeypatch):
    runpy.run_path(START_UP)
    with Peer(ports=K._S["port"]) as peer:
        tick()
        assert K._S["conn"] and not ended(peer)
    assert texts(ed, "warning") == []
    K.stop()
    ed.inject("register_slate_post_tick_callback")
    runpy.run_path(START_UP)
    assert K._S["server"] is None  # no listener that nobody serves
    monkeypatch.setitem(sys.modules, "kestrix", None)
    runpy.run_path(START_UP)
    monkeypatch.setattr(sys, "version_info", (3, 12, 1, "final", 0))
    runpy.run_path(START_UP)
    injected, missing, other = texts(ed, "warning")
    assert injected == "the link could not start: injected" and "kestrix" in missing
    assert other == ("the link could not start: it is built for Python 3.11, "
                     "and this editor has Python 3.12")


@pytest.mark.parametrize("command_line, starts", [
    ("Game.uproject -run=Cook -unattended", False), ("Game.uproject -RUN=DerivedDataCache", False),
    ("Game.uproject -log -dry-run=no", True), ("", True)])
def test_start_up_script_leaves_commandlets_alone(K, ed, monkeypatch, command_line, starts):
    monkeypatch.setattr(unreal.SystemLibrary, "get_command_line", lambda: command_line,
                        raising=False)
    runpy.run_path(START_UP)
    assert bool(K._S["server"]) == starts and len(ed.log) == starts


class Odd:
    """A value that acts whenever it is looked at: whatever it is asked, it runs `Odd.act` first."""
    act = staticmethod(lambda: None)
    sock = closed = property(lambda self: self.close())

    def close(self, *args):
        Odd.act()
        return random.choice([None, True, False, [], 7, self, ("a", 1)])
    flush = send = read = accept = recv = close

    def __eq__(self, other):
        self.close()
        return NotImplemented

    def __hash__(self):
        Odd.act()
        return str.__hash__(self) if isinstance(self, str) else hash("known")

    def __bool__(self):
        return bool(self.close())

    def __float__(self):
        Odd.act()
        return 1.5

    def __iter__(self):
        Odd.act()
        return iter((self, "x"))

    def __del__(self):
        Odd.act()


class OddText(Odd, str):
    pass


def odd_value(dice, state, ids, depth=0):
    """Anything that somebody might put into the state or into what is in it."""
    def inner():
        return odd_value(dice, state, ids, depth + 1) if depth < 3 else None

    def name():
        return dice.choice([*ids, "id", "info", "actor", "kind", "xf", "t", OddText("info"), 5])
    return dice.choice([
        lambda: None, lambda: True, lambda: dice.choice([-1, 0, 5, 2**63 - 1, 2**64, 10**400]),
        lambda: dice.choice([float("nan"), float("inf"), -1.5, 1e300, 0.0]),
        lambda: dice.choice(["", "x", "\ud800", b"x", OddText("x"), *ids]), Odd, object,
        lambda: {name(): inner() for _ in range(3)}, lambda: [inner() for _ in range(3)],
        lambda: {name(), None, Odd()}, lambda: (inner(), inner()),
        lambda: type("Map", (dict,), {"__len__": lambda _: 9})({name(): inner()}),
        lambda: type("List", (list,), {"__iter__": lambda _: iter((1,))})([inner()]),
        lambda: dice.choice(list(state.values()) or [0]),
        lambda: {id: {"actor": inner(), "info": inner()} for id in ids},
        lambda: [name() for _ in range(dice.randrange(9))]])()


def test_a_value_of_the_wrong_kind_counts_as_absent(K, ed, connect, tick):
    lamps = [ed.spawn("PointLight") for _ in range(20)]
    peer = connect()
    for key in [key for key in KEYS if KEYS[key] != "anything" and key != "last_error"]:
        before = K._S.get(key)
        for wrong in (5, "x", [1], {"x": 1}, {1}, object(), float("nan"), 10**400):
            if not isinstance(wrong, HOLDS[KEYS[key]]) or wrong == 10**400 and key == "pass_n":
                K._S[key] = wrong
                tick(0.2, 0.05)
                assert K._S.get("last_error") is None, (key, wrong)
        K._S[key] = before
    for scan_i in range(-1, -60, -1):
        K._S["scan_i"] = scan_i
        tick(0.1, 0.05)
    assert K._S.get("last_error") is None
    K._S["known"][lamps[3].get_path_name()] = None
    tick(1.0)
    assert "a record must be an object" in K._S.pop("last_error")
    K.start()
    peer.pump()
    peer.faults.clear()
    peer = connect()
    assert len(peer.actors) == 20


@pytest.mark.parametrize("seed", range(25))
def test_a_state_that_somebody_edits(K, ed, connect, tick, clock, seed):
    """Nothing in it may take the editor down, whoever changes it and when; start() heals it."""
    dice = random.Random(seed)
    random.seed(seed)
    ids = [ed.spawn(kind, mesh=mesh).get_path_name() for kind, mesh in (
        ("StaticMeshActor", ed.make_mesh("/Game/Props/Chair")), ("PointLight", None),
        ("TextRenderActor", None))]
    state, acting, keys = K._S, [], list(KEYS)

    def mess(*args, **kwargs):
        if acting or dice.random() < 0.8:
            return False
        acting.append(True)
        try:
            key = dice.choice(keys)
            what = state.get(key)
            if isinstance(what, (dict, list, set)) and dice.random() < 0.6:
                inside = what.get(dice.choice(ids)) if type(what) is dict else None
                (inside if isinstance(inside, dict) else what).clear()
            elif dice.random() < 0.05:
                state.clear()
            elif dice.random() < 0.1:
                dice.choice([K.start, K.stop, K._snapshot, lambda: K._tick(0.02)])()
            else:
                state[key] = odd_value(dice, state, ids)
        except Exception:
            pass
        finally:
            acting.clear()
        return False

    xf = [0.0] * 3 + [1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0] + [1.0] * 3
    calls = [K._scan_step, K._tick] * 3 + [K._h_xf, K._h_delete, K._h_rename, K._h_select,
             K._h_scope, K._h_hello, K._h_spawn, K._h_cam, K._h_synced, K._h_asking, K._handle,
             K._h_brush_set]
    calls += [K._snapshot, K.status, K._scan_fast, K._replay_pending, K._cands_tick, K._accept,
              K._toolbar_update, K._drag_settle, K.show_in_blender, K._cam_tick, K._cam_pick_pane,
              K._brush_watch]
    for round in range(4):
        messy = connect()
        for target in ("Actor.get_actor_label", "SystemLibrary.is_valid", "Actor.get_path_name"):
            ed.inject(target, when=mess)
        Odd.act = staticmethod(mess)
        for _ in range(60):
            if dice.random() < 0.3:
                state[dice.choice(keys)] = odd_value(dice, state, ids)
            clock.advance(dice.choice([0.02, 0.3]))
            call = dice.choice(calls)
            message = {"t": "rename", "id": dice.choice(ids), "label": "L", "ids": ids[1:],
                       "items": [[aid, xf] for aid in ids], "version": 16, "kind": "light",
                       "xf": xf, "c": xf, "radius_m": dice.random(), "what": "sync"}
            args = ((message,) if call.__name__.startswith("_h") else
                    (0.3,) if call in (K._tick, K._scan_step) else ())
            try:
                call(*args)
            except Exception:
                pass
        if dice.random() < 0.5:
            K.stop(dice.random() < 0.5)  # never raises
        Odd.act = staticmethod(lambda: None)
        ed.heal()
        unreal._editor.editor.ticks.clear()  # whose handles are lost
        state.update({key: odd_value(dice, state, ids) for key in KEYS})
        assert K.start()
        messy.pump()
        messy.faults.clear()
        state.pop("last_error", None)
        peer = connect()
        tick(1.0)
        peer.pump()
        assert peer.errors == [] and state.get("last_error") is None
        first = ed.actors()[0]
        ed.move(first, location=(round + 1, 2, 3))
        tick(1.5)
        peer.pump()
        assert peer.actors[first.get_path_name()]["xf"][0] == round + 1.0
        assert "refused" not in kinds(peer) and K.status().startswith("listening")
        K.stop()
