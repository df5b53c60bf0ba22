"""The viewport camera: streaming, no echo, and which pane is followed."""
import math

import pytest
import unreal as u

VIEW = [10.0, 20.0, 30.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0, 60.0]     # looks along Y


@pytest.fixture
def peer(K, connect):
    return connect()


@pytest.fixture
def cams(peer, tick):
    """cams(type, **fields): sends that, if given; the states of the "cam" that come in 0.6 s."""
    def run(kind=None, **fields):
        if kind:
            peer.send({"t": kind, **fields})
        tick(0.6)
        return [m["c"] for m in peer.take() if m["t"] == "cam"]
    return run


def test_stream_sends_what_moved_and_nothing_else(ed, K, peer, cams, tick):
    ed.move_view((1.00049, 2, 3), (0, 90, 0), fov=75.5)
    assert cams() == []
    assert cams("cam_mode", send=True) == [[1.0, 2.0, 3.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0, 75.5]]
    for change, sent in (
            ({}, 0), *(({"location": (x, 2, 3)}, n)                 # slow drift adds up
                       for x, n in ((1.04, 0), (1.08, 1), (1.12, 0), (1.14, 1))),
            ({"rotation": (0, 90.001, 0)}, 0), ({"rotation": (0, 90.01, 0)}, 1),
            ({"rotation": (0, 90.01, 1)}, 1), ({"fov": 75.505}, 0), ({"fov": 80}, 1)):
        ed.move_view(**change)
        assert len(cams()) == sent, change
    ed.move_view(rotation=(10, 20, 30))
    [c] = cams()
    assert c[3:9] == [round(v, 6) for v in c[3:9]] and 0 not in c[3:9]
    assert len(cams("cam_mode", send=True)) == 1    # told anew though nothing moved
    ed.move_view((5, 5, 5))
    assert cams("cam_mode") == []
    peer.send({"t": "cam_get"})
    tick()
    assert peer.take() == [{"t": "cam", "c": K._cam_state(), "snap": True}]


def test_a_view_from_the_peer_is_not_echoed(ed, K, cams):
    cams("cam_mode", send=True)
    redraws, pane = ed.redraws, ed.panes[0]
    assert cams("cam", c=VIEW) == []
    assert pane.location.to_tuple() == (10, 20, 30) and pane.rotation.yaw == pytest.approx(90)
    assert K._cam_state() == VIEW and ed.redraws == redraws + 1
    assert cams("cam", c=[1e5 / 3, -2 / 3, 0.00049, 0.8, 0.0, 0.6, -0.6, 0.0, 0.8, 1.0]) == []
    assert pane.location.x == 1e5 / 3 and pane.fov == 5.0
    for fov, expected in (([200], 170.0), ([0], 170.0), ([], 170.0), ([None], 170.0), ([45], 45)):
        assert cams("cam", c=VIEW[:9] + fov) == [] and pane.fov == expected
    ed.move_view((8, 20, 30))
    assert len(cams()) == 1


def test_bad_views_change_nothing_and_reach_the_peer(ed, K, peer, cams):
    cams("cam_mode", send=True)
    before = K._cam_state()
    for fields, error in (({}, "cam: 'c'"), ({"c": None}, "cam: a list was expected"),
                          ({"c": VIEW[:8]}, "cam: list index"), ({"c": "0123456789"}, "cam: a list"),
                          ({"c": [*VIEW[:8], "1"]}, "cam: vector: a number was expected, not str"),
                          ({"c": [math.nan, *VIEW[1:]]}, "cam: vector: a finite number"),
                          ({"c": [*VIEW[:9], "wide"]}, "cam: field of view: a number")):
        assert cams("cam", **fields) == [] and error in peer.errors.pop() and K._S.pop("last_error")
        assert K._cam_state() == before
    ed.inject("LevelEditorSubsystem.set_level_viewport_camera_info")
    assert cams("cam", c=VIEW) == [] and peer.errors == ["cam: injected"]
    assert cams("cam", c=VIEW) == [] and K._cam_state() == VIEW and K._S.pop("last_error")


def test_a_pane_without_a_camera_says_nothing(ed, K, cams):
    ed.inject("LevelEditorSubsystem.get_level_viewport_camera_info", result=None, times=None)
    assert cams("cam_mode", send=True) == cams("cam_get") == cams("cam", c=VIEW) == []
    assert K._cam_state() is None and not K._cam_equal(None, VIEW) and not K._cam_equal(VIEW, None)
    ed.heal()
    assert len(cams()) == 1
    ed.inject("LevelEditorSubsystem.get_level_viewport_fov", result=0.0)
    assert K._cam_state(key=ed.panes[1].key)[9] == 90.0
    K._S.pop("cam_key")                         # no pane is active yet: asked for again
    ed.inject("LevelEditorSubsystem.get_active_viewport_config_key", result=u.Name("None"))
    assert str(K._cam_key()) == "None" and K._cam_key() == ed.panes[0].key


def test_an_engine_without_views_by_pane_is_told_of_once_and_the_link_goes_on(ed, K, peer, cams):
    for lacks in ("get_level_viewport_camera_info", "set_level_viewport_camera_info",
                  "get_level_viewport_fov", "set_level_viewport_fov"):
        ed.remove(f"LevelEditorSubsystem.{lacks}")
    ed.clear_log()
    assert cams("cam_mode", send=True) == cams("cam", c=VIEW) == cams("cam_get") == []
    ed.spawn("PointLight")
    assert cams() == cams("cam", c=VIEW) == [] and len(peer.actors) == 1 and peer.errors == []
    assert [text.split(";")[0].split()[-1] for _, text in ed.log] == [
        "get_level_viewport_camera_info", "set_level_viewport_camera_info",
        "set_level_viewport_fov"]


def test_the_pane_that_the_user_moves_is_followed(ed, K, cams):
    first, second = (pane.key for pane in ed.panes[:2])
    cams("cam_mode", send=True)
    ed.activate_pane(1)
    assert cams() == [] and K._cam_key() == first                   # a click isn't a move
    ed.move_view((1, 1, 1))                                         # with the event: at once
    assert cams()[0][:3] == [1, 1, 1] and K._cam_key() == second
    assert cams("cam", c=VIEW) == [] and ed.panes[1].location.x == 10
    ed.move_view((9, 9, 9), pane=2)                                 # orthographic
    assert cams() == [] and K._cam_key() == second and K._S["cam_probe"] is None
    ed.activate_pane(0)
    assert cams() == []                                             # takes a sample
    ed.move_view((2, 2, 2), event=False)                            # moved, but not turned
    assert cams() == []
    ed.move_view(rotation=(0, 45, 0), event=False)
    assert [c[:3] for c in cams()] == [[2, 2, 2]] and K._cam_key() == first
    ed.activate_pane(1)
    fault = ed.inject("LevelEditorSubsystem.get_active_viewport_config_key", times=None)
    assert cams() == [] and fault.hits > 1 and K._S["cam_probe"] is None
    K._on_cam_moved(loc=None, rot=None, vtype=u.LevelViewportType.LVT_PERSPECTIVE, index=1)
    assert K._cam_key() == first
    ed.heal()
    cams("cam_mode", send=False)
    ed.move_view((3, 3, 3))
    assert K._cam_key() == second                                   # also while nothing is streamed


def test_the_event_is_bound_once(ed, K):
    event = u.get_editor_subsystem(u.LevelEditorSubsystem).on_editor_camera_moved
    before = len(event._callables)
    ed.remove("LevelEditorSubsystem.on_editor_camera_moved")
    assert K.start() and "cam_hooked" not in K._S
    ed.heal()
    assert K.start() and K.start()
    assert len(event._callables) == before + 1
