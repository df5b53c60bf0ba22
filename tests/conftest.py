"""What every test gets: an editor, the module with fresh state, a clock set by hand, a peer.

`ed` is the editor stand-in, `K` the module, `tick(seconds)` lets the editor run, `connect()` gives a
peer that has its copy of the level. When a test ends nothing may have failed unnoticed: a test that
provokes an error takes it away with `K._S.pop("last_error")`, one that provokes a fault of the wire
clears `peer.faults`.
"""

import os
import pathlib
import sys
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent
PLUGIN = pathlib.Path(os.environ.get("KESTRIX_PLUGIN", ROOT / "build" / "release" / "plugin"))
sys.path[:0] = [str(p) for p in (ROOT, ROOT / "sim", ROOT / "tools", PLUGIN / "Content" / "Python")]

import sim  # noqa: E402
from link_peer import Peer  # noqa: E402

FRAME = 1.0 / 60.0


class QuietPeer(Peer):
    """take() leaves out the reports that come unasked from time to time, unless they are named."""

    def take(self, *reports):
        return [m for m in super().take()
                if m["t"] not in ("ue_fps", "brush") or m["t"] in reports]


def kinds(peer):
    """The types of what has come since, but for the reports that come unasked."""
    return [m["t"] for m in peer.take() if m["t"] not in ("ue_fps", "brush")]


def warnings(ed, part=""):
    """The warnings in the editor's log that have that part."""
    return [text for level, text in ed.log if level == "warning" and part in text]


def logged(ed, level="log"):
    return [text.removeprefix("[Verrin] ") for kind, text in ed.log if kind == level]


def failure(K, answers):
    """The text that a failed request was answered with, in both of its messages."""
    done, error = answers
    assert error["t"] == "error" and error["msg"].endswith(done["error"])
    assert K._S.pop("last_error")
    return done["error"]


class Clock:
    """perf_counter and time stand still unless a test moves them."""

    def __init__(self):
        self.now = 1000.0  # perf_counter seconds
        self.epoch = 1_700_000_000.0

    def advance(self, seconds):
        self.now += seconds
        self.epoch += seconds


@pytest.fixture
def clock(monkeypatch):
    clock = Clock()
    monkeypatch.setattr(time, "perf_counter", lambda: clock.now)
    monkeypatch.setattr(time, "time", lambda: clock.epoch)
    return clock


@pytest.fixture
def ed(tmp_path):
    editor = sim.Editor(tmp_path / "Project")
    yield editor
    editor.heal()


@pytest.fixture
def K(ed, clock):
    import kestrix

    kestrix.stop(True)
    kestrix._S.clear()
    kestrix._S.update(handle=None, server=None, conn=None, port=kestrix.PORT)
    kestrix._CACHE.clear()
    yield kestrix
    ed.heal()
    kestrix.stop(True)
    for conn, _ in kestrix._S.pop("cands", None) or []:
        conn.close()
    assert kestrix._S.get("last_error") is None


@pytest.fixture
def tick(ed, clock):
    """tick(seconds=0, dt=FRAME): runs the editor's frames for that long, at least one."""

    def run(seconds=0.0, dt=FRAME):
        for _ in range(max(1, round(seconds / dt))):
            clock.advance(dt)
            ed.tick(1, dt)

    return run


@pytest.fixture
def connect(K, tick):
    """connect(synced=True, **hello): a peer that has said hello and has the snapshot.

    Starts the link if it is off. The peer's messages up to here are cleared; its mirror is filled.
    """
    peers = []

    def make(synced=True, **hello):
        if K._S["server"] is None:
            assert K.start()
        peer = QuietPeer(ports=K._S["port"])
        peers.append(peer)
        tick()  # accepts
        peer.hello(**hello)
        peer.pump()
        tick()
        if synced:
            peer.synced()
            peer.pump()
            tick()
        peer.pump()
        peer.clear()
        return peer

    yield make
    for peer in peers:
        peer.pump()
        peer.close()
        assert peer.faults == []


@pytest.fixture
def peer(connect):
    return connect()


@pytest.fixture
def ask(peer, tick):
    """ask(type, **fields): what comes back in a tick, without the busy notices, which have ended."""
    def send(message, **fields):
        peer.take()
        peer.send({"t": message, **fields})
        tick()
        got = [m for m in peer.take() if m["t"] not in ("ue_fps", "brush")]
        assert peer.busy is None
        return [m for m in got if m["t"] != "busy"]
    return send
