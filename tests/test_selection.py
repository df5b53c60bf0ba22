"""Selecting and framing from Blender, showing the editor's selection there, Blender's question."""
import os

import pytest

from sim.windows import Desktop


@pytest.fixture
def two(ed):
    return [ed.spawn("StaticMeshActor", label, mesh="/Engine/BasicShapes/Cube") for label in "AB"]


def test_a_selection_from_blender_replaces_the_old_one_and_does_not_echo(ed, K, connect, tick, two):
    ids = [actor.get_path_name() for actor in two]
    peer = connect()
    peer.send({"t": "sel_mode", "on": True})
    ed.select(two[0])
    tick(0.1)
    assert [m["ids"] for m in peer.take()] == [[ids[0]]]
    ed.inject("EditorActorSubsystem.set_selected_level_actors")
    for bad in (ids, ids[1]):                       # the editor refuses; no list
        peer.send({"t": "select", "ids": bad})
        tick(0.1)
        assert peer.take()[-1]["msg"].startswith("select: ") and K._S.pop("last_error")
        assert ed.selection() == two[:1] and K._S["sel_last"] == ids[:1]
    view = ed.panes[0].location.to_tuple()
    for wanted, selected in (([ids[1], "/Game/No.No:Such", ids[0], ids[1], None], two[::-1]),
                             (["/Game/No.No:Such"], []), (ids, two), (None, [])):
        peer.send({"t": "select", "ids": wanted, "frame": not selected})
        tick(0.1)
        assert ed.selection() == selected and peer.take() == []
    assert ed.panes[0].location.to_tuple() == view
    ed.select(two[1])
    tick(0.1)
    assert [m["ids"] for m in peer.take()] == [[ids[1]]]


def test_framing_backs_away_until_everything_is_in_view(ed, K, connect, tick):
    side = 100 / 3 ** 0.5           # of a box whose corners are 100 away from its centre
    mesh = ed.make_mesh("/Game/Box", bounds=((-side,) * 3, (side,) * 3))
    rock, twin = (ed.spawn("StaticMeshActor", location=(500, 300, z), mesh=mesh) for z in (0, 2000))
    pane = ed.panes[0]

    def distance(*actors, fov=90.0, z=0):
        ed.move_view((7, 7, 7), (-30, 40, 0), fov)
        redraws = ed.redraws
        K._frame_actors(list(actors))
        assert ed.redraws == redraws + 1
        forward = pane.rotation.get_forward_vector().to_tuple()
        away = [c - p for c, p in zip((500, 300, z), pane.location.to_tuple())]
        d = sum(a * f for a, f in zip(away, forward))
        assert away == pytest.approx([d * f for f in forward], abs=1e-6)  # looks at the centre
        return pytest.approx(d, abs=1e-3)

    peer = connect()
    peer.send({"t": "select", "ids": [rock.get_path_name()], "frame": True})
    tick()
    assert pane.location.x == pytest.approx(500 - 155.563, abs=1e-3)
    assert distance(rock, fov=60.0) == 220
    assert distance(rock, fov=170.0) == distance(rock, fov=150.0) == 113.881
    assert distance(rock, fov=5.0) == distance(rock, fov=10.0) == 1262.108
    assert distance(rock, twin, fov=60.0, z=1000) == 2.2 * (2 * side**2 + (1000 + side)**2) ** 0.5
    speck = ed.spawn("StaticMeshActor", location=(500, 300, 0), mesh=mesh, scale=(.1, .1, .1))
    assert distance(speck, fov=60.0) == 110                 # as if its radius were 50

    ed.inject("Actor.get_actor_bounds", times=None, when=lambda actor, *_: actor is twin)
    assert distance(rock, twin, fov=60.0) == 220            # as far as bounds can be had
    for no_angle in ({}, {"result": 0.0}, {"result": None}):
        ed.inject("LevelEditorSubsystem.get_level_viewport_fov", **no_angle)
        assert distance(rock, fov=60.0) == 155.563
    before = pane.location.to_tuple()
    K._frame_actors([twin])
    ed.inject("UnrealEditorSubsystem.get_level_viewport_camera_info", result=None)
    K._frame_actors([rock])
    assert pane.location.to_tuple() == before


def test_showing_the_selection_in_blender(ed, K, connect, tick, two):
    peer = connect(pid=4321)
    land = ed.spawn("Landscape", landscape_guid="g")
    K._remember(land.get_path_name(), land, {})
    pieces = [ed.spawn("LandscapeStreamingProxy", landscape_guid="g") for _ in range(2)]
    unlinked = [ed.spawn("LandscapeStreamingProxy", landscape_guid="other"), ed.spawn("SkyLight")]
    desktop = Desktop()
    editor = desktop.add(os.getpid(), (0, 0, 800, 600))

    def shown(*actors):
        ed.select(*actors)
        K.show_in_blender()             # without waiting for a tick
        return [m["ids"] for m in peer.take()]

    with desktop.installed():
        assert shown(two[1], *unlinked, *pieces, two[0]) == [
            [a.get_path_name() for a in (two[1], land, two[0])]]
        assert desktop.granted == {4321}
        desktop.foreground, editor.minimised = desktop.add(4321, (0, 0, 800, 600)), True
        desktop.granted.add(os.getpid())
        for focus in (False, True):     # and back
            peer.send({"t": "select", "focus": focus})
            tick()
            assert (desktop.foreground is editor, editor.minimised) == (focus, not focus)
    ed.inject("LandscapeProxy.get_landscape_actor", times=None)
    assert shown(*pieces, two[0]) == [[two[0].get_path_name()]]
    ed.clear_log()
    assert shown() == shown(*unlinked) == []
    ed.inject("EditorActorSubsystem.get_selected_level_actors")
    assert shown(*two) == []
    K._S["greeted"] = False             # a new peer, which may not know the message
    assert shown(*two) == []
    K._S.update(greeted=True, client_ver=5)
    assert shown(*two) == []
    K._S["conn"].close()
    assert shown(*two) == []
    assert [text for level, text in ed.log if level == "warning"] == [
        *["[Verrin] Show in Blender: select actors that are linked to Blender first"] * 2,
        "[Verrin] Show in Blender: injected",
        *["[Verrin] Show in Blender needs the Blender add-on 1.9.2 or later"] * 2,
        "[Verrin] Show in Blender: Blender isn't connected"]


def test_what_blender_asks_is_logged_once_and_shown_on_the_toolbar(ed, K, connect, tick):
    peer = connect()
    choose, linked = "Blender: choose in Blender", "Blender: linked"
    for what, logged, label in (
            ("sync", ["which side wins"], choose), ("sync", [], choose),
            ("level", ["which level to work on"], choose), (None, [], linked),
            ("colour", ["colour"], choose), ("", [], linked)):
        ed.clear_log()
        peer.send({"t": "asking", "what": what})
        tick()
        assert [text for _, text in ed.log] == [
            f"[Verrin] Blender is waiting for your choice ({what}) - answer it in Blender's Kestrix "
            "panel" for what in logged]
        assert K._S["tb_label"] == label and K._S["asking"] == (what or None)
    peer.send({"t": "asking", "what": 5})
    tick()
    assert peer.take()[-1]["msg"].startswith("asking: ") and K._S.pop("last_error")
    ed.play()
    tick(0.5)
    peer.send({"t": "asking", "what": "sync"})      # is heard during Play
    tick()
    assert K._S["asking"] == "sync"
    peer.close()
    tick(0.1)
    assert K._S["asking"] is None
