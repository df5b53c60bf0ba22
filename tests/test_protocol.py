"""docs/protocol.md against a lively session: what is sent and read is in it, and nothing else."""
import json
import re

import numpy as np
import pytest
import unreal as u
from conftest import ROOT

DOC = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")
FILES = ROOT / "tests" / "data" / "glb"
XF = [0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1]
OUT, IN = "editor to peer", "peer to editor"
JSON = {"string": str, "boolean": bool, "integer": int, "number": (int, float), "object": dict,
        "null": type(None), "any": object, "xf": list, "pair": list, "row": list,
        "override row": list}
VARIANT = {"actor record": lambda r: r["kind"], "light record": lambda r: r.get("type"),
           "camera record": lambda r: "plain" if "fov" in r else "cine"}


def tables():
    """name of a record, or (way, type) of a message -> its fields -> their rows by column."""
    found = {}
    for head, part in re.findall(r"(?ms)^### (.+?)\n(.*?)(?=^##|\Z)", DOC):
        record, name, way = re.fullmatch(r"The (.+)|`(\w+)` \((.+)\)", head).groups()
        lines = re.findall(r"(?m)^\| (.+) \|$", part)
        columns, *rows = [[cell.strip() for cell in line.split(" | ")] for line in lines] or [[]]
        fields = {field: dict(zip(columns, row, strict=True))
                  for row in rows for field in re.findall(r"`(\w+)`", row[0])}
        for key in [record] if record else [(w, name) for w in (OUT, IN) if way in (w, "both ways")]:
            assert key not in found
            found[key] = {field: row for field, row in fields.items()
                          if key[0] != IN or not row["there"].startswith("only from the editor")}
    return found


TABLES = tables()
NAMES = {name for file in (ROOT / "src").rglob("*.cpp")
         for name in re.findall(r'"(\w+)"', file.read_text(encoding="utf-8"))}
RECORDS = [name for name in TABLES if isinstance(name, str)]


class Checker:
    """Holds values against the tables. `seen`: all that was there, as (table, kind, field)."""

    def __init__(self, complete):
        self.seen = set()
        self.complete = complete        # what is always there may not be missing, in records too

    def fields(self, table, given, kind="all", complete=True):
        rows = TABLES[table]
        here = {f: row for f, row in rows.items()
                if row.get("of", "all") == "all" or kind is None or f"`{kind}`" in row["of"]}
        assert given.keys() <= here.keys(), f"{table}, {kind}: more than the page has"
        for field, row in here.items():
            always = ("always", "always from the editor" if table[0] == OUT else "")
            assert field in given or not complete or row["there"] not in always, f"{table}: no {field}"
        for field, value in given.items():
            self.seen.add((table, kind if "`" in rows[field].get("of", "") else "all", field))
            words = rows[field]["type"].split(" or ")
            assert any(self.fits(value, word) for word in words), f"{table}.{field}: {value}"

    def fits(self, value, word):
        if word.startswith("array of "):
            single = re.sub(r"ies$", "y", word[9:]).removesuffix("s")
            return isinstance(value, list) and all(self.fits(v, single) for v in value)
        if word not in RECORDS:
            return isinstance(value, JSON[word]) and (word == "boolean" or not isinstance(value, bool)
                                                      or word == "any")
        if isinstance(value, dict):
            self.fields(word, value, VARIANT.get(word, lambda r: "all")(value), self.complete)
        return isinstance(value, dict)

    def message(self, way, msg):
        assert (way, msg["t"]) in TABLES, f"{msg['t']} ({way}) isn't on the page"
        self.fields((way, msg["t"]), {k: v for k, v in msg.items() if k != "t"})

    def lacking(self):
        """What the page has of the editor's messages and of records, and never came."""
        page = {(table, kind, field) for table, fields in TABLES.items() if table[0] != IN
                for field, row in fields.items()
                for kind in re.findall(r"`(\w+)`", row.get("of", "")) or ["all"]}
        return page - self.seen


class Session:
    """A level with an actor of each kind, a peer, and all that went between them."""

    def __init__(self, ed, K, connect, tick, monkeypatch):
        self.ed, self.K, self.tick = ed, K, tick
        self.sent, self.heard, self.read = [], [], {}
        for kind, handler in list(K.HANDLERS.items()):
            monkeypatch.setitem(K.HANDLERS, kind, self.spy(kind, handler))
        self.wood = ed.make_material("/Game/M_Wood")
        self.crate = ed.make_mesh("/Game/Props/Crate")
        self.box = ed.make_mesh("/Game/Props/Box", slots=("Base", "Trim"))
        ed.spawn("StaticMeshActor", "Crate", (120, 40, 0), "Props", ("heavy",), self.crate)
        for label, kind in (("Point", "PointLight"), ("Spot", "SpotLight"), ("Rect", "RectLight"),
                            ("Sun", "DirectionalLight"), ("Shot", "CineCameraActor"),
                            ("View", "CameraActor"), ("Sign", "TextRenderActor")):
            ed.spawn(kind, label)
        ed.spawn_blueprint("BP_House_C", "House", [(self.crate, (0, 0, 0))])
        ed.spawn_landscape("Land", np.full((64, 64), 32768), 63)
        self.connect = connect
        self.peer = connect()
        self.peer.listener = self.heard.append

    def spy(self, kind, handler):
        """The handler, with a message that notes which of its fields are looked up. It has all
        the fields that the module has names for, so that one that isn't on the page is noticed."""
        read = self.read.setdefault(kind, set())

        class Key(str):
            __hash__ = str.__hash__

            def __eq__(self, other):
                if str.__eq__(self, other):
                    read.add(str(self))
                return str.__eq__(self, other)

        return lambda m: handler({Key(k): v for k, v in (dict.fromkeys(NAMES) | m).items()})

    def say(self, message, seconds=0.0, /, **fields):
        """Sends a message; what comes within these seconds, by type."""
        self.sent.append({"t": message, **fields})
        self.peer.send(self.sent[-1])
        before = len(self.heard)
        self.tick(seconds)
        self.tick()
        self.peer.pump()
        return {m["t"]: m for m in self.heard[before:]}

    def id(self, label):
        return self.ed.actor(label).get_path_name()


@pytest.fixture
def session(ed, K, connect, tick, monkeypatch):
    return Session(ed, K, connect, tick, monkeypatch)


def greet(s):
    s.say("hello", client="test", version=16, pid=1, have=["/Game/Maps/Main.Main:PersistentLevel.Gone"],
          takeover=False, scope={"kinds": {"grass": True}, "folders": "", "exclude": "No",
                                 "radius_m": 0, "grass_max": 5})
    s.say("spawn", xf=XF)      # before "synced"
    s.say("synced")
    s.say("scope", kinds={"light": True}, folders="", exclude="", radius_m=900.5, grass_max=7)
    s.say("scope")
    s.say("resync", have=[])
    other = s.connect(synced=False)
    other.pump()
    s.heard.append({"t": "refused", "msg": other.refused})


def edit_in_the_editor(s):
    ed, tick = s.ed, s.tick
    s.say("sel_mode", on=True)
    ed.select(ed.actor("Crate"))
    ed.move(ed.actor("Crate"), (1, 2, 3))
    tick(0.1)
    ed.set(ed.actor("Crate"), static_mesh=s.box, override_materials=[s.wood])
    ed.rename(ed.actor("Crate"), "Box", "Other")
    ed.retag(ed.actor("Box"), "a", "b")
    for label, change in (("Sun", {"intensity": 3.0}), ("Sign", {"world_size": 9.0}),
                          ("View", {"field_of_view": 60.0})):
        ed.set(ed.actor(label), **change)
    ed.spawn("StaticMeshActor", "Empty")
    tick(5.0)
    ed.delete(ed.actor("Empty"))
    tick(2.0)
    ed.select(ed.actor("Box"))
    s.K.show_in_blender()
    ed.landscape_mode()
    s.say("brush_get")
    s.say("brush_set", strength=0.5, size=9, falloff=0.1, target=1, use_target=True, without_moving=False)
    s.say("cam_mode", send=True)
    s.say("cam", c=[0, 0, 500, 1, 0, 0, 0, 0, 1, 80])
    s.say("cam_get")


def edit_at_the_peer(s):
    box = s.id("Box")
    s.say("xf", items=[[box, XF], ["/No.Body", XF]])
    s.say("drag_end")
    s.say("rename", id=box, label="Crate", folder="")
    s.say("tags", id=box, tags=["x"])
    s.say("set_mesh", id=box, asset=s.crate.get_path_name())
    for label, settings in (("Point", {"light": {"cd": 5, "color": [1, 0.5, 0]}}),
                            ("Shot", {"cam": {"focal": 50}}), ("Sign", {"text": {"body": "Hi"}})):
        s.say("props", id=s.id(label), **settings)
    s.say("phys", id=box, phys={"sim": True, "mass": 3.5})
    place = {"xf": XF, "tmp": 1, "label": "New", "folder": "F", "tags": ["t"]}
    s.say("spawn", **place, kind="light", light={"type": "spot"})
    s.say("spawn", **place, kind="camera", cam={"focal": 20.0})
    s.say("spawn", **place, kind="text", text={"body": "Yes"})
    s.say("spawn", **place, asset=s.box.get_path_name())
    s.say("spawn", **place, empty=True)
    s.say("spawn", **place, file=str(FILES / "chair.glb"), name="Seat", slot_mats={}, coll=False)
    made = s.say("spawn", **place, kind="skel", file=str(FILES / "rig.glb"), name="Hero", anim="walk")
    s.say("dup", src=box, **place)
    gone = {"src": "/No.Body", **place}
    s.say("dup", **gone)
    for kind in ("light", "camera", "text", "skel"):
        s.say("dup", **gone, kind=kind, file=str(FILES / "rig.glb"))
    s.say("dup", **gone, asset=s.box.get_path_name())
    s.say("dup", **gone, file=str(FILES / "chair.glb"))
    s.say("rig", id=made["spawned"]["actor"]["id"], file=str(FILES / "rig.glb"), name="Hero", asset="", anim="")
    s.say("rig", id="", file="/no/file")
    s.say("delete", ids=[s.id("House")])
    s.say("select", ids=[box], frame=True, focus=True)
    s.say("asking", what="sync")
    s.say("exposure", on=True, comp=1.5)
    s.say("resync", have=["/Game/Maps/Main.Main:PersistentLevel.Gone"])


def exchange_files(s):
    box, path = s.id("Crate"), s.box.get_path_name()
    chair = s.say("mesh", file=str(FILES / "chair.glb"), name="Chair", ids=[box], req=7,
                  mat_src=path, slot_mats={"Oak": path}, coll={"shape": "BOX"})["mesh_done"]["asset"]
    s.say("coll", asset=chair, coll={"shape": "HULL", "sac": True})
    s.say("mesh", file=str(FILES / "chair.glb"), asset=path, overwrite=True)
    s.say("mesh", file="/no/file")
    s.say("need_mesh", 1.0, assets=[path, "/Game/No.No"])
    s.say("need_mat", 1.0, paths=[s.wood.get_path_name(), "/Game/No.No"])
    s.say("opts", ue_format="FBX", ue_textures=True)
    s.say("need_mesh", 1.0, assets=[path], full=True)
    s.say("opts", ue_format="GLB")


def make_materials(s):
    file = str(FILES.parent / "materials" / "frosted" / "material.gltf")
    done = s.say("mat", file=file, name="Ice", key="Ice", req=1, cleanup=True, disp={"file": "x"}, graph=None)["mat_done"]
    path = done["path"]
    s.say("mat", graph={})
    s.say("mat_params", path=path, params={"RoughnessFactor": 0.5})
    s.say("tex", path=done["textures"][0][1], file=str(FILES / "no.png"))
    s.say("mat_known", items=[["Ice", path]])
    s.say("assign", id=s.id("Crate"), slots=[[0, "", path]], asset_level=True, ov_slots=[0])
    s.say("assign", asset=s.crate.get_path_name(), slots=[])
    s.say("mat_drop", name="Ice")


def play_and_open_levels(s):
    s.ed.play()
    s.say("open_level", 0.5, path="/Game/Maps/Other")
    s.ed.stop_play()
    s.tick(0.5)
    s.say("need_levels")
    s.say("open_level", path="/Game/Maps/Other")
    s.ed.inject("LevelEditorSubsystem.load_level", result=False)
    s.say("open_level", path="/Game/Maps/Other", discard=True)
    s.say("open_level", path="/Game/Maps/Main", save=True)
    s.tick(3.0)


def test_what_goes_over_the_wire_is_on_the_page(session, K):
    handled = {kind for kind in K.HANDLERS if hasattr(K, f"_h_{kind}")}
    assert {table[1] for table in TABLES if table[0] == IN} == handled
    assert f"Version {K.VERSION}." in DOC
    play, busy = DOC.split("**Play.**")[1].split("**Errors.**")[0].split("**Busy.**")
    assert K.READ_ONLY & handled <= set(re.findall(r"`(\w+)`", play))
    told = [text.replace(" KEY", "") for text in re.findall(r'"([^"]+)"', busy)]
    assert {K.BUSY[kind] for kind in handled & K.BUSY.keys()} <= set(told)
    for act in (greet, edit_in_the_editor, edit_at_the_peer, exchange_files, make_materials, play_and_open_levels):
        act(session)
    session.peer.pump()
    assert K._S.pop("last_error")       # of the files that aren't there
    editor, peer = Checker(True), Checker(False)
    for msg in session.heard:
        editor.message(OUT, msg)
    assert editor.lacking() == set()
    for msg in session.sent:
        peer.message(IN, msg)
    for kind, read in session.read.items():
        assert read == TABLES[IN, kind].keys() - {"takeover"}, kind     # which is read before


def test_the_example_session_is_one():
    example = DOC.split("## An example session")[1].replace("\n    ", "")
    ways = {"→": (IN, Checker(False)), "←": (OUT, Checker(True))}
    for way, line in re.findall(r"(?m)^([→←]) (.+)$", example):
        ways[way][1].message(ways[way][0], json.loads(line))
    assert len(ways["←"][1].seen) > 50


def test_the_examples_of_axes(ed, K):
    code, = re.findall(r"```python\n(.*?)```", DOC, re.S)
    page = {}
    exec(code, page)
    examples, = re.findall(r"```json\n(.*?)```", DOC, re.S)
    classes = {"mesh": "StaticMeshActor", "light": "SpotLight", "camera": "CineCameraActor",
               "text": "TextRenderActor"}
    mirror = np.diag([1, -1, 1])
    turned = {"location": [10, 20, 30], "rotation": [10, 20, 30], "scale": [1, 1, 1]}
    for kind, example in json.loads(examples).items():
        for place in (example, turned):
            roll, pitch, yaw = place["rotation"]
            actor = ed.spawn(classes.pop(kind, "StaticMeshActor"), kind, place["location"],
                             rotation=(pitch, yaw, roll), scale=place["scale"])
            xf = K._xf_of(actor)
            assert xf == pytest.approx(place.get("xf", xf), abs=1e-6)
            columns = np.array(page["to_blender"](xf, kind))
            assert columns.T == pytest.approx(np.array(place.get("blender", columns.T)), abs=2e-6)
            assert page["to_editor"](columns.tolist(), kind) == pytest.approx(xf, abs=1e-4)
            assert np.linalg.det(columns[:3]) > 0
            assert columns[3] * 100 == pytest.approx(mirror @ xf[:3])
            # Seen from outside: where a point of the mesh goes, where it looks, who can read it.
            turn = actor.get_actor_rotation()
            ahead, above = (np.array(axis(turn).to_tuple()) for axis in (
                u.MathLibrary.get_forward_vector, u.MathLibrary.get_up_vector))
            forward, right, up = (mirror @ v for v in (ahead, np.cross(above, ahead), above))
            if kind == "mesh":
                point = actor.get_actor_transform().transform_location(u.Vector(1, 2, 3)).to_tuple()
                assert (mirror @ [1, 2, 3] @ columns[:3] + columns[3] * 100
                        ) == pytest.approx(mirror @ point, abs=1e-3)
            else:
                axes = (-right, up, forward) if kind == "text" else (right, up, -forward)
                assert columns[:3] == pytest.approx(np.array(axes), abs=1e-5)
