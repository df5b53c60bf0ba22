"""The landscape brush on both sides, and the editor's frame rate for the peer."""
import os

import pytest

from sim.windows import Desktop

VALUES = {"strength": pytest.approx(0.3), "size": 2048.0, "falloff": 0.5, "use_target": False,
          "target": 1.0, "without_moving": True}


def test_the_brush_is_asked_for_and_set(ed, K, connect, tick):
    peer = connect(version=6)

    def asked():
        peer.take()
        peer.send({"t": "brush_get"})
        tick()
        return peer.take("brush")[-1]

    K._S["brush_seen"] = "stale"
    peer.send({"t": "brush_set", "size": 100})
    assert asked() == {"t": "brush", "ok": False} and K._S["brush_seen"] is None
    panel = ed.landscape_mode()
    assert list(asked().items()) == [("t", "brush"), ("ok", True), *VALUES.items()]
    ed.play()
    tick(0.5)
    peer.send({"t": "brush_set", "size": 100, "use_target": 1, "colour": "red", "target": None,
               "strength": "much", "falloff": float("nan")})
    assert asked() == {"t": "brush", "ok": True, **VALUES, "size": 100.0, "use_target": True}
    ed.stop_play()
    panel.set_editor_property("PaintBrushRadius", 60.0)
    tick(5.0)
    assert not [m for m in peer.take("brush") if m["t"] == "brush"]    # version 6 hears nothing unasked
    # A setting that can't be read or written costs only itself.
    ed.inject("Object.set_editor_property", times=None, when=lambda o, name, *_: "Strength" in name)
    ed.inject("Object.get_editor_property", times=None, when=lambda o, name: "Falloff" in name)
    peer.send({"t": "brush_set", "strength": 1.0, "size": 50})
    assert asked() == {"t": "brush", "ok": True, "strength": VALUES["strength"], "size": 50.0,
                       "use_target": True, "target": 1.0, "without_moving": True}
    for failing in ("Object.get_editor_property", "find_object"):
        ed.inject(failing, times=None, when=lambda o, *_: o in (panel, None))
        assert asked() == {"t": "brush", "ok": False}


def test_changes_of_the_users_reach_the_peer_once(ed, K, connect, tick):
    def heard(peer, seconds=2.3):
        tick(seconds)
        return [m["size"] for m in peer.take("brush") if m["t"] == "brush"]

    panel = ed.landscape_mode()
    peer = connect()
    assert heard(peer) == [2048.0] and heard(peer) == []
    panel.set_editor_property("PaintBrushRadius", 512.0)
    panel.set_editor_property("PaintToolStrength", 0.75)
    assert heard(peer) == [512.0]
    peer.send({"t": "brush_set", "size": 100})
    assert heard(peer, 5.0) == []       # the peer's own edit
    peer.close()
    tick(0.1)
    peer = connect()
    assert heard(peer) == [100.0]       # a new peer hears it, although nothing has changed
    ed.inject("find_object", times=None, result=None)
    assert heard(peer, 5.0) == [] and K._S["brush_seen"]["size"] == 100.0


@pytest.fixture
def rates(K, connect, clock):
    """rates(dt, frames): lets that many frames go by; the rates sent meanwhile."""
    peer = connect()
    K._S["fps"] = None

    def run(dt, frames):
        for _ in range(frames):
            clock.advance(dt)
            K._fps_sample(dt)
        K._S["conn"].flush()
        return [m["fps"] for m in peer.take("ue_fps") if m["t"] == "ue_fps"]
    return run


def test_the_rate_is_a_median_sent_when_it_changes(K, rates):
    assert rates(1 / 58, 30 * 4 - 1) == [] and rates(1 / 58, 3 * 58) == [58.0]
    assert rates(1 / 60, 240 * 4) == [] and rates(1 / 61, 240 * 4) == [61.0]
    assert rates(0.5, 4 * 100) == []                # stutter doesn't move the median
    n = K._S["fps"]["n"]
    K._fps_sample(0.5)
    assert (n := n + 1) == K._S["fps"]["n"]
    for unusable in (0.6, 0.0, -0.1, float("nan"), None):
        K._fps_sample(unusable)
    assert K._S["fps"]["n"] == n and len(K._S["fps"]["all"]) == 240
    K._S["client_ver"] = 6
    assert rates(1 / 20, 240 * 4) == []
    K._S["client_ver"] = 7
    assert rates(1 / 20, 41) == [20.0]


def test_frames_in_front_count_more_than_those_behind(K, rates):
    desktop = Desktop()
    mine, other = (desktop.add(os.getpid() + i, (0, 0, 9, 9)) for i in (0, 1))
    with desktop.installed():
        assert rates(1 / 60, 29 * 4) == []
        desktop.foreground = other
        assert rates(1 / 30, 30 * 4 + 60) == [30.0]     # 29 in front are too few
        desktop.foreground = mine
        assert rates(1 / 60, 60 * 3) == [60.0]
        assert (len(K._S["fps"]["fg"]), len(K._S["fps"]["all"])) == (29 + 45, 30 + 15)


def test_a_new_peer_hears_the_rate_and_no_failure_leaves_the_tick(ed, K, connect, tick):
    peer = connect()
    for _ in range(2):
        tick(7.0)
        assert [m["fps"] for m in peer.take("ue_fps") if m["t"] == "ue_fps"] == [60.0]
        peer.close()
        tick(0.1)
        assert "to" not in K._S["fps"]  # with all that it had to say
        peer = connect()
    for end in (K.stop, lambda: connect(takeover=True)):
        K._S["fps"]["to"] = K._S["conn"]
        end()
        assert "to" not in K._S["fps"]
        peer = connect(takeover=True)
    K._S["fps"] = {"n": "many"}
    ed.spawn("StaticMeshActor", "Chair")
    tick(1.5)
    assert "TypeError" in K._S.pop("last_error") and {level for level, _ in ed.log} == {"log"}
    assert [m["actor"]["label"] for m in peer.take()] == ["Chair"]      # the tick itself goes on
    K._S["fps"] = None
