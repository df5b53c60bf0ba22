"""The interpreter's own allocations fail, one after the other: nothing crashes, leaks or is forgotten."""
import gc
import sys

import pytest

memory = pytest.importorskip("_testcapi")
if hasattr(sys, "gettotalrefcount"):
    pytest.skip("an interpreter for debugging ends where a call of its own fails without an error",
                allow_module_level=True)

XF = [1.0, 2.0, 3.0] + [1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0] + [1.0] * 3
RUNS = 60  # per sweep


def starved(call, begin, end):
    """Runs it with the allocations from the begin-th to before the end-th (0: all) failing.

    Gives whether it came to allocation `begin`, where `end` is 0.
    """
    gc.collect()  # empties the interpreter's stores of spare objects, too
    memory.set_nomemory(begin, end)
    try:
        call()
    except Exception:
        pass
    try:
        bytes(2000)
        return False
    except MemoryError:
        return True
    finally:
        memory.remove_mem_hooks()


def truth_of(K, ed):
    """What the peer's copy of the level should be."""
    return {aid: K._info(actor, aid, True, True) for aid, actor in K._list_actors().items()}


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
@pytest.mark.parametrize("what", [
    "tick", "moved", "listed", "snapshot", "xf", "rename", "tags", "delete", "spawn", "select",
    "scope", "hello", "start"])
def test_no_memory(K, ed, connect, tick, clock, what):
    mesh = ed.make_mesh("/Game/Props/Chair")
    chair = ed.spawn("StaticMeshActor", label="Chair", mesh=mesh, tags=("a",))
    lamp = ed.spawn("PointLight", label="Lamp")
    chair_id, lamp_id = chair.get_path_name(), lamp.get_path_name()
    peer = connect()
    turn = [0]

    def prepare():
        turn[0] += 1
        if what == "delete":
            message["ids"] = [ed.spawn("PointLight").get_path_name()]
        elif what == "spawn":
            ed.delete(*ed.actors()[2:])
        elif what == "moved":
            ed.move(lamp, location=(turn[0], 0, 0))
            ed.rename(chair, label=f"Chair {turn[0]}")
        elif what == "listed":
            ed.delete(*ed.actors()[2:])
            ed.spawn("PointLight", label=f"New {turn[0]}")
            K._S["scan_i"] = 9

    message = {"xf": {"items": [[chair_id, XF], [lamp_id, XF]]},
               "rename": {"id": chair_id, "label": "Stool", "folder": "A/B"},
               "tags": {"id": chair_id, "tags": ["b", "c"]}, "delete": {"ids": [lamp_id]},
               "spawn": {"kind": "light", "light": {"type": "spot"}, "xf": XF, "tmp": 1, "label": "x"},
               "select": {"ids": [chair_id], "frame": True}, "scope": {"folders": "A"},
               "hello": {"version": 16, "client": "again"}}.get(what)

    def call():
        if message:
            K._handle({"t": what, **message})
        elif what == "snapshot":
            K._snapshot()
        elif what == "start":
            K.start()
        else:
            K._tick(0.3)

    def run(begin, end):
        nonlocal peer
        prepare()
        clock.advance(0.6)
        K._S["step_frame"] = None
        reached = starved(call, begin, end)
        K._S.pop("last_error", None)
        if what == "start":
            K.stop()
            assert K._S["conn"] is K._S["server"] is K._S["handle"] is None
            peer.pump()
            peer = connect()
        return reached

    def settle():
        nonlocal lamp, lamp_id
        if what in ("snapshot", "hello", "scope"):
            K._h_scope({})
            K._h_resync({})
        K._S["scan_i"] = 10**6  # lists the level next
        tick(1.5, 0.3)
        peer.pump()
        level = truth_of(K, ed)
        assert K._S.get("last_error") is None
        assert {aid: entry["info"] for aid, entry in K._S["known"].items()} == level
        if what not in ("xf", "rename", "tags", "delete"):  # of which it isn't told
            assert peer.actors == level
        peer.faults.clear()
        peer.errors.clear()
        peer.clear()
        ed.clear_log()
        ed.clear_history()

    gc.collect()
    gc.freeze()
    last = beyond = 0
    while beyond < 5:
        assert last < 10**6, "it never gets through"
        beyond = 0 if run(last, 0) else beyond + 1
        last += max(1, last // 20)
        settle()
    single = range(0, last, max(1, last // RUNS))
    for _ in range(2):      # in the first the interpreter's caches fill up
        gc.collect()
        blocks = sys.getallocatedblocks()
        for begin in single:
            run(begin, begin + 1)
            settle()
        gc.collect()
        grown = sys.getallocatedblocks() - blocks
    if what not in ("tick", "delete", "start"):  # in which the stand-in keeps something
        assert grown < 4 * len(single)
    gc.unfreeze()
