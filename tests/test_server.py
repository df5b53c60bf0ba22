"""Listening, taking and refusing peers, and what a reload or a second copy of the module finds."""
import importlib.util
import json
import pathlib
import runpy
import shutil
import socket
import struct
import sys

import pytest
import unreal
from peer import Peer

THROTTLE = "bThrottleCPUWhenNotForeground"
START_UP = pathlib.Path(__file__).resolve().parents[1] / "plugin/Content/Python/init_unreal.py"


def texts(ed, level="log"):
    return [text.removeprefix("[Verrin] ") for kind, text in ed.log if kind == level]


def kinds(peer):
    return [m["t"] for m in peer.take() if m["t"] not in ("ue_fps", "brush")]


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


def test_start_and_stop(K, ed, tick, block):
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
    kept = K.start(base)
    for port, error in (("9920", TypeError), (-3, ValueError), (65536, ValueError),
                        (2 ** 63, OverflowError)):
        with pytest.raises(error):
            K.start(port)
        assert K._S["port"] == kept and K._S["server"]  # still listening


def reset(peer):
    peer.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()


@pytest.mark.parametrize("state, hello, wins", [
    (id, {}, False), (Peer.synced, {}, False), (id, {"takeover": True}, True),
    (Peer.synced, {"version": 5}, True), (Peer.close, {}, True), (reset, {}, True),
    (id, {"version": "5"}, False), (id, {"version": 10 ** 400}, False),
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
        assert kinds(second) == ["refused"] and ended(second) and "press Connect" in second.refused
        host, port = second.address
        assert not ended(first) and K._S["client"] == "peer"
        assert texts(ed)[-1] == f"refused a second Blender ({host}:{port}): another one is linked"
    second.close()


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
    ed.make_material("/Game/B")
    ed.make_material("/Game/A")
    K._S["unused"] = {"/Game/B.B", "/Game/Gone.Gone", "/Game/A.A"}
    K._S["conn"].close()
    assert K.status() == (
        f"listening on {K._S['port']}\n  material assets no longer used (not deleted, AUTO_DELETE "
        "is off):\n    /Game/A.A\n    /Game/B.B")


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


def test_a_second_copy_of_the_library(K, ed, connect, tick, tmp_path):
    peer = connect()
    copy = tmp_path / pathlib.Path(K.__file__).name
    shutil.copy(K.__file__, copy)
    spec = importlib.util.spec_from_file_location("kestrix", copy)
    other = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(other)
    assert other._S is K._S and other._Conn is not K._Conn
    other._send({"t": "hi"})  # through the first copy's connection
    assert ", Blender connected (0 actors linked)" in other.status()
    assert K._S["conn"].flush() is None and kinds(peer) == ["hi"]
    assert other.start() and ended(peer) and callbacks() == 1
    assert connect().editor and type(K._S["conn"]) is other._Conn
    K._send({"t": "ho"})
    assert json.loads(bytes(K._S["conn"].wbuf)) == {"t": "ho"}


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
