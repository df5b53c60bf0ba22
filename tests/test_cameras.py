"""Camera records, and the exposure volume with undo and failures."""
import math

import pytest
import unreal as u


def test_lights_cameras_and_texts_travel_and_changes_follow(ed, K, connect, tick):
    actors = [ed.spawn("PointLight"), ed.spawn("CineCameraActor"), ed.spawn("CameraActor"),
              ed.spawn("TextRenderActor", text="Exit")]
    fields = {"light": K._light_props, "cam": K._camera_props, "text": K._text_props}
    peer = connect()

    def agreed(*changed):
        messages = [m for m in peer.take() if m["t"] == "props"]
        assert [m["id"] for m in messages] == [actor.get_path_name() for actor in changed]
        for actor in actors:
            mine = peer.actors[actor.get_path_name()]
            assert all(mine[f] == read(actor) for f, read in fields.items() if f in mine)

    agreed()
    for actor, change in zip(actors, ({"intensity": 20.0}, {"current_focal_length": 50.0},
                                      {"field_of_view": 70.12345}, {"text": "Way out"})):
        ed.set(actor, **change)
    tick(3.0)
    agreed(*actors)


def test_camera_records_both_ways(ed, K):
    shot, view = ed.spawn("CineCameraActor"), ed.spawn("CameraActor")
    ed.set(shot, current_focal_length=50.0)
    for record, expected in (({"sw": 36, "fov": 20.0}, (50.0, 36.0, 18.67)),
                             ({"sh": 24.0, "sw": None}, (50.0, 36.0, 24.0)),
                             ({"focal": 85.0}, (85.0, 36.0, 24.0))):
        K._apply_camera(shot, record)
        assert tuple(K._camera_props(shot).values()) == expected
    for record, expected in (({"fov": 40.0, "focal": 10.0}, 40.0), ({"sh": 5.0, "sw": 5.0}, 40.0),
                             ({"focal": 36}, 53.1301), ({"focal": 36.0, "sw": 72.0}, 90.0)):
        K._apply_camera(view, record)
        assert K._camera_props(view)["fov"] == expected


def test_cameras_are_marked_and_bad_records_change_nothing(ed, K):
    shot, view = ed.spawn("CineCameraActor"), ed.spawn("CameraActor")
    marked = ed.inject("Object.modify", times=None, result=True)
    K._apply_camera(shot, {"fov": 20.0})
    K._apply_camera(view, {"sw": 20.0})
    assert marked.hits == 1                     # a cine camera always, a plain one when it changes
    before = ed.state()
    for camera, bad in ((shot, {"sw": 30.0, "focal": "50"}), (shot, {"sw": 30.0, "sh": math.nan}),
                        (shot, None), (view, {"fov": math.inf}), (view, {"fov": 1e39}),
                        (view, {"focal": 50.0, "sw": []}), (view, {"focal": 0})):
        with pytest.raises((TypeError, RuntimeError, ZeroDivisionError)):
            K._apply_camera(camera, bad)
    assert ed.state() == before


@pytest.fixture
def expose(ed, connect, tick):
    """expose(**fields): the peer sends "exposure"; gives the level's volumes afterwards."""
    def run(**fields):
        run.peer.send({"t": "exposure", **fields})
        tick()
        return [a for a in ed.actors() if isinstance(a, u.PostProcessVolume)]
    run.peer = connect()
    return run


def test_exposure_volume_is_made_once_and_undone(ed, K, expose):
    other = ed.spawn("PostProcessVolume", label="Fog", tags=("fog",))
    before, history = ed.state(), list(ed.history)
    assert expose(on=False) == expose() == [other] and K._expo_volume(False) is None
    assert (ed.state(), ed.history, ed.redraws) == (before, history, 0)
    volume = expose(on=True)[1]
    settings = volume.settings
    assert settings.auto_exposure_bias == pytest.approx(-9.41574176829009) == -K.EXPO_OFFSET
    assert settings.auto_exposure_method is u.AutoExposureMethod.AEM_MANUAL
    assert not settings.auto_exposure_apply_physical_camera_exposure
    for name in ("method", "apply_physical_camera_exposure", "bias"):
        assert settings.get_editor_property("override_auto_exposure_" + name)
    assert (volume.get_actor_label(), str(volume.get_folder_path()), K._tags_of(volume)) == (
        "Kestrix Exposure (Blender 1:1)", "Kestrix", [K.EXPO_TAG])
    assert (volume.unbound, volume.priority, volume.enabled, ed.redraws) == (True, 1000.0, True, 1)
    assert expose(on=True, comp=0) == expose(on=0) == [other, volume] and ed.redraws == 3
    assert volume.settings.auto_exposure_bias == 0.0 and not volume.enabled
    assert ed.history == history + ["Verrin: exposure"] * 3
    ed.undo()
    ed.undo()
    assert volume.enabled and volume.settings == settings
    ed.undo()
    assert ed.state() == before
    assert expose(on=True, comp=None)[1].settings == settings
    copy = ed.duplicate(volume := K._expo_volume(False))    # the first one counts
    expose(on=False)
    assert (volume.enabled, copy.enabled) == (False, True)


def test_exposure_failures_leave_nothing_behind(ed, K, expose):
    lamp = ed.spawn("PointLight")
    ed.select(lamp)

    def refused(error, comp=1.0):
        before, redraws, history = ed.state(), ed.redraws, ed.history
        expose(on=True, comp=comp)
        assert (ed.state(), ed.redraws, ed.history) == (before, redraws, history)
        assert ed.selection() == [lamp]
        assert error in expose.peer.wait("error")["msg"] and K._S.pop("last_error")
    for comp in ("x", [], math.nan):
        refused("exposure: comp: a ", comp)
    ed.inject("EditorActorSubsystem.spawn_actor_from_class", result=None)
    refused("exposure: could not add the exposure volume")
    ed.inject("Object.set_editor_property", when=lambda obj, name, value: name == "priority")
    refused("exposure: injected")
    refused("auto_exposure_bias: the value is beyond what the editor can hold", 1e308)
    ed.inject("Actor.set_folder_path")          # a folder is a nicety
    volume, = expose(on=True, comp=1.0)
    ed.inject("PostProcessSettings.set_editor_property",
              when=lambda settings, name, value: name == "auto_exposure_bias")
    refused("exposure: injected", 2.0)
    ed.inject("Object.set_editor_property", when=lambda obj, name, value: name == "enabled")
    refused("exposure: injected", 2.0)
    assert ed.selection() == [lamp]
    assert expose(on=True, comp=3.0) == [volume]
    ed.undo()                                   # of the last one alone: each step was closed
    assert volume.settings.auto_exposure_bias == 1.0
