"""Edits from the peer: the level follows, the history gets one step each, nothing echoes, and where
the editor makes something else of an edit the peer is told."""
import pytest
import unreal

CHAIR, TABLE = "/Game/Props/Chair.Chair", "/Game/Props/Table.Table"
XF = [10.0, 20.0, 30.0, 0.0, 1.0, 0.0, -1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 1.0, 2.0, 1.0]
ODD = [1.0, 2.0, 3.0, 0.8, 0.36, 0.48, 0.0, 0.0, 0.0, -0.6, 0.48, 0.64, 1.0, 1.0, 1.0]
CHANGES = {"xf", "add", "remove", "rename", "tags", "set_mesh", "mats", "props", "group", "sel"}


def at(x, y=0.0, z=0.0):
    return [float(x), float(y), float(z)] + [1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1]


def lowered(actor, transform):
    transform = transform.copy()
    where = transform.translation
    transform.translation = unreal.Vector(where.x, where.y, min(where.z, 2.5))
    return transform


def location(actor):
    return list(actor.get_actor_location().to_tuple())


def of_type(kind, messages):
    return [m for m in messages if m["t"] == kind]


@pytest.fixture
def level(ed):
    """Some actors, the stool selected; gives the id of a label."""
    mesh = ed.make_mesh("/Game/Props/Chair")
    ed.make_mesh("/Game/Props/Table")
    ed.spawn("StaticMeshActor", "Chair", mesh=mesh, folder="Props", tags=["old"])
    ed.spawn("StaticMeshActor", "Stool", mesh=mesh)
    ed.spawn("SpotLight", "Lamp", intensity_units=unreal.LightUnits.CANDELAS)
    ed.spawn("CineCameraActor", "Shot")
    ed.spawn("TextRenderActor", "Sign", text="Exit")
    ed.spawn("Landscape", "Land")
    ed.spawn("InstancedFoliageActor", "Grass")
    ed.select(ed.actor("Stool"))
    ed.clear_history()
    return lambda label: ed.actor(label).get_path_name()


@pytest.fixture
def peer(level, connect, tick):
    peer = connect()
    peer.send({"t": "sel_mode", "on": True})
    tick(0.1)
    peer.take()
    return peer


@pytest.fixture
def edit(ed, K, peer, tick):
    """edit(*messages): send them and let them be handled; what comes back other than echoes, which
    there must not be: a few scan passes bring no change."""
    def run(*messages):
        for message in messages:
            peer.send(message)
        tick()
        answers = peer.take()
        tick(3.0)
        assert [m for m in peer.take() if m["t"] in CHANGES] == []
        return answers
    return run


def error(K, answers):
    """The text of the one "error" among the answers."""
    K._S.pop("last_error")
    (answer,) = of_type("error", answers)
    return answer["msg"]


def same_after_undo_and_redo(ed, before):
    after = ed.state()
    assert after != before
    ed.undo()
    assert ed.state() == before
    ed.redo()
    assert ed.state() == after


def test_a_drag_is_one_undo_step_from_its_start_to_its_end(ed, K, peer, level, edit, tick):
    chair = ed.actor("Chair")
    for x in range(1, 6):
        peer.send({"t": "xf", "items": [[level("Chair"), at(x)]]})
        tick(0.3)
        assert location(chair) == [x, 0, 0] and ed.history == [] and ed.redraws == x
    # Whatever else happens to the actor meanwhile, the drag goes on from where it began.
    ed.alter(transform=lowered)
    assert edit({"t": "rename", "id": level("Chair"), "label": "Seat"},
                {"t": "xf", "items": [[level("Chair"), ODD]]}) == []
    assert ed.history == ["Verrin: rename", "Verrin: move Seat"] and K._S["touched"] == {}
    # The mirror holds what the editor made of it: the Y axis, which the message had wrong, too.
    known = K._S["known"][level("Seat")]["info"]["xf"]
    assert known == K._xf_of(chair) and known[2] == 2.5 and known[6:9] != ODD[6:9]
    ed.undo()
    assert location(chair) == [0, 0, 0]
    ed.redo()
    assert location(chair) == [1, 2, 2.5]


def test_actors_dragged_together_share_a_step(ed, K, peer, level, edit, tick):
    sign = level("Sign")
    answers = edit(
        {"t": "xf", "items": [[level("Chair"), at(1)], [level("Stool"), at(2)], ["/No.Where", XF]]},
        {"t": "xf", "items": [[sign, at(3)]]})
    assert {"t": "unknown", "ids": ["/No.Where"]} in answers
    assert ed.history == ["Verrin: move 3 actors"]
    peer.send({"t": "xf", "items": [[level("Chair"), at(5)], [sign, at(6)]]})
    tick(0.2)
    peer.send({"t": "xf", "items": [[level("Chair"), at(6)]]})  # its drag isn't over with the sign's
    tick(0.2)
    assert ed.history[-1] == "Verrin: move Sign" and level("Chair") in K._S["touched"]
    peer.send({"t": "xf", "items": [[sign, at(7)]]})
    tick()
    ed.delete(ed.actor("Sign"))
    peer.send({"t": "drag_end"})
    tick()
    assert ed.history[-1] == "Verrin: move Chair"
    ed.undo()
    assert location(ed.actor("Chair")) == [1, 0, 0]


@pytest.mark.parametrize("order", [(0, 1, 2), (2, 1, 0), (1, 2, 0)])
def test_attached_actors_end_where_they_were_put_and_undo_to_where_all_stood(
        ed, K, peer, level, edit, tick, order):
    names = ("Chair", "Stool", "Lamp")          # each hangs on the one before
    actors = [ed.actor(name) for name in names]
    for i, actor in enumerate(actors):
        ed.move(actor, (50 * i, 0, 0))
        ed.attach(actor, actors[i - 1] if i else None)
    tick(3.0)
    peer.take()
    ed.clear_history()
    places = [[1000.0 + 7 * i, 9.0 * i, 0.0] for i in range(3)]
    moves = [[level(name), at(*place)] for name, place in zip(names, places)]
    edit({"t": "xf", "items": [moves[i] for i in order]})
    assert [location(a) for a in actors] == places and len(ed.history) == 1
    ed.undo()
    assert [location(a) for a in actors] == [[0, 0, 0], [50, 0, 0], [100, 0, 0]]
    ed.redo()
    assert [location(a) for a in actors] == places


def test_a_bad_move_costs_only_itself(ed, K, peer, level, edit):
    fixed = [ed.actor("Land"), ed.actor("Grass"), ed.actor("Stool")]
    stool = level("Stool")
    answers = edit({"t": "xf", "items": [
        [stool, [1, 2, 3]], [stool, at(float("nan"))], [stool, "abc"], "xy",
        [level("Land"), XF], [level("Grass"), XF], [level("Chair"), at(4)]]})
    assert error(K, answers).startswith("xf: ") and not of_type("unknown", answers)
    assert location(ed.actor("Chair")) == [4, 0, 0]
    assert [location(actor) for actor in fixed] == [[0, 0, 0]] * 3
    assert ed.history[-1] == "Verrin: move Chair"


def test_a_move_that_a_failed_tick_left_waiting_does_not_undo_a_newer_one(
        ed, K, peer, level, edit, tick):
    chair, stool = ed.actor("Chair"), ed.actor("Stool")
    ed.select(chair, stool)
    tick(0.1)
    peer.take()
    ed.move(chair, (1, 2, 3))
    ed.inject("Actor.get_actor_label", when=lambda actor: actor is stool)
    K._S["fast_t"] = 0.0                # the fast scan is due
    tick()
    assert "injected" in K._S.pop("last_error") and level("Chair") in K._S["xf_out"]
    assert edit({"t": "xf", "items": [[level("Chair"), at(9)]]}) == []
    assert location(chair) == [9, 0, 0]
    K._S["xf_out"][level("Lamp")] = at(5)
    assert edit({"t": "delete", "ids": [level("Lamp")]}) == []


def test_a_failing_step_leaves_the_drag_where_it_ended(ed, K, peer, level, tick):
    moves = [[level("Chair"), at(7)], [level("Stool"), at(8)]]
    peer.send({"t": "xf", "items": moves})
    tick()
    ed.inject("Actor.modify", when=lambda actor, *_: actor is ed.actor("Chair"))
    tick(1.0)
    assert "injected" in K._S.pop("last_error")
    assert location(ed.actor("Chair")) == [7, 0, 0] and location(ed.actor("Stool")) == [8, 0, 0]
    ed.undo()
    assert location(ed.actor("Stool")) == [0, 0, 0]  # the transaction closed, with the other's step
    peer.send({"t": "xf", "items": moves[:1]})
    tick()
    # The scanner reads labels too: only the settling's own read fails.
    ed.inject("Actor.get_actor_label", when=lambda actor: actor is ed.actor("Chair"), times=None)
    K._drag_settle(True)
    ed.heal()
    assert ed.history[-1] == "Verrin: move an actor"


@pytest.mark.parametrize("kind, fields, label", [
    ("mesh", {"asset": TABLE}, "New"), ("mesh", {"asset": CHAIR}, "New"),
    ("mesh", {"empty": True}, "New"),
    ("text", {"text": {"body": "Way out", "size": 40, "halign": "center"}}, "New"),
    ("light", {"light": {"type": "rect", "w": 40.0, "cd": 12.0}}, "New"),
    ("light", {"light": {"type": "laser"}}, "New"),
    ("camera", {"cam": {"focal": 50.0}}, "New"), ("camera", {}, "")])
def test_spawn_is_answered_placed_and_undone(ed, K, peer, edit, kind, fields, label):
    before, redraws = ed.state(), ed.redraws
    ed.alter(transform=lowered)
    message = {"t": "spawn", "tmp": 7, "kind": kind, "xf": XF, "label": label, "folder": "A/B"}
    answers = edit(message | {"tags": ["x", "", "y"]} | fields)
    assert answers[0] == {"t": "busy", "what": "adding an actor"}
    (spawned,) = of_type("spawned", answers)
    record = spawned["actor"]
    actor = unreal.find_object(None, record["id"])
    assert spawned["tmp"] == 7 and record["kind"] == kind and ed.redraws == redraws + 1
    assert record["xf"] == [10.0, 20.0, 2.5, *XF[3:]]
    assert record["folder"] == "A/B" and record["tags"] == ["x", "y"]
    assert record["label"] == actor.get_actor_label() and label in record["label"]
    for name, values in fields.items():
        if values == {"type": "laser"}:
            assert record["light"]["type"] == "point"
        elif isinstance(values, dict):
            assert values.items() <= record[name].items()
    if "asset" in fields:               # also of a mesh that the peer knows
        assert [m["t"] for m in answers].index("assets") < answers.index(spawned)
    assert ed.history == ["Verrin: add " + label] and ed.selection() == [ed.actor("Stool")]
    same_after_undo_and_redo(ed, before)


@pytest.mark.parametrize("change, says", [
    ({"xf": None}, "'xf'"), ({"xf": [1, 2]}, "15 numbers"),
    ({"asset": "/Game/Props/M_Mat.M_Mat"}, "not a static mesh: /Game/Props/M_Mat.M_Mat"),
    ({"asset": None}, "not a static mesh: "), ({"tags": "abc"}, "list"),
    ({"kind": "text", "text": {"size": "big"}}, "could not convert"),
    ({"kind": "light", "light": 3}, "object"), ({"kind": "skel", "file": "a.glb"}, "No such file"), ({"kind": "skel"}, "'file'")])
def test_a_spawn_that_cannot_be_is_answered_and_leaves_nothing(ed, K, peer, edit, change, says):
    before = ed.state()
    message = {"t": "spawn", "tmp": "t", "asset": TABLE, "xf": XF} | change
    answers = edit({k: v for k, v in message.items() if v is not None})
    (failed,) = of_type("spawn_failed", answers)
    assert failed["tmp"] == "t" and says in failed["msg"]
    assert answers[-1] == {"t": "busy", "what": None}
    assert ed.state() == before and ed.history == []


@pytest.mark.parametrize("operation", [
    "EditorActorSubsystem.spawn_actor_from_object", "Actor.set_actor_transform",
    "Actor.set_actor_label", "Actor.get_actor_label", "load_asset",
    "Paths.project_content_dir",  # behind the placement: the asset's entry needs it
    "ScopedEditorTransaction.__enter__"])
def test_a_spawn_that_fails_half_way_is_answered_and_taken_back(ed, K, peer, edit, operation):
    before, selected = ed.state(), ed.selection()
    fault = ed.inject(operation)
    message = {"t": "spawn", "asset": TABLE, "xf": XF, "label": "New"}
    assert [m["msg"] for m in of_type("spawn_failed", edit(message))] == ["injected"]
    assert fault.hits == 1
    ed.inject("EditorActorSubsystem.spawn_actor_from_object", result=None)
    assert [m["msg"] for m in of_type("spawn_failed", edit(message))] == ["spawn failed"]
    assert (ed.state(), ed.selection(), ed.history) == (before, selected, [])
    ed.heal()
    ed.inject("EditorActorSubsystem.get_selected_level_actors")
    ed.remove("ScopedEditorTransaction.cancel")
    assert [m["t"] for m in edit(message)][1:3] == ["assets", "spawned"]
    assert "spawn_failed" in [m["t"] for m in edit(message | {"tags": 5})]


def test_duplicates(ed, K, peer, level, edit):
    before, redraws = ed.state(), ed.redraws
    K._S["sent_assets"].clear()
    message = {"t": "dup", "tmp": 1, "src": level("Chair"), "xf": XF, "label": "Copy"}
    _, assets, spawned, _ = edit(message)
    assert [entry["path"] for entry in assets["items"]] == [CHAIR]
    record = spawned["actor"]
    assert record["folder"] == "Props" and record["tags"] == ["old"] and record["xf"] == XF
    assert record["label"] == "Copy" and record["asset"] == CHAIR
    assert ed.history == ["Verrin: duplicate Chair"] and ed.redraws == redraws + 1
    assert ed.selection() == [ed.actor("Stool")]
    same_after_undo_and_redo(ed, before)
    (spawned,) = of_type("spawned", edit(message | {"folder": "", "tags": []}))
    assert spawned["actor"]["folder"] == "" and "tags" not in spawned["actor"]

    count, history = len(ed.actors()), list(ed.history)
    gone = message | {"src": "/Game/Maps/Main.Main:PersistentLevel.Gone"}
    fixed = "foliage actors / landscapes aren't duplicated from Blender"
    ed.inject("EditorActorSubsystem.duplicate_actor", result=None)
    for bad, says in [
            (message | {"src": level("Land")}, fixed), (message | {"src": level("Grass")}, fixed),
            (gone, "source actor is gone"), (gone | {"asset": "", "empty": True}, "actor is gone"),
            (message | {"xf": []}, "15 numbers"), (message, "duplicate failed"),
            (message | {"tags": 5}, "list")]:
        (failed,) = of_type("spawn_failed", edit(bad))
        assert (failed["tmp"], says in failed["msg"]) == (1, True), failed
    assert (len(ed.actors()), ed.history) == (count, history)
    for good in ({"asset": TABLE}, {"kind": "light"}, {"kind": "mesh", "asset": CHAIR}):
        assert len(of_type("spawned", edit(gone | good))) == 1


@pytest.mark.parametrize("label, message, title", [
    ("Chair", {"t": "tags", "tags": ["a", "", "b"]}, "tags Chair"),
    ("Chair", {"t": "tags"}, "tags Chair"),
    ("Chair", {"t": "rename", "label": "Seat", "folder": ""}, "rename"),
    ("Chair", {"t": "rename", "folder": "A/B"}, "rename"),
    ("Chair", {"t": "set_mesh", "asset": TABLE}, "set mesh"),
    ("Chair", {"t": "set_mesh"}, "set mesh"),
    ("Lamp", {"t": "props", "light": {"cd": 77.0, "color": [1, 0, 0]}}, "Lamp settings"),
    ("Shot", {"t": "props", "cam": {"focal": 85.0}}, "Shot settings"),
    ("Sign", {"t": "props", "text": {"body": ""}, "light": None}, "Sign settings")])
def test_an_edit_is_one_undo_step_and_does_not_come_back(
        ed, K, peer, level, edit, tick, label, message, title):
    before, redraws, aid = ed.state(), ed.redraws, level(label)
    answers = edit(message | {"id": aid})
    # A mesh that the peer has not heard of comes with its entry.
    assert [m["t"] for m in answers if m["t"] != "busy"] == (
        ["props"] if message["t"] == "props" else ["assets"] if message.get("asset") else [])
    assert ed.history == ["Verrin: " + title]
    assert ed.redraws - redraws == (message["t"] in ("props", "set_mesh"))
    same_after_undo_and_redo(ed, before)
    # The mirror at the other end, told nothing but answers, holds what a new snapshot gives.
    mine = {k: v for k, v in peer.actors[aid].items() if k not in ("sig", "phys")}
    peer.send({"t": "resync"})
    tick()
    peer.pump()
    if message["t"] != "set_mesh":
        assert {k: peer.actors[aid].get(k) for k in mine} == mine


def test_where_the_editor_makes_something_else_of_an_edit_the_peer_is_told(
        ed, K, level, edit, tick):
    chair = {"id": level("Chair")}
    rename = {"t": "rename", **chair, "label": "seat", "folder": "X"}
    ed.alter(label=lambda actor, label: label.upper(), folder=lambda actor, folder: "Fixed")
    truth = rename | {"label": "SEAT", "folder": "Fixed"}
    assert edit(rename) == edit({"t": "rename", **chair, "folder": "Y"}) == [truth]
    assert edit(truth) == []
    (spawned,) = of_type("spawned", edit({"t": "spawn", "asset": CHAIR, "xf": ODD, "label": "new"}))
    assert (spawned["actor"]["label"], spawned["actor"]["folder"]) == ("NEW", "Fixed")
    ed.alter(label=None, folder=None)
    # Refused without a word, and with an error.
    ed.inject("Actor.set_folder_path")
    assert edit(rename) == [rename | {"folder": "Fixed"}]
    ed.inject("Actor.set_actor_label")
    answers = edit(rename | {"label": "stool"})
    assert answers[0] == rename | {"folder": "Fixed"} and error(K, answers) == "rename: injected"
    # A folder that the user has changed meanwhile is told too.
    ed.rename(ed.actor("seat"), folder="Moved")
    assert edit({"t": "rename", **chair, "label": "a"}) == [
        {"t": "rename", **chair, "label": "a", "folder": "Moved"}]

    assert edit({"t": "tags", **chair, "tags": ["None", "a"]}) == [
        {"t": "tags", **chair, "tags": ["a"]}]
    ed.inject("StaticMeshComponent.set_static_mesh", result=False)
    answers = edit({"t": "set_mesh", **chair, "asset": TABLE})
    assert [m["t"] for m in answers] == ["busy", "assets", "set_mesh", "busy"]
    assert answers[2]["asset"] == CHAIR


def test_a_mesh_that_could_not_be_measured_is_tried_again(ed, K, level, edit):
    ed.inject("StaticMesh.get_bounding_box", times=2)
    keys = []
    for asset in (TABLE, "", TABLE, "", TABLE, "", TABLE):
        answers = edit({"t": "set_mesh", "id": level("Chair"), "asset": asset})
        keys += [m["items"][0]["key"] == "missing" for m in of_type("assets", answers)]
    assert keys == [True, True, False]
    assert [text for kind, text in ed.log if kind == "warning"] == [
        f"[Verrin] could not measure {TABLE}: injected"]


def test_settings_are_echoed_as_the_editor_took_them(ed, K, peer, level, edit):
    (echo,) = edit({"t": "props", "id": level("Shot"), "light": {"cd": 5}, "text": {"size": 3}})
    assert echo["echo"] is True and echo["light"] is echo["text"] is None
    assert echo["cam"] == peer.actors[level("Shot")]["cam"]


def test_what_changes_nothing_opens_no_transaction(ed, K, peer, level, edit):
    before = ed.state()
    assert edit({"t": "tags", "id": level("Chair"), "tags": ["old", ""]}) == []
    for kind in ("tags", "rename", "props", "set_mesh"):
        nobody = {"t": kind, "id": "/No.Body", "tags": ["a"], "label": "b", "light": {}}
        assert [m for m in edit(nobody) if m["t"] != "busy"] == []
        assert error(K, edit({"t": kind})) == kind + ": 'id'"
    for asset in ("/Game/Props/M_Mat.M_Mat", "/No/Such.Mesh"):
        edit({"t": "set_mesh", "id": level("Chair"), "asset": asset})
    assert ed.state() == before and ed.history == []


def test_deleting(ed, K, peer, level, edit):
    before, redraws, fixed = ed.state(), ed.redraws, [ed.actor("Land"), ed.actor("Grass")]
    ids = [level("Chair"), "/No.Body", level("Land"), level("Lamp"), level("Grass")]
    assert edit({"t": "delete", "ids": ids}) == []
    assert ed.history == ["Verrin: delete 2"] and ed.redraws == redraws + 1
    assert ed.actor("Chair") is ed.actor("Lamp") is None
    assert fixed == [ed.actor("Land"), ed.actor("Grass")]
    assert [t.split(" ", 5)[5] for _, t in ed.log if "ignored" in t] == [
        f"{name} - ignored (landscapes and foliage actors are never deleted from Blender)"
        for name in ("Land", "Grass")]
    same_after_undo_and_redo(ed, before)
    edit({"t": "delete", "ids": ["/No.Body"]}, {"t": "delete"})
    assert ed.history[-1] == "Verrin: delete 2"
    edit({"t": "delete", "ids": [ed.spawn("PointLight", "Bulb").get_path_name()] * 2})
    assert ed.history[-1] == "Verrin: delete 1"
    before = ed.state()
    answers = edit({"t": "delete", "ids": [level("Shot"), 5]})
    assert error(K, answers) == "delete: an actor's id is a text" and ed.state() == before


@pytest.mark.parametrize("refusal", [{"result": False}, {}])
def test_an_actor_that_the_editor_keeps_comes_back_to_the_peer(ed, K, peer, level, edit, refusal):
    sign = ed.actor("Sign")
    ed.inject("EditorActorSubsystem.destroy_actors", **refusal)
    ed.inject("EditorActorSubsystem.destroy_actor", when=lambda eas, actor: actor is sign, **refusal)
    answers = edit({"t": "delete", "ids": [level("Sign"), level("Stool")]})
    assert [m["actor"]["id"] for m in of_type("add", answers)] == [level("Sign")]
    assert ed.actor("Stool") is None and level("Sign") in K._S["known"]
    said = [text for _, text in ed.log]
    assert "[Verrin] deleted 1 actor(s) from Blender" in said
    assert "[Verrin] Unreal has kept 1 actor(s)" in said
    if not refusal:
        assert error(K, answers) == "delete: injected"


def test_an_edit_that_raises_closes_its_transaction_and_is_told(ed, K, level, edit):
    ed.inject("Actor.modify")
    answers = edit({"t": "tags", "id": level("Chair"), "tags": ["new"]})
    assert error(K, answers) == "tags: injected" and answers[0]["tags"] == ["old"]
    ed.rename(ed.actor("Land"), label="After")  # would be swallowed by an open transaction
    assert ed.history == ["Rename Actors"]


def test_an_actor_is_classified_as_it_is_when_placed(ed, K):
    lamp = ed.spawn("PointLight")
    K._S["kinds"] = {lamp.get_path_name(): "mesh"}  # of another that had the name
    assert K._place(lamp, XF, "", None)[1]["kind"] == "light"
