#!/usr/bin/env python3
"""Shows the link at work: a headless editor, edits in it, and what a peer hears of them.

The editor program runs `script` below on a demo level; this program connects as the peer, names
one step after the other, prints what travels, and after each step compares the peer's mirror,
actor by actor, with what the editor's own actors say. Exit code 0 only if all is equal and the
editor kept to the protocol.

    python3 tools/demo.py --plugin build/release/plugin/Content/Python
"""
import argparse
import contextlib
import json
import os
import pathlib
import queue
import re
import select
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))
from peer import Peer, PeerError, describe  # noqa: E402 - needs the path above

ANSWER = "demo: "           # begins the script's lines on the editor's output
MOST_SECONDS = 120          # the editor program ends by itself then, whatever became of the demo
PATIENCE = 10.0             # seconds for the editor to answer, and for the mirror to follow
QUIET = 0.3                 # seconds for which an equal mirror has to stay equal
MOST_LINES = 4              # of one type of message, shown per step
LARGEST_ERROR = 0.0006      # of a location that travels with 3 decimals, editor units
# Fields of records that the module doesn't fill yet: their absence is counted, not a failure.
NOT_YET = ("lacks light", "lacks cam", "lacks sig, comps")


class Failed(Exception):
    """The demo can't go on; the text is for the user."""


# -- the editor's side: steps that its program runs, generators whose yields are seconds to wait

def drag(ed):
    """The user selects a crate and drags it: every move goes out at once"""
    crate = ed.actor("Prop1")
    ed.select(crate)
    for i in range(20):
        ed.move(crate, (50.0 * i, 25.0 * i, 0.0), rotation=(0, 9 * i, 0))
        yield 0.05
    ed.select()


def shove(ed):
    """A script moves twenty actors that nobody has selected: the scan finds them"""
    for i in range(2, 22):
        ed.move(ed.actor(f"Prop{i}"), (100.0 * i, -4000.0, 0.125 * i), scale=(2, 1, 1))
    yield 0.1


def relabel(ed):
    """Actors get new names, folders and tags"""
    ed.rename(ed.actor("Sign1"), "South gate", "Signs/Gates")
    ed.rename(ed.actor("Prop5"), folder="")
    ed.retag(ed.actor("Prop6"), "keep", "wet")
    ed.retag(ed.actor("Prop7"))
    sign = ed.actor("South gate")
    ed.set(sign, text="South gate", world_size=60.0)
    ed.select(sign)             # selected, so that its settings go out at once
    yield 0.1
    ed.select()


def swap_meshes(ed):
    """Meshes and materials are swapped, one mesh is new"""
    barrel = ed.make_mesh("/Game/Props/NewBarrel", slots=("Base", "Trim"))
    for i in range(8, 12):
        ed.set(ed.actor(f"Prop{i}"), static_mesh=barrel)
    rust = barrel.get_material(1)
    ed.set(ed.actor("Prop12"), static_mesh=barrel, override_materials=[rust])
    ed.set(ed.actor("Prop13"), static_mesh=None)
    yield 0.1


def add_and_remove(ed):
    """Actors are added, duplicated and deleted; undo brings one back"""
    bench = ed.spawn("StaticMeshActor", "Bench", (0, 0, 40), "Props/New", ("new",),
                     mesh="/Engine/BasicShapes/Cube")
    ed.duplicate(bench, (300, 0, 0))
    ed.spawn("TextRenderActor", "Bench sign", (0, 0, 120), "Signs", text="Take a seat")
    ed.delete(ed.actor("Prop14"), ed.actor("Prop15"))
    ed.delete(ed.actor("Prop16"))
    yield 1.5
    ed.undo()


def play(ed):
    """The editor plays: nothing goes out, and what changed meanwhile follows at the end"""
    ed.play()
    yield 0.5
    ed.move(ed.actor("Prop17"), (0, 0, 5000))
    ed.spawn("StaticMeshActor", "Left by the game", mesh="/Engine/BasicShapes/Sphere")
    yield 0.5
    ed.stop_play()


def change_level(ed):
    """Another level is opened and filled, then the first one again; loading takes a while"""
    ed.new_level("/Game/Maps/Annex")
    for i in range(5):
        ed.spawn("StaticMeshActor", f"Shelf{i}", (0, 200 * i, 0), mesh="/Game/Props/Crate")
    yield 1.0
    ed.begin_level_change("/Game/Maps/Main")
    yield 0.5
    ed.end_level_change()


def last_touches(ed):
    """The peer that took over follows as the first one did"""
    ed.move(ed.actor("Prop1"), (1, 2, 3))
    ed.rename(ed.actor("Prop18"), "The last one")
    ed.delete(ed.actor("Prop19"))
    yield 0.1


STEPS = (drag, shove, relabel, swap_meshes, add_and_remove, play, change_level)
QUICK_STEPS = (swap_meshes, change_level)


def held(ed):
    """What the level holds, straight from its actors: the truth that the mirror has to equal."""
    import unreal
    shown = (unreal.StaticMeshActor, unreal.Light, unreal.CameraActor, unreal.TextRenderActor)
    actors = {}
    for actor in ed.actors():
        meshes = [c.static_mesh for c in actor.get_components_by_class(unreal.StaticMeshComponent)]
        if not (isinstance(actor, shown) or meshes):
            continue
        mesh = meshes[0] if isinstance(actor, unreal.StaticMeshActor) else None
        actors[actor.get_path_name()] = {
            "label": actor.get_actor_label(), "tags": [str(tag) for tag in actor.tags],
            "folder": str(actor.get_folder_path()).replace("None", ""),
            "location": actor.get_actor_location().to_tuple(),
            "mesh": mesh.get_path_name() if mesh else ""}
    world = unreal.get_editor_subsystem(unreal.UnrealEditorSubsystem).get_editor_world()
    return {"world": world.get_path_name(), "actors": actors}


def script(ed):
    """Run by the editor program: makes each step that the demo names, and says what there is."""
    while True:
        while not select.select([sys.stdin], [], [], 0)[0]:
            yield 0.02
        name = sys.stdin.readline().strip()
        if not name:                                    # the demo has ended
            return
        yield from globals()[name](ed)
        print(ANSWER + json.dumps(held(ed)), flush=True)


# -- the demo's side

class EditorProgram:
    """The editor as a process of ours; it is ended on every way out of the context."""

    def __init__(self, plugin, actors):
        self.complaints = []        # warnings and errors in its log
        self._lines = queue.Queue()
        self._process = subprocess.Popen(
            [sys.executable, "-m", "sim", "--plugin", plugin.resolve(), "--actors", str(actors),
             "--script", __file__, "--exit-when-done", "--seconds", str(MOST_SECONDS)],
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


def differences(peer, level):
    """Where the peer's mirror isn't what the level holds, a line each."""
    if peer.world != level["world"]:
        return [f"the mirror shows {peer.world}, the editor {level['world']}"]
    actors = level["actors"]
    found = [f"{aid} is only in the {'mirror' if aid in peer.actors else 'level'}"
             for aid in sorted(actors.keys() ^ peer.actors.keys())]
    for aid in sorted(actors.keys() & peer.actors.keys()):
        true, record = actors[aid], peer.actors[aid]
        told = {"label": record["label"], "folder": record["folder"],
                "mesh": record.get("asset", ""), "tags": record.get("tags", []),
                "location": record["xf"][:3]}
        off = max(abs(a - b) for a, b in zip(true["location"], told["location"]))
        found += [f"{aid}: {key} is {told[key]}, in the editor {true[key]}" for key in told
                  if (off > LARGEST_ERROR if key == "location" else told[key] != true[key])]
    return found


class Demo:
    """The link as a spectator sees it: the editor, the linked peer, and all peers there were."""

    def __init__(self, editor):
        self.editor = editor
        self.port = int(editor.answer(r".*listening on 127\.0\.0\.1:(\d+)", time.sleep))
        self.peers = []
        self.peer = None            # the one that is linked
        self.messages = 0
        self.level = None           # what the editor last held
        self._shown = {}            # message type -> how many came in this step

    def connect(self, name, **hello):
        """A new peer that has said hello."""
        peer = Peer(ports=self.port)
        self.peers.append(peer)
        peer.listener = lambda msg: self._show(name, peer, msg)
        peer.hello(name, **hello)
        return peer

    def link(self, name, **hello):
        """A new peer that has the level; it becomes the one that is linked."""
        peer = self.connect(name, **hello)
        peer.wait("snapshot", timeout=PATIENCE)
        peer.synced()
        self.peer = peer

    def _show(self, name, peer, msg):
        self.messages += 1
        count = self._shown[msg["t"]] = self._shown.get(msg["t"], 0) + 1
        if count <= MOST_LINES:
            print(f"  {name:<7} {describe(peer, msg, sys.stdout.isatty())}", flush=True)

    @contextlib.contextmanager
    def heading(self, text):
        print(f"\n{text}", flush=True)
        self._shown.clear()
        yield
        for kind, count in self._shown.items():
            if count > MOST_LINES:
                print(f'  {"":<7} and {count - MOST_LINES} more "{kind}"')

    def edit(self, step):
        """One step in the editor, and what the peer hears until its mirror has followed."""
        with self.heading(step.__doc__):
            self.editor.tell(step.__name__)
            self.level = json.loads(self.editor.answer(ANSWER + "(.*)", self.peer.pump))
            self.follow()

    def follow(self):
        """Until the mirror equals the level, and stays so."""
        end = time.monotonic() + PATIENCE
        equal_since = None
        while equal_since is None or time.monotonic() - equal_since < QUIET:
            self.peer.pump(0.05)
            self.peer.check()
            different = differences(self.peer, self.level)
            if different and time.monotonic() > end:
                raise Failed("\n".join(["the mirror doesn't follow:", *different[:10]]))
            equal_since = None if different else equal_since or time.monotonic()

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
        faults = self.editor.complaints + [text for peer in self.peers for text in peer.faults]
        known = [text for text in faults if text.endswith(NOT_YET)]
        if known:
            print(f"({len(known)} records lack fields that the module doesn't fill yet)")
        return [text for text in faults if text not in known]


def show(editor, steps):
    """The whole demo. Raises Failed or PeerError where it can't go on; returns the faults."""
    demo = Demo(editor)
    with demo.heading(f"A peer connects on port {demo.port} and gets the level"):
        demo.link("first")
    for step in steps:
        demo.edit(step)
    demo.take_over()            # the place for an act in which the peer edits
    demo.edit(last_touches)
    print(f"\n{demo.messages} messages. At the end the mirror equals the level, actor by actor: "
          f"{len(demo.level['actors'])} actors in {demo.peer.level}.")
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
            faults = show(editor, QUICK_STEPS if args.quick else STEPS)
    except (Failed, PeerError) as error:
        faults = [str(error)]
    for text in faults:
        print(f"demo: {text}", file=sys.stderr)
    print(f"{'Not all is well' if faults else 'All is well'}, {time.monotonic() - begun:.1f} s.")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
