"""No message and no failing path keeps memory or references: a thousand repetitions leave the
interpreter as it was, but for what its caches take.
"""
import sys

from rig import NONE, Finding, Rig, collect, examples

WARM_UP = 60
TRIES = 3
BAD = {"items": [["x"], 5], "ids": 5, "id": ["no"], "xf": [1, 2], "tags": 5, "light": 3, "c": [1],
       "kinds": 5, "comp": "x", "version": "x", "path": 5, "what": 5}
# Operations that fail, each in the way of one message.
FAULTS = {"spawn": "EditorActorSubsystem.spawn_actor_from_object", "dup": "Actor.set_actor_label",
          "xf": "Actor.set_actor_transform", "rename": "Actor.set_actor_label",
          "tags": "Actor.modify", "props": "Actor.get_actor_label",
          "delete": "EditorActorSubsystem.destroy_actor", "need_levels": "World.get_path_name",
          "hello": "UnrealEditorSubsystem.get_editor_world",
          "select": "EditorActorSubsystem.set_selected_level_actors"}


class Watched:
    """Counts blocks and references to what the handlers borrow all the time."""

    def __init__(self, rig, msg):
        import unreal
        self.objects = [None, True, False, rig.K, rig.K._S, rig.K.HANDLERS, unreal, unreal.Vector,
                        unreal.Transform, rig.chair, rig.ed.actors()[0], msg, NONE,
                        msg.get("xf"), msg.get("tags"), msg.get("id"), RuntimeError]

    def __call__(self):
        collect()
        total = getattr(sys, "gettotalrefcount", int)()
        return [sys.getallocatedblocks(), total, *map(sys.getrefcount, self.objects)]


def repeat(rig, peer, msg, times):
    """Handles the message; what grows by design is emptied."""
    state = rig.ed.state().keys()
    for i in range(times):
        rig.K._handle(msg)
        if msg["t"] in ("spawn", "dup", "exposure"):
            fresh = [a for a in rig.ed.actors() if a._path not in state]
            if fresh:
                rig.K._h_delete({"ids": [a._path for a in fresh]})
        if i % 20 == 19 or i == times - 1:
            rig.tick()
            peer.pump()
            peer.clear()
            for kept in (peer.errors, peer.faults, peer._named, peer.actors, peer.assets):
                kept.clear()
            rig.ed.clear_log()
            rig.ed.clear_history()
            rig.K._S["kinds"].clear()
            rig.K._S["touched"].clear()
            rig.K._S["known"] = {a: e for a, e in rig.K._S["known"].items() if a in state}
            rig.K._S.pop("bad_actors", None)
            rig.K._S.pop("fps", None)


def check_flat(rig, peer, msg, times, what):
    """A leak shows each time; what the interpreter's caches take while they settle doesn't."""
    repeat(rig, peer, msg, WARM_UP)
    count = Watched(rig, msg)
    for _ in range(TRIES):
        before = count()
        repeat(rig, peer, msg, times)
        grown = [b - a for a, b in zip(before, count(), strict=True)]
        most = max(grown)
        if most < times // 2:
            return
    at = grown.index(most)
    name = ["blocks", "references"][at] if at < 2 else f"to {count.objects[at - 2]!r:.60}"
    raise Finding(f"{what} of \"{msg['t']}\" keeps {most} {name} in {times} times", msg)


def check_type(seed, kind, times, count):
    rig = Rig(seed)
    try:
        peer = rig.connect()
        msg = examples(rig)[kind]
        if kind in ("delete", "open_level"):
            # Once done there is nothing left to do: this is the way of nothing to do.
            rig.K._handle(msg)
            rig.tick(0.1)
        for path, case, fault in (("success", msg, None), ("refusal", msg | BAD, None),
                                  ("failure", msg, FAULTS.get(kind))):
            if path == "failure" and not fault:
                continue
            if fault:
                rig.ed.inject(fault, times=None)
            check_flat(rig, peer, case, times, path)
            rig.ed.heal()
            count(f"repetitions of a {path}", times)
    finally:
        rig.close()


def run(seed, count, times=1000):
    for i, kind in enumerate(examples_of_handlers()):
        check_type(seed * 100 + i, kind, times, count)


def run_short(seed, count):
    run(seed, count, times=200)


def examples_of_handlers():
    import kestrix
    return sorted(kestrix.HANDLERS)
