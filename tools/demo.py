#!/usr/bin/env python3
"""Shows the link at work: a headless editor, a peer, edits on both sides, and what travels.

The editor program runs the steps of demo_editor.py on a demo level; this program connects as the
peer. In the first act the editor edits, in the second the peer does, in the third meshes and a rig
go across (demo_assets.py), in the fourth materials (demo_materials.py). What travels is printed: "←" came from the editor, "→" went to it. After each step the peer's mirror is compared, actor by
actor, with what the editor's own actors say. Exit code 0 only if all is equal and the editor kept
to the protocol.

    python3 tools/demo.py --plugin build/release/plugin/Content/Python
"""
import argparse
import contextlib
import json
import math
import pathlib
import queue
import re
import subprocess
import sys
import threading
import time

import demo_assets
import demo_materials
from link_peer import Peer, PeerError, resolve
from peer_text import describe

ROOT = pathlib.Path(__file__).resolve().parents[1]
STEP, OUTCOME = "demo step: (.*)", "demo outcome: (.*)"     # lines on the editor's output
MOST_SECONDS = 120          # the editor program ends by itself then, whatever became of the demo
PATIENCE = 10.0             # seconds for the editor to answer, and for the mirror to follow
QUIET = 0.2                 # seconds for which an equal mirror has to stay equal
MOST_LINES = 4              # of one type of message, shown per step
ROUNDING = 0.0006           # numbers travel with 3 decimals or more
NOT_YET = ("comps",)        # what records may still lack: the module doesn't send it yet

EDITOR_STEPS = ("drag", "shove", "relabel", "relight", "swap_meshes", "add_and_remove", "play",
                "change_level")
QUICK_EDITOR_STEPS = ("swap_meshes", "change_level")


class Failed(Exception):
    """The demo can't go on; the text is for the user."""


# -- the peer's steps: each sends, and yields what the editor must then hold besides the mirror's
#    actors: "selection", "exposure", "view", and "steps", the titles that its undo history gained

def drag(peer):
    """The peer drags a crate: every move shows at once, and the whole drag is one undo step"""
    crate = resolve(peer, "Prop9")
    start = peer.actors[crate]["xf"]
    for i in range(1, 21):
        peer.send({"t": "xf", "items": [[crate, [start[0] + 25 * i, *start[1:]]]]})
        peer.pump(0.02)
    peer.send({"t": "drag_end"})
    yield {"steps": ["Verrin: move Prop9"]}


def add(peer):
    """The peer adds a mesh, a light and a text, and duplicates the mesh"""
    box = create(peer, t="spawn", kind="mesh", label="Box", folder="New", xf=at(0, -300, 50),
                 asset="/Engine/BasicShapes/Cube.Cube", tags=["new"])
    create(peer, t="spawn", kind="light", label="Spot", folder="New", xf=at(0, -300, 400),
           light={"type": "spot", "cd": 120.0, "color": [1.0, 0.5, 0.25], "outer": 35.0})
    create(peer, t="spawn", kind="text", label="Words", folder="New", xf=at(0, -300, 150),
           text={"body": "Good morning", "size": 30.0})
    create(peer, t="dup", src=box, label="Box two", xf=at(200, -300, 50))
    yield {"steps": ["Verrin: add Box", "Verrin: add Spot", "Verrin: add Words",
                     "Verrin: duplicate Box"]}


def name(peer):
    """It renames an actor, files it elsewhere, and tags it"""
    box = resolve(peer, "Box two")
    peer.send({"t": "rename", "id": box, "label": "Parcel", "folder": "Props/Post"})
    peer.send({"t": "tags", "id": box, "tags": ["post", "fragile"]})
    yield {"steps": ["Verrin: rename", "Verrin: tags Parcel"]}


def change(peer):
    """It sets a lamp's candela, which the editor keeps in EV, and a lens; it swaps a mesh"""
    props(peer, resolve(peer, "Lamp4"), light={"cd": 64.0})
    props(peer, resolve(peer, "Shot2"), cam={"focal": 50.0})
    peer.send({"t": "set_mesh", "id": resolve(peer, "Prop21"),
               "asset": "/Engine/BasicShapes/Sphere.Sphere"})
    yield {"steps": ["Verrin: Lamp4 settings", "Verrin: Shot2 settings", "Verrin: set mesh"]}


def select(peer):
    """It selects an actor, which the editor's viewport frames"""
    peer.send({"t": "select", "ids": [resolve(peer, "Words")], "frame": True})
    yield {"selection": ["Words"], "steps": []}
    peer.send({"t": "select", "ids": []})
    yield {"selection": [], "steps": []}


def delete(peer):
    """It deletes two actors in one undo step"""
    peer.send({"t": "delete", "ids": [resolve(peer, "Prop22"), resolve(peer, "Prop23")]})
    yield {"steps": ["Verrin: delete 2"]}


def expose(peer):
    """It puts the level under its own exposure, and takes that back"""
    peer.send({"t": "exposure", "on": True})
    yield {"exposure": -math.log2(683.0), "steps": ["Verrin: exposure"]}
    peer.send({"t": "exposure", "on": False})
    yield {"exposure": None, "steps": ["Verrin: exposure"]}


def switch_level(peer):
    """It asks for the levels and opens another one, refused while changes are unsaved"""
    peer.send({"t": "need_levels"})
    levels = [level["path"] for level in peer.wait("levels", timeout=PATIENCE)["levels"]]
    if "/Game/Maps/Annex" not in levels:
        raise Failed(f"the annex isn't among the levels {levels}")
    annex = {"t": "open_level", "path": "/Game/Maps/Annex"}
    peer.send(annex)
    refused = peer.wait("level_opened", timeout=PATIENCE)
    if refused["ok"] or not refused.get("unsaved"):
        raise Failed(f"a level was opened over unsaved changes: {refused}")
    yield {"steps": []}
    peer.send({**annex, "save": True})
    peer.wait("level_opened", lambda m: m["ok"], PATIENCE)
    peer.wait("snapshot", lambda m: m["level"] == "Annex", PATIENCE)
    yield {"history": []}


def look_around(peer):
    """It moves the editor's viewport camera, and asks where it is"""
    view = [500.0, 400.0, 900.0, 0.8, 0.0, -0.6, 0.6, 0.0, 0.8, 75.0]
    peer.send({"t": "cam", "c": view})
    peer.send({"t": "cam_get"})
    told = peer.wait("cam", lambda m: m.get("snap"), PATIENCE)["c"]
    if not same(view, told):
        raise Failed(f"the editor calls its view {told}, not {view}")
    yield {"view": view[:3]}


PEER_STEPS = (drag, add, name, change, select, delete, expose)
QUICK_PEER_STEPS = (drag, add, expose)


def at(x, y, z):
    """A transform without rotation and scale."""
    return [x, y, z, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1]


def create(peer, **msg):
    """Sends a "spawn" or "dup"; the id of what the editor made of it."""
    peer.send({**msg, "tmp": msg["label"]})
    answer = peer.wait(("spawned", "spawn_failed"), lambda m: m["tmp"] == msg["label"], PATIENCE)
    if answer["t"] == "spawn_failed":
        raise Failed(f"{msg['label']} wasn't made: {answer['msg']}")
    return answer["actor"]["id"]


def props(peer, aid, **settings):
    """Sends settings, which the editor answers with what it made of them."""
    peer.send({"t": "props", "id": aid, **settings})
    peer.wait("props", lambda m: m["id"] == aid and m.get("echo"), PATIENCE)
    for key, values in settings.items():
        if not same(values, {k: peer.actors[aid][key].get(k) for k in values}):
            raise Failed(f"{aid}: {key} {values} became {peer.actors[aid][key]}")


# -- the truth

def same(true, told):
    """Whether two values are equal but for the rounding of numbers on their way."""
    if isinstance(true, dict) and isinstance(told, dict):
        return true.keys() == told.keys() and all(same(true[k], told[k]) for k in true)
    if isinstance(true, list) and isinstance(told, list):
        return len(true) == len(told) and all(map(same, true, told))
    if isinstance(true, float) and isinstance(told, (int, float)):
        return math.isclose(true, told, rel_tol=1e-6, abs_tol=ROUNDING)
    return true == told


def differences(peer, level):
    """Where the peer's mirror isn't what the level holds, a line each."""
    if peer.world != level["world"]:
        return [f"the mirror shows {peer.world}, the editor {level['world']}"]
    actors = level["actors"]
    found = [f"{aid} is only in the {'mirror' if aid in peer.actors else 'level'}"
             for aid in sorted(actors.keys() ^ peer.actors.keys())]
    for aid in sorted(actors.keys() & peer.actors.keys()):
        true, record = actors[aid], peer.actors[aid]
        told = {"tags": [], "asset": "", **record, "location": record["xf"][:3],
                "forward": record["xf"][3:6], "scale": record["xf"][12:]}
        for key, value in true.items():
            mine = told.get(key)
            if isinstance(value, dict) and mine:
                mine = {k: mine.get(k) for k in value}
            elif key == "comps":
                mine = len(mine) if mine is not None else value
            if not same(value, mine):
                found.append(f"{aid}: {key} is {mine}, in the editor {value}")
    return found


# -- the programs

class EditorProgram:
    """The editor as a process of ours; it is ended on every way out of the context."""

    def __init__(self, plugin, actors):
        self.complaints = []        # warnings and errors in its log
        self._lines = queue.Queue()
        self._process = subprocess.Popen(
            [sys.executable, "-m", "sim", "--plugin", plugin.resolve(), "--actors", str(actors),
             "--script", ROOT / "tools" / "demo_editor.py", "--exit-when-done",
             "--seconds", str(MOST_SECONDS)],
            cwd=ROOT, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self._process.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def __enter__(self):
        return self

    def __exit__(self, *_exc):
        with contextlib.suppress(OSError):
            self._process.stdin.close()                 # the script ends, and the program with it
        try:
            self._process.wait(3)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def line(self):
        """The next line of its output, None if there is none yet. Failed if it has ended."""
        try:
            line = self._lines.get_nowait()
        except queue.Empty:
            return None
        if line is None:
            raise Failed(f"the editor program ended, code {self._process.wait(5)}")
        if re.match("LogPython: (Warning|Error)", line):
            self.complaints.append(line)
        return line

    def answer(self, pattern, idle):
        """The first group of the first line that matches; `idle` is called while there is none."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            line = self.line()
            if line is None:
                idle(0.02)
            elif found := re.match(pattern, line):
                return found[1]
        raise Failed("\n".join(["the editor program doesn't answer", *self.complaints]))

    def tell(self, line):
        with contextlib.suppress(BrokenPipeError):      # its end shows in what it says
            self._process.stdin.write(line + "\n")
            self._process.stdin.flush()


class ShownPeer(Peer):
    """A peer that hands what it sends and hears to `show(peer, arrow, msg)` first."""

    def __init__(self, name, show, port):
        super().__init__(ports=port)
        self.name = name
        self._show = show
        self.listener = lambda msg: show(self, "←", msg)

    def send(self, msg):
        self._show(self, "→", msg)
        super().send(msg)


class Demo:
    """The link as a spectator sees it: the editor, the linked peer, and all peers there were."""

    def __init__(self, editor):
        self.editor = editor
        self.port = int(editor.answer(r".*listening on 127\.0\.0\.1:(\d+)", time.sleep))
        self.peers = []
        self.peer = None            # the one that is linked
        self.messages = 0
        self.level = None           # what the editor last held
        self._shown = {}            # (peer's name, arrow, type) -> how many there were in this step

    def connect(self, name, **hello):
        """A new peer that has said hello."""
        peer = ShownPeer(name, self._show, self.port)
        self.peers.append(peer)
        peer.hello(name, **hello)
        return peer

    def link(self, name, **hello):
        """A new peer that has the level; it becomes the one that is linked."""
        peer = self.connect(name, **hello)
        peer.wait("snapshot", timeout=PATIENCE)
        peer.synced()
        self.peer = peer

    def _show(self, peer, arrow, msg):
        self.messages += 1
        kind = (peer.name, arrow, msg["t"])
        self._shown[kind] = self._shown.get(kind, 0) + 1
        if self._shown[kind] <= MOST_LINES:
            text = describe(peer, msg, sys.stdout.isatty())
            print(f"  {peer.name:<6} {arrow} {text.rstrip()}", flush=True)

    @contextlib.contextmanager
    def heading(self, text):
        print(f"\n{text}", flush=True)
        self._shown.clear()
        yield
        for (name, arrow, kind), count in self._shown.items():
            if count > MOST_LINES:
                print(f'  {name:<6} {arrow} and {count - MOST_LINES} more "{kind}"')

    def run(self, step, **wanted):
        """The editor program makes a step; its heading is shown."""
        self.editor.tell(step)
        with self.heading(self.editor.answer(STEP, time.sleep)):
            self._outcome()
            self.follow(wanted)

    def edit(self, step):
        """The peer makes a step."""
        with self.heading(step.__doc__):
            for wanted in step(self.peer):
                self.follow(wanted)

    def _outcome(self):
        self.level = json.loads(self.editor.answer(OUTCOME, self.peer.pump))

    def follow(self, wanted):
        """Until the mirror equals the level, the editor holds what is wanted, and both stay so."""
        wanted = dict(wanted)
        if "steps" in wanted:
            wanted["history"] = self.level["history"] + wanted.pop("steps")
        end = time.monotonic() + PATIENCE
        equal_since = None
        while equal_since is None or time.monotonic() - equal_since < QUIET:
            self.peer.pump(0.05)
            self.peer.check()
            self.editor.tell("look")
            self._outcome()
            different = differences(self.peer, self.level) + [
                f"the editor's {key} is {self.level[key]}, not {value}"
                for key, value in wanted.items() if not same(value, self.level[key])]
            if different and time.monotonic() > end:
                raise Failed("\n".join(["the two sides differ:", *different[:10]]))
            equal_since = None if different else equal_since or time.monotonic()

    def undo_and_redo(self):
        """The editor's user undoes six of the peer's steps and redoes them: the peer follows."""
        history = self.level["history"]
        self.run("undo", history=history[:-6])
        self.run("redo", history=history)
        print("  in the editor's undo history:", *history, sep="\n    ")

    def take_over(self):
        """A second peer is refused; told to take over, it does, and the first is let go"""
        with self.heading(self.take_over.__doc__):
            first = self.peer
            self.connect("second").wait("refused", timeout=PATIENCE)
            self.link("third", takeover=True)
            end = time.monotonic() + PATIENCE
            while not first.closed and time.monotonic() < end:
                first.pump(0.05)
            if not first.closed:
                raise Failed("the first peer is still linked beside the one that took over")

    def faults(self):
        """What went against the protocol, and what the editor complained of."""
        while self.editor.line() is not None:
            pass
        return self.editor.complaints + [
            text for peer in self.peers for text in (*peer.faults, *peer.errors)]


def show(editor, editor_steps, peer_steps, file_steps):
    """The whole demo. Raises Failed or PeerError where it can't go on; returns the faults."""
    demo = Demo(editor)
    with demo.heading(f"A peer connects on port {demo.port} and gets the level"):
        demo.link("first")
    for step in editor_steps:
        demo.run(step)
    demo.take_over()
    demo.run("last_touches")
    for step in peer_steps:
        demo.edit(step)
    demo.undo_and_redo()
    for step in file_steps:
        demo.edit(step)
    lacking = [rec for rec in demo.peer.actors.values() if rec["kind"] == "group" and
               any(key not in rec for key in NOT_YET)]
    demo.edit(switch_level)
    demo.edit(look_around)
    print(f"\n{demo.messages} messages. After each step both sides were equal, actor by actor.")
    if lacking:
        print(f"({len(lacking)} groups came without {', '.join(NOT_YET)}: not sent yet.)")
    return demo.faults()


def main():
    parse = argparse.ArgumentParser(description="Show the link at work, and check it.")
    parse.add_argument("--plugin", type=pathlib.Path, required=True,
                       help="the built plugin's Content/Python")
    parse.add_argument("--quick", action="store_true",
                       help="a short form for a check: fewer steps on a small level")
    args = parse.parse_args()
    begun = time.monotonic()
    try:
        with EditorProgram(args.plugin, actors=60 if args.quick else 300) as editor:
            faults = (show(editor, QUICK_EDITOR_STEPS, QUICK_PEER_STEPS, (*demo_assets.QUICK_STEPS, *demo_materials.QUICK_STEPS))
                      if args.quick else
                      show(editor, EDITOR_STEPS, PEER_STEPS, (*demo_assets.STEPS, *demo_materials.STEPS)))
    except (Failed, PeerError, AssertionError) as error:
        faults = [str(error)]
    for text in faults:
        print(f"demo: {text}", file=sys.stderr)
    print(f"{'Not all is well' if faults else 'All is well'}, {time.monotonic() - begun:.1f} s.")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
