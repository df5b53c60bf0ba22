"""Random edits on both sides of a link over one level, with Play, level changes and reconnects.

At rest the peer's mirror, a fresh snapshot and the editor's level are the same, no edit of the peer's
ever came back to it as a change, and with everything undone the level is as it was.
"""
from rig import Finding, Rig, compare, xf_at

# What would be an echo when it names an actor that the peer has just edited.
CHANGES = {"rename", "tags", "set_mesh", "mats", "add", "remove"}


class Session:
    """The peer's and the user's hands. Each edits actors of its own, so an echo is told apart."""

    def __init__(self, rig):
        self.rig, self.dice, self.ed = rig, rig.random, rig.ed
        self.peer = rig.connect()
        self.rust = rig.ed.make_material("/Game/M_Rust")
        self.log = []           # what was done, for the report
        self.edited = set()     # ids that the peer has edited in this stretch
        self.serial = 0
        self.whole_drags = False    # none is cut by another edit, which would undo into it

    # The peer's actors have labels with "P" in front, the user's are all others.

    def actors(self, of_peer, kind="Actor"):
        import unreal
        cls = getattr(unreal, kind)
        return [a for a in self.ed.actors()
                if a._label.startswith("P_") == of_peer and isinstance(a, cls)
                and not isinstance(a, unreal.PostProcessVolume)]

    def xf(self):
        return xf_at(*(self.dice.randint(-8000, 8000) / 8 for _ in range(3)))

    def name(self, prefix):
        self.serial += 1
        return f"{prefix}{self.serial}"

    def say(self, msg):
        self.log.append(msg)
        self.edited |= {*msg.get("ids", ()), *(i[0] for i in msg.get("items", ()))}
        if "id" in msg:
            self.edited.add(msg["id"])
        self.peer.send(msg)

    def spawn(self):
        kind = self.dice.choice(({"kind": "mesh", "asset": self.rig.chair._path}, {"empty": True},
                                 {"kind": "light", "light": {"type": "spot", "cd": 5}},
                                 {"kind": "camera", "cam": {"focal": 40}},
                                 {"kind": "text", "text": {"body": "Hi"}}))
        self.say({"t": "spawn", "tmp": self.serial, "xf": self.xf(), "label": self.name("P_"),
                  "folder": self.dice.choice(("", "A", "A/B")), **kind})

    def peer_edit(self):
        self.peer.pump()        # what it hasn't heard of it can't edit
        mine = [a for a in self.actors(True) if a._path in self.peer.actors]
        if len(mine) < 4 or self.dice.random() < 0.1 and len(mine) < 20:
            return self.spawn()
        a = self.dice.choice(mine)
        aid = a._path
        meshes = [m._path for m in self.actors(True, "StaticMeshActor") if m in mine]
        match self.dice.choice(("xf", "xf", "xf", "end", "rename", "tags", "props", "mesh", "dup",
                                "delete", "select", "cam", "exposure")):
            case "xf":
                some = self.dice.sample(mine, min(len(mine), self.dice.randint(1, 3)))
                self.say({"t": "xf", "items": [[b._path, self.xf()] for b in some]})
                if self.whole_drags:
                    self.say({"t": "drag_end"})
            case "end":
                self.say({"t": "drag_end"})
            case "rename":
                self.say({"t": "rename", "id": aid, "label": self.name("P_"),
                          "folder": self.dice.choice(("", "F", "F/G"))})
            case "tags":
                self.say({"t": "tags", "id": aid,
                          "tags": self.dice.sample(("x", "y", "z"), self.dice.randint(0, 3))})
            case "props":
                self.say({"t": "props", "id": aid,
                          "light": {"cd": self.dice.randint(1, 99), "color": [1, 0.5, 0.1]},
                          "cam": {"focal": self.dice.randint(20, 90)},
                          "text": {"body": self.name("T"), "size": self.dice.randint(5, 50)}})
            case "mesh" if meshes:
                asset = self.dice.choice((self.rig.chair._path, self.rig.table._path, ""))
                self.say({"t": "set_mesh", "id": self.dice.choice(meshes), "asset": asset})
            case "dup":
                self.say({"t": "dup", "tmp": 0, "src": aid, "xf": self.xf(),
                          "label": self.name("P_")})
            case "delete":
                self.say({"t": "delete", "ids": [aid]})
            case "select":
                self.say({"t": "select", "ids": [aid], "frame": True})
            case "cam":
                self.say({"t": "cam", "c": [self.serial, 0, 0, 1, 0, 0, 0, 0, 1, 70]})
            case "exposure":
                self.say({"t": "exposure", "on": self.dice.random() < 0.5, "comp": 1})

    def user_edit(self):
        ed, theirs = self.ed, self.actors(False)
        at = tuple(self.dice.randint(-8000, 8000) / 8 for _ in range(3))
        what = self.dice.choice(("move", "move", "rename", "retag", "set", "mesh", "mats", "spawn",
                                 "delete", "duplicate", "select", "undo", "redo"))
        self.log.append(what)
        if len(theirs) < 5 or what == "spawn" and len(theirs) < 30:
            ed.spawn("StaticMeshActor", self.name("U_"), at, mesh=self.rig.chair)
            return
        a = self.dice.choice(theirs)
        meshes = self.actors(False, "StaticMeshActor")
        match what:
            case "move":
                ed.move(a, at, (0, self.dice.randint(0, 90), 0))
            case "rename":
                ed.rename(a, self.name("U_"), self.dice.choice(("", "Users")))
            case "retag":
                ed.retag(a, *self.dice.sample(("q", "r"), self.dice.randint(0, 2)))
            case "set":
                for lamp in self.actors(False, "PointLight")[:1]:
                    ed.set(lamp, intensity=float(self.dice.randint(1, 99)))
            case "mesh" if meshes:
                mesh = self.dice.choice((self.rig.chair, self.rig.table))
                ed.set(self.dice.choice(meshes), static_mesh=mesh)
            case "mats" if meshes:
                ed.set(self.dice.choice(meshes),
                       override_materials=self.dice.choice(([], [None], [self.rust])))
            case "delete":
                ed.delete(a)
            case "duplicate":
                ed.duplicate(a)
            case "select":
                ed.select(*self.dice.sample(theirs, 2))
            case "undo" | "redo":
                # What it changes may be the peer's edit: then the editor does report it.
                self.rig.tick()
                self.check_echo()
                getattr(ed, what)()
                self.rest()
                self.edited.clear()

    def check_echo(self):
        for m in self.peer.take():
            named = {m.get("id"), m.get("actor", {}).get("id"), *m.get("ids", ())}
            back = [i[0] for i in m.get("items", ()) if m["t"] == "xf" and i[0] in self.edited]
            if m["t"] in CHANGES or m["t"] == "props" and not m.get("echo"):
                back += [aid for aid in named if aid in self.edited]
            if back:
                raise Finding(f'"{m["t"]}" came back for {back[0]}: {m}', self.log[-8:])

    def detour(self):
        """Something that isn't an edit."""
        ed, rig = self.ed, self.rig
        what = self.dice.choice(("play", "level", "open_level", "reconnect", "load", "resync"))
        self.log.append(what)
        match what:
            case "play":
                ed.play()
                for _ in range(3):
                    rig.tick(0.3)
                    self.peer_edit()
                ed.stop_play()
            case "level":
                ed.open_level(self.dice.choice(("/Game/Maps/Main", "/Game/Maps/Other")))
            case "open_level":
                self.peer.send({"t": "open_level", "save": True, "path": self.dice.choice(
                    ("/Game/Maps/Main", "/Game/Maps/Other"))})
            case "load":
                ed.begin_level_change("/Game/Maps/Main")
                rig.tick(0.5)
                ed.end_level_change()
            case "resync":
                self.peer.send({"t": "resync", "have": list(self.peer.actors)[:4]})
            case "reconnect":
                rig.check_peer(self.peer, self.log[-8:])
                self.peer.close()
                self.peer = rig.connect()
        self.rest()
        self.edited.clear()

    def rest(self):
        self.rig.settle(self.peer, 3.0)
        self.peer.take()
        self.rig.check_quiet(self.log[-8:])

    def stretch(self, count):
        """Edits on both sides, then rest and comparison."""
        for _ in range(30):
            if self.dice.random() < 0.5:
                self.peer_edit()
                count("edits of the peer")
            else:
                self.rig.tick()     # the peer's edits stand before the user's next
                self.user_edit()
                count("edits of the user")
            if self.dice.random() < 0.7:
                self.rig.tick(self.dice.choice((0, 0, 0.05, 0.4, 1)))
                self.check_echo()
        self.rig.settle(self.peer, 3.0)
        self.check_echo()
        self.rig.check_quiet(self.log[-8:])
        if error := self.rig.K._S.pop("last_error", None):
            raise Finding(f"failed: {error}", self.log[-8:])
        self.rig.check_mirror(self.peer, self.log[-12:])


    def undo_everything(self, count):
        """Every edit, of both sides, is an undo step: all undone, the level and the mirror are as
        they were; all done again, they are as they stood."""
        ed, rig = self.ed, self.rig
        self.whole_drags = True
        ed.clear_history()
        before = ed.state()
        self.stretch(count)
        after = ed.state()
        steps = len(ed.history)
        for way, then in ((ed.undo, before), (ed.redo, after)):
            for _ in range(steps):
                way()
            compare(ed.state(), then, f"the level behind {way.__name__} of all and before", self.log)
            self.rest()
            rig.check_mirror(self.peer, self.log[-12:])
        self.edited.clear()


def run(seed, count):
    rig = Rig(seed)
    try:
        session = Session(rig)
        for _ in range(4):
            session.stretch(count)
            session.detour()
            count("detours")
            rig.check_mirror(session.peer, session.log[-8:])
        session.undo_everything(count)
    finally:
        rig.close()
