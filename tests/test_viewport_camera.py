"""The viewport camera: streaming, no echo, and which pane is followed."""
import math

import pytest
import unreal as u

VIEW = [10.0, 20.0, 30.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0, 60.0]     # looks along Y


@pytest.fixture
def peer(K, connect):
    return connect()


@pytest.fixture
def say(peer, tick):
    """say(msg or type, **fields): sends; gives the states of the "cam" messages that come back."""
    def run(kind, **fields):
        peer.send({"t": kind, **fields})
        tick(0.1)
        return cams(peer)
    return run


def cams(peer):
    return [m["c"] for m in peer.take() if m["t"] == "cam"]


def test_stream_sends_what_moved_and_nothing_else(ed, K, peer, say, tick):
    tick(0.5)
    assert cams(peer) == []
    ed.move_view((1.00049, 2, 3), (0, 90, 0), fov=75.5)
    assert cams(peer) == []
    assert say("cam_mode", send=True) == [[1.0, 2.0, 3.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0, 75.5]]
    tick(1.0)
    assert cams(peer) == []
    for x, sent in ((1.04, 0), (1.08, 1), (1.12, 0), (1.14, 1)):    # slow drift adds up
        ed.move_view((x, 2, 3))
        tick(0.1)
        assert len(cams(peer)) == sent
    for change, sent in (({"rotation": (0, 90.001, 0)}, 0), ({"rotation": (0, 90.01, 0)}, 1),
                         ({"rotation": (0, 90.01, 1)}, 1), ({"fov": 75.505}, 0), ({"fov": 80}, 1)):
        ed.move_view(**change)
        tick(0.1)
        assert len(cams(peer)) == sent
    assert len(say("cam_mode", send=True)) == 1     # told anew though nothing moved
    ed.move_view((5, 5, 5))
    assert len(say("cam_mode")) == 0 and K._S["cam_send"] is False
    assert peer.send({"t": "cam_get"}) is None
    tick()
    answer, = peer.take()
    assert answer["snap"] is True and answer["c"][:3] == [5, 5, 5]


def test_a_view_from_the_peer_is_not_echoed(ed, K, peer, say):
    say("cam_mode", send=True)
    redraws = ed.redraws
    assert say("cam", c=VIEW) == []
    pane = ed.panes[0]
    assert pane.location.to_tuple() == (10, 20, 30) and pane.rotation.yaw == pytest.approx(90)
    assert K._cam_state() == VIEW == K._S["cam_last"] and ed.redraws == redraws + 1
    skewed = [1e5 / 3, -2 / 3, 0.00049, 0.8, 0.0, 0.6, -0.6, 0.0, 0.8, 1.0]
    assert say("cam", c=skewed) == [] and pane.fov == 5.0
    for fov, expected in (([200], 170.0), ([0], 170.0), ([], 170.0), ([None], 170.0), ([45], 45)):
        assert say("cam", c=VIEW[:9] + fov) == [] and pane.fov == expected
    peer.send({"t": "cam", "c": VIEW})
    assert say("cam", c=[7.0] + VIEW[1:]) == [] and pane.location.x == 7.0
    ed.move_view((8, 20, 30))
    assert len(say("cam_none")) == 1


def test_bad_views_change_nothing_and_reach_the_peer(ed, K, peer, say):
    say("cam_mode", send=True)
    before = K._cam_state()
    for fields, error in (({}, "cam: 'c'"), ({"c": None}, "cam: a list was expected"),
                          ({"c": VIEW[:8]}, "cam: list index"), ({"c": "0123456789"}, "cam: a list"),
                          ({"c": [*VIEW[:8], "1"]}, "cam: vector: a number was expected, not str"),
                          ({"c": [math.nan, *VIEW[1:]]}, "cam: vector: a finite number"),
                          ({"c": [*VIEW[:9], "wide"]}, "cam: field of view: a number")):
        peer.send({"t": "cam", **fields})
        assert say("none") == [] and error in peer.errors.pop() and K._S.pop("last_error")
        assert K._cam_state() == before
    ed.inject("LevelEditorSubsystem.set_level_viewport_camera_info")
    assert say("cam", c=VIEW) == [] and peer.errors.pop() == "cam: injected"
    assert say("cam", c=VIEW) == [] and K._cam_state() == VIEW
    K._S.pop("last_error")


def test_a_pane_without_a_camera_says_nothing(ed, K, peer, say, tick):
    ed.inject("LevelEditorSubsystem.get_level_viewport_camera_info", result=None, times=None)
    assert say("cam_mode", send=True) == say("cam_get") == say("cam", c=VIEW) == []
    assert K._cam_state() is None and not K._cam_equal(None, VIEW) and not K._cam_equal(VIEW, None)
    ed.heal()
    tick(0.1)
    assert len(cams(peer)) == 1
    ed.inject("LevelEditorSubsystem.get_level_viewport_fov", result=0.0, times=None)
    assert K._cam_state(key=ed.panes[1].key)[9] == 90.0
    K._S.pop("cam_key")                         # no pane is active yet: asked for again
    asked = ed.inject("LevelEditorSubsystem.get_active_viewport_config_key", result=u.Name("None"))
    assert str(K._cam_key()) == "None" and K._cam_key() == ed.panes[0].key and asked.hits == 1


def test_the_pane_that_the_user_moves_is_followed(ed, K, peer, say, tick):
    say("cam_mode", send=True)
    ed.activate_pane(1)
    tick(1.0)
    assert cams(peer) == [] and K._cam_key() == ed.panes[0].key    # a click isn't a move
    ed.move_view((1, 1, 1))                                         # with the event: at once
    tick(0.1)
    assert cams(peer)[0][:3] == [1, 1, 1] and K._cam_key() == ed.panes[1].key
    assert say("cam", c=VIEW) == [] and ed.panes[1].location.x == 10
    ed.move_view((9, 9, 9), pane=2)                                 # orthographic
    tick(1.0)
    assert cams(peer) == [] and K._cam_key() == ed.panes[1].key
    ed.activate_pane(0)
    tick(0.6)                                                       # a sample of the idle pane
    ed.move_view((2, 2, 2), event=False)                            # moved, but not turned
    tick(0.6)
    assert cams(peer) == []
    ed.move_view(rotation=(0, 45, 0), event=False)
    tick(0.6)
    assert [c[:3] for c in cams(peer)] == [[2, 2, 2]] and K._cam_key() == ed.panes[0].key
    assert K._S["cam_probe"] is None
    ed.move_view((3, 3, 3), pane=1)
    say("cam_mode", send=False)
    ed.move_view((4, 4, 4), pane=0)
    assert K._cam_key() == ed.panes[0].key                          # also while nothing is streamed


def test_picking_a_pane_survives_what_the_editor_lacks(ed, K, peer, say, tick):
    say("cam_mode", send=True)
    ed.activate_pane(1)
    key = "LevelEditorSubsystem.get_active_viewport_config_key"
    fault = ed.inject(key, times=None)
    tick(0.6)
    K._on_cam_moved(loc=None, rot=None, vtype=u.LevelViewportType.LVT_PERSPECTIVE, index=1)
    assert fault.hits >= 3 and K._S["cam_probe"] is None and K._cam_key() == ed.panes[0].key
    ed.heal()
    ed.activate_pane(3)                                             # has no camera
    tick(0.6)
    assert K._S["cam_probe"] is None
    for pane in (0, 1):                     # two panes in turn, each at rest
        ed.activate_pane(pane)
        ed.panes[pane].rotation = u.Rotator(yaw=30.0 * pane)
        tick(0.6)
    assert K._cam_key() == ed.panes[0].key and K._S["cam_probe"][2] == str(ed.panes[1].key)


def test_the_event_is_bound_once(ed, K, tick):
    event = u.get_editor_subsystem(u.LevelEditorSubsystem).on_editor_camera_moved
    before = len(event._callables)
    ed.remove("LevelEditorSubsystem.on_editor_camera_moved")
    assert K.start() and "cam_hooked" not in K._S
    ed.heal()
    for _ in range(3):
        assert K.start()
    assert len(event._callables) == before + 1 and K._S["cam_hooked"] is True
