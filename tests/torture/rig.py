"""What every topic works on: an editor with a small level, the module, a clock set by hand.

A check that fails raises Finding; the seed of the round and the input in it repeat the case.
"""
import gc
import json
import os
import random
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from conftest import FRAME, ROOT, Clock, QuietPeer  # noqa: E402 - sets the path of all below

import sim  # noqa: E402
import unreal  # noqa: E402
from unreal._editor import editor  # noqa: E402

NONE = type(None)
FILES = ROOT / "tests" / "data" / "glb"
TURNED = [0, 1, 0, -1, 0, 0, 0, 0, 1, 1, 1, 1]     # axes of a quarter turn about z, scale 1


alarm = getattr(signal, "alarm", lambda seconds: None)     # Windows has none


class Finding(Exception):
    """Something that must not happen; `case` is the input that shows it."""

    def __init__(self, text, case=None):
        super().__init__(text)
        self.case = case


def xf_at(*location):
    return [float(v) for v in location] + [float(v) for v in TURNED]


class Rig:
    """One editor, one link and its peers, of one round."""

    counts_all = True   # all references of the interpreter, where it counts them

    def __init__(self, seed, meshes=6):
        self.random = random.Random(seed)
        self.clock = Clock()
        time.perf_counter, time.time = (lambda: self.clock.now), (lambda: self.clock.epoch)
        self.folder = tempfile.mkdtemp(prefix="kestrix-torture-")
        self.ed = sim.Editor(self.folder)
        import kestrix
        self.K = kestrix
        self._fresh_state()
        # Away from the link's own ports, where an editor or another run may be listening.
        self.port = 20000 + os.getpid() % 1000 * 10
        self.peers = []
        self.fill(meshes)

    def _fresh_state(self):
        self.K.stop(True)
        self.K._S.clear()
        self.K._S.update(handle=None, server=None, conn=None, port=self.K.PORT)
        self.K._CACHE.clear()

    def close(self):
        alarm(0)
        self.ed.heal()
        self.K.stop(True)
        for conn, _ in self.K._S.pop("cands", []):
            conn.close()
        for peer in self.peers:
            peer.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def fill(self, meshes):
        """A small level with every kind of actor that travels, and a second one to go to."""
        ed = self.ed
        self.chair, self.table, _ = (ed.make_mesh(f"/Game/{n}") for n in (
            "Props/Chair", "Props/Table", "Verrin/Mine"))
        self.body = ed.make_skeletal_mesh("/Game/Verrin/Walker/Walker")
        self.wood = ed.make_material("/Game/M_Wood")
        self.shine = ed.make_material("/Game/Verrin/Materials/Old/FBX/Old", unreal.load_asset(
            "/InterchangeAssets/gltf/MaterialInstances/MI_Default_Opaque"))
        self.picture = unreal.Texture2D("/Game/Verrin/Materials/Old/FBX/picture")
        ed.new_level("/Game/Maps/Other")
        self.furnish(3)
        ed.open_level("/Game/Maps/Main")
        self.furnish(meshes)
        ed.landscape_mode()
        ed.save()

    def furnish(self, meshes):
        ed = self.ed
        for i in range(meshes):
            ed.spawn("StaticMeshActor", f"Prop{i}", (100 * i, 0, 0), "Props", ("a", "b"),
                     mesh=self.chair if i % 2 else self.table)
        for kind in ("PointLight", "SpotLight", "RectLight", "DirectionalLight"):
            ed.spawn(kind, kind, (0, 200, 0), "Lights", intensity=5.0)
        ed.spawn("CineCameraActor", "Shot", (0, 300, 0))
        ed.spawn("TextRenderActor", "Sign", (0, 400, 0), text="Gate")
        ed.spawn("SkeletalMeshActor", "Walker", (0, 600, 0), skeletal_mesh_asset=self.body)
        ed.spawn_blueprint("BP_House_C", "House", [(self.chair, (0, 0, 0))], (0, 500, 0))

    # Time and peers.

    def tick(self, seconds=0.0):
        """The editor's frames for that long, at least one. A tick that hangs ends the run."""
        alarm(20)
        for _ in range(max(1, round(seconds / FRAME))):
            self.clock.advance(FRAME)
            self.ed.tick(1, FRAME)
        alarm(0)

    def start(self):
        if self.K._S["server"] is None and not self.K.start(self.port):
            raise Finding("no free port")

    def peer(self):
        """A peer that has connected and said nothing."""
        self.start()
        peer = QuietPeer(ports=self.K._S["port"])
        self.peers.append(peer)
        return peer

    def connect(self, **hello):
        """A peer that has its copy of the level."""
        peer = self.peer()
        self.tick()
        peer.hello(**hello)
        peer.pump()
        self.tick()
        peer.pump()
        peer.synced()
        self.tick()
        peer.pump()
        return peer

    def settle(self, peer, seconds=4.0):
        """Until every scan has passed over everything."""
        for _ in range(max(1, round(seconds / 0.25))):
            self.tick(0.25)
            peer.pump()

    # Checks.

    def check_quiet(self, case=None):
        """Nothing was raised into the editor, no transaction is open, the state has its shape."""
        raised = [text for level, text in self.ed.log if level == "error"
                  and not text.startswith("Log")]       # the editor's own words, of an import say
        self.ed.clear_log()
        if raised:
            raise Finding(f"raised into the editor: {raised[0]}", case)
        if editor.history._depth:
            editor.history._depth = 0
            raise Finding("a transaction is still open", case)
        state = self.K._S
        for name, good in (
                ("known", lambda: all({"actor", "info"} <= set(e) for e in
                                      state.get("known", {}).values())),
                ("touched", lambda: all(len(e) == 2 for e in state.get("touched", {}).values())),
                ("xf_out", lambda: all(len(xf) == 15 for xf in state.get("xf_out", {}).values())),
                ("sel_last", lambda: all(isinstance(i, str)
                                         for i in state.get("sel_last") or ())),
                ("in_tick", lambda: not state.get("in_tick"))):
            if not good():
                raise Finding(f"_S[{name!r}] has lost its shape", case)

    def check_peer(self, peer, case=None):
        """Nothing came against the protocol, and the connection lives."""
        peer.pump()
        if peer.faults:
            raise Finding(f"the peer found: {peer.faults[0]}", case)
        if peer.closed:
            raise Finding("the editor closed the connection", case)

    def check_own_undo_step(self, case=None):
        """A user's edit is one undo step of its own."""
        lamp = self.ed.actors()[0] if self.ed.actors() else self.ed.spawn("PointLight")
        before = self.ed.history
        self.ed.move(lamp, (1, 2, 3))
        if self.ed.history != before + ["Move Actors"]:
            raise Finding(f"a user's edit landed in {self.ed.history[-1]!r}", case)

    def check_known(self, case=None):
        """The link's own mirror holds what its readers find in the level now, but for what no pass
        compares: a reading of a pass leaves that out."""
        def compared(info):
            return {k: v for k, v in info.items() if k not in ("comps", "phys")}
        held = {aid: compared(entry["info"]) for aid, entry in self.K._S["known"].items()}
        true = {aid: compared(self.K._info(actor, aid)) for aid, actor in self.K._list_actors().items()}
        compare(held, true, "the link's mirror and the level", case)

    def check_mirror(self, peer, case=None):
        """The peer's mirror, a fresh snapshot and the editor's own level are the same."""
        self.check_peer(peer, case)
        held = plain_mirror(peer.actors)
        peer.send({"t": "resync"})
        self.tick()
        self.check_peer(peer, case)
        fresh = plain_mirror(peer.actors)
        compare(held, fresh, "the mirror and a fresh snapshot", case)
        compare(true_level(self.ed), {aid: {k: rec[k] for k in ("label", "folder", "at", "tags")}
                                      for aid, rec in fresh.items()},
                "the level and a snapshot", case)


def plain_mirror(actors):
    """The mirror's records as far as every message keeps them up to date."""
    out = {}
    for aid, rec in actors.items():
        rec = {k: v for k, v in rec.items() if k not in ("sig", "comps")}
        rec["tags"] = list(rec.get("tags", ()))
        rec["at"] = rec["xf"][:3]
        out[aid] = rec
    return out


def true_level(ed):
    """What of the level any peer must know, read from the stand-in itself."""
    return {a._path: {"label": a._label,
                      "folder": "" if a._folder.is_none() else str(a._folder),
                      "at": [round(v, 3) + 0.0 for v in a._root._xf.translation.to_tuple()],
                      "tags": [str(t) for t in a._p["tags"]]}
            for a in ed.actors() if not isinstance(a, unreal.PostProcessVolume)}


def compare(left, right, what, case):
    for aid in left.keys() | right.keys():
        if aid not in left or aid not in right:
            raise Finding(f"{what} differ: only one has {aid}", case)
        if left[aid] != right[aid]:
            keys = [k for k in left[aid].keys() | right[aid].keys()
                    if left[aid].get(k) != right[aid].get(k)]
            raise Finding(f"{what} differ at {aid}: " + "; ".join(
                f"{k} {left[aid].get(k)!r} / {right[aid].get(k)!r}" for k in keys), case)


def examples(rig):
    """A valid message per type, on actors that are there; plain ones for types without."""
    ed, pick = rig.ed, rig.random.choice
    by_class = {}
    for actor in ed.actors():
        by_class.setdefault(type(actor).__name__, []).append(actor._path)
    ids = [a._path for a in ed.actors()] or ["/Game/Maps/Main.Main:PersistentLevel.None_0"]
    prop = pick(by_class.get("StaticMeshActor", ids))
    xf = xf_at(*(rig.random.randint(-999, 999) / 8 for _ in range(3)))
    light = {"type": "spot", "color": [1.0, 0.5, 0.25], "cd": 12.5, "radius": 800.0, "src": 2.0,
             "inner": 10.0, "outer": 30.0, "shadows": True, "temp": 5000.0}
    cam = {"focal": 50.0, "sw": 36.0, "sh": 24.0, "fov": 60.0, "fstop": 2.8, "focus": 300.0}
    words = {"body": "Yard", "size": 30.0, "color": [255, 0, 0, 255], "halign": "center"}
    spawns = [{"kind": "mesh", "asset": rig.chair._path}, {"kind": "mesh", "empty": True},
              {"kind": "light", "light": light}, {"kind": "camera", "cam": cam},
              {"kind": "text", "text": words}]
    lights = by_class.get("SpotLight", ids)
    made = {
        "hello": {"client": "t", "version": 16, "scope": {}, "have": ids[:3], "pid": 7},
        "synced": {}, "resync": {"have": ids[:2]}, "drag_end": {}, "need_levels": {},
        "scope": {"kinds": {"light": True}, "folders": "", "exclude": "", "radius_m": 0,
                  "grass_max": 1000},
        "sel_mode": {"on": True}, "opts": {"ue_format": "GLB", "ue_textures": True},
        "xf": {"items": [[pick(ids), xf], [prop, xf]]},
        "spawn": {"tmp": 1, "xf": xf, "label": "New", "folder": "F", "tags": ["x"],
                  **pick(spawns)},
        "dup": {"tmp": 2, "src": pick(ids), "xf": xf, "label": "Copy", "tags": ["y"]},
        "delete": {"ids": [pick(ids)]},
        "rename": {"id": pick(ids), "label": "Name", "folder": "A/B"},
        "tags": {"id": pick(ids), "tags": ["one", "two"]},
        "props": pick(({"id": pick(lights), "light": light},
                       {"id": pick(by_class.get("CineCameraActor", ids)), "cam": cam},
                       {"id": pick(by_class.get("TextRenderActor", ids)), "text": words})),
        "set_mesh": {"id": prop, "asset": rig.table._path},
        "exposure": {"on": True, "comp": 1.5},
        "cam": {"c": [1.0, 2.0, 3.0, 1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 80.0]},
        "cam_mode": {"send": True}, "cam_get": {}, "brush_get": {},
        "select": {"ids": ids[:2], "frame": True, "focus": False},
        "asking": {"what": "sync"},
        "open_level": {"path": "/Game/Maps/Other", "discard": True},
        "need_mesh": {"assets": [rig.chair._path, rig.table._path], "full": True},
        "need_mat": {"paths": [rig.wood._path]},
        "mesh": {"file": str(FILES / "tiny.glb"), "name": "Tiny", "ids": [prop], "req": 1,
                 **pick(({"asset": "/Game/Verrin/Tiny/Tiny.Tiny", "coll": {"shape": "BOX"}},
                         {"asset": rig.chair._path, "overwrite": True}))},
        "coll": {"asset": "/Game/Verrin/Mine.Mine", "coll": {"shape": "CONVEX", "hulls": 8}},
        "phys": {"id": prop, "phys": {"sim": True, "mass": 5.0, "friction": 0.5}},
        "mat": {"name": "Shine", "key": "Shine", "req": 2, "cleanup": True, "disp": None, **pick((
            {"file": str(FILES.parent / "materials" / "mirror_nearest" / "material.gltf")},
            {"file": str(FILES / "unlit.glb")}))},
        "mat_params": {"path": rig.shine._path, "params": {"RoughnessFactor": 0.5, "EmissiveFactor": [1, 0, 0]}},
        "tex": {"path": rig.picture._path, "file": str(
            FILES.parent / "materials" / "mirror_nearest" / "tex files" / "F mark.png")},
        "mat_known": {"items": [["a", rig.shine._path], ["b", None]]}, "mat_drop": {"name": "Old"},
        "assign": pick(({"id": prop, "slots": [[0, "", rig.shine._path]]},
                        {"id": prop, "slots": [[0, "", rig.wood._path]], "asset_level": True, "ov_slots": [0]},
                        {"asset": "/Game/Verrin/Mine.Mine", "slots": [[0, "", rig.shine._path]]})),
        "rig": {"id": pick(by_class.get("SkeletalMeshActor", ids)), "anim": "walk", "name": "Walker",
                "file": str(FILES / "rig.glb"), "asset": "/Game/Verrin/Walker/Walker.Walker"},
        "brush_set": {"strength": 0.5, "size": 512.0, "falloff": 0.5, "use_target": True,
                      "target": 0.5, "without_moving": False},
    }
    plain = {"id": prop, "ids": [prop], "path": rig.chair._path, "asset": rig.chair._path,
             "key": "k", "items": []}
    return {t: {"t": t, **made.get(t, plain)} for t in rig.K.HANDLERS}


def encode(msg):
    return json.dumps(msg, separators=(",", ":")).encode("utf-8", "surrogatepass")


def collect():
    for _ in range(2):
        gc.collect()
