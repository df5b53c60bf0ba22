"""Every editor operation that the module calls fails while a scripted session runs: once, or from
some call on until the session's end.

The tick survives, what was promised an answer gets one (if it failed but once), no transaction
stays open, and once the editor is well again a resync brings peer and level together.
"""
from rig import Finding, Rig, compare, examples, plain_mirror, true_level, xf_at

# Request -> what answers it. "error" answers anything.
ANSWERS = {"hello": {"snapshot"}, "resync": {"snapshot"}, "spawn": {"spawned", "spawn_failed"},
           "dup": {"spawned", "spawn_failed"}, "props": {"props"}, "need_levels": {"levels"},
           "brush_get": {"brush"}, "cam_get": {"cam"}, "open_level": {"level_opened"}}


def requests(rig):
    """The script's messages, in order; each goes by itself, so that its answer is known."""
    by_kind = examples(rig)
    label = {a._label: a._path for a in rig.ed.actors()}
    prop = label["Prop0"]
    spawn = {"t": "spawn", "xf": xf_at(1, 2, 3), "label": "New"}
    light = by_kind["props"] | {"id": label["SpotLight"], "light": {
        "type": "spot", "color": [1, 0.5, 0.2], "cd": 20, "outer": 30, "temp": 4000}}
    return [
        by_kind["hello"], by_kind["synced"], by_kind["opts"], by_kind["sel_mode"],
        by_kind["cam_mode"],
        {"t": "xf", "items": [[prop, xf_at(5, 5, 5)], [label["Shot"], xf_at(6, 6, 6)]]},
        {"t": "drag_end"},
        spawn | {"tmp": 1, "kind": "mesh", "asset": rig.chair._path},
        spawn | {"tmp": 2, "kind": "light", "light": {"type": "rect", "cd": 3}},
        spawn | {"tmp": 3, "kind": "text", "text": {"text": "Hi"}},
        spawn | {"tmp": 4, "kind": "camera", "cam": {"focal": 40}},
        {"t": "dup", "tmp": 5, "src": prop, "xf": xf_at(9, 9, 9), "label": "Copy"},
        {"t": "rename", "id": prop, "label": "Stool", "folder": "A"},
        {"t": "tags", "id": prop, "tags": ["new"]}, light,
        {"t": "props", "id": label["Sign"], "text": {"text": "Stop", "size": 12}},
        {"t": "props", "id": label["Shot"], "cam": {"focal": 30, "fstop": 4}},
        {"t": "set_mesh", "id": prop, "asset": rig.table._path},
        {"t": "select", "ids": [prop], "frame": True, "focus": True},
        by_kind["exposure"], by_kind["cam"], {"t": "cam_get"}, by_kind["brush_set"],
        {"t": "brush_get"}, by_kind["asking"], {"t": "need_levels"},
        {"t": "scope", "exclude": "Nothing"},
        {"t": "delete", "ids": [label["Prop1"]]},
        {"t": "resync", "have": [prop, label["Prop1"]]},
        {"t": "open_level", "path": "/Game/Maps/Other", "discard": True},
    ]


def user_edits(rig):
    ed = rig.ed
    a = ed.actor("Prop2") or ed.actors()[0]
    ed.select(a)
    ed.move(a, (7, 7, rig.random.randint(0, 99)))
    ed.rename(a, "Renamed", "Users")
    ed.retag(a, "mine")
    ed.set(ed.actor("PointLight"), intensity=9.0)
    ed.duplicate(a)
    ed.delete(ed.actor("Prop3") or ed.actor("Renamed"))


def check_answer(msg, answers, case):
    wanted = ANSWERS.get(msg["t"])
    got = [m["t"] for m in answers]
    if wanted and not (wanted | {"error"}) & set(got):
        raise Finding(f'"{msg["t"]}" has no answer, only {got}', case)
    if msg["t"] in ("spawn", "dup"):
        tmps = [m["tmp"] for m in answers if m["t"] in ("spawned", "spawn_failed")]
        if tmps != [msg["tmp"]]:
            raise Finding(f'"{msg["t"]}" of tmp {msg["tmp"]} is answered for {tmps}', case)


def session(rig, case=None, answered=True):
    """Runs the script; gives the peer. A request's answers may take a few ticks."""
    peer = rig.peer()
    rig.tick(0.1)
    for msg in requests(rig):
        peer.send(msg)
        rig.tick(0.6)
        answers = peer.take("brush")
        if answered:
            check_answer(msg, answers, case)
        rig.check_quiet(case)
        if peer.closed:
            raise Finding("the editor closed the connection", case)
        if msg["t"] == "synced":
            user_edits(rig)
            rig.tick(2.5)
        if msg["t"] not in ("open_level", "hello"):
            rig.check_own_undo_step(case)
    return peer


def recorded():
    """The operations that the session calls."""
    rig = Rig(0)
    try:
        rig.start()
        with rig.ed.record() as called:
            session(rig)
        rig.K._S.pop("last_error", None)
        return sorted(called)
    finally:
        rig.close()


def together_again(rig, peer, case):
    peer.faults.clear()
    peer.send({"t": "hello", "version": 16})
    rig.tick(0.1)
    peer.send({"t": "synced"})
    rig.settle(peer)
    peer.send({"t": "resync"})
    rig.settle(peer)
    rig.check_peer(peer, case)
    mirror = plain_mirror(peer.actors)
    compare(true_level(rig.ed), {aid: {k: rec[k] for k in ("label", "folder", "at", "tags")}
                                 for aid, rec in mirror.items()},
            "the level and the mirror", case)
    rig.check_quiet(case)


def fail_once(seed, operation, count):
    rig = Rig(seed)
    try:
        rig.start()
        after = rig.random.choice((0, 0, 1, 2, 5, 20, 100))
        once = rig.random.random() < 0.6
        fault = rig.ed.inject(operation, after=after, times=1 if once else None)
        case = f"{operation} fails {'on' if once else 'from'} call {after + 1}"
        peer = session(rig, case, once)
        rig.ed.heal()
        together_again(rig, peer, case)
        count("failed operations" if fault.hits else "operations not reached")
    finally:
        rig.close()


def run(seed, count, every=1):
    for i, operation in enumerate(recorded()):
        if (i + seed) % every == 0:
            fail_once(seed * 1000 + i, operation, count)


def run_short(seed, count):
    run(seed, count, every=4)
