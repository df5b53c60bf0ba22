"""Random and mutated messages into every handler.

After each the editor has seen no exception, the connection lives, the next good message works, and
what was refused has changed nothing. At the end of a round the mirror that the link keeps is the
level: whatever was half done is known.
"""
from rig import Finding, Rig, encode, examples

INF, NAN = float("inf"), float("nan")
NASTY = [None, True, False, 0, -1, 1, 2**63, -2**64, 10**400, 1e308, -1e308, 1e-320, -0.0, INF,
         -INF, NAN, "", " ", "0", "x" * 5000, "\0", "a\0b", "\ud800", "é\U0001f600", "None",
         "/Game/Maps/Main.Main", "../../etc", "{}", [], {}, [[]], [None], [[], {}], {"": None},
         {"t": "xf"}, ["x"] * 300, [1e30] * 15, [NAN] * 15, ["\ud800"], {"\ud800": "\ud800"}]
# A refusal of one of these may come after a part was applied: other items, other settings.
PARTIAL = {"xf", "props"}


def mutate_value(dice, value, depth=0):
    """`value` with something in it replaced by what doesn't belong there."""
    if depth < 4 and isinstance(value, (list, dict)) and value and dice.random() < 0.75:
        copy = value.copy()
        key = dice.choice(list(copy)) if isinstance(copy, dict) else dice.randrange(len(copy))
        chance = dice.random()
        if chance < 0.15:
            del copy[key]
        elif chance < 0.2 and isinstance(copy, list):
            copy.append(dice.choice(NASTY))
        else:
            copy[key] = mutate_value(dice, copy[key], depth + 1)
        return copy
    return dice.choice(NASTY)


def mutate_message(dice, msg):
    for _ in range(dice.choice((1, 1, 2, 3))):
        keys = [k for k in msg if k != "t"] or ["id"]
        key = dice.choice(keys + ["t"] if dice.random() < 0.1 else keys)
        msg = dict(msg)
        if dice.random() < 0.15:
            msg.pop(key, None)
        else:
            msg[key] = mutate_value(dice, msg.get(key))
    return msg


def check_refused(rig, before, after, msg, answers, case):
    """What the link refused or doesn't know has changed nothing."""
    refused = any(m["t"] in ("error", "spawn_failed") for m in answers)
    known = isinstance(msg.get("t"), str) and msg["t"] in rig.K.HANDLERS
    if known and (not refused or msg["t"] in PARTIAL):
        return
    if before != after:
        changed = [aid for aid in before.keys() | after.keys()
                   if before.get(aid) != after.get(aid)]
        raise Finding(f"a refused message changed {changed[:3]}", case)


def try_message(rig, peer, msg):
    rig.K._drag_settle(True)    # within the tick it would be a change of another message's
    case, before = encode(msg)[:1500], rig.ed.state()
    peer.send_raw(encode(msg) + b"\n")
    rig.tick()
    if rig.K._S.get("errors", 0):
        raise Finding(f"the tick failed: {rig.K._S['last_error']}", case)
    check_refused(rig, before, rig.ed.state(), msg, peer.take(), case)
    rig.check_quiet(case)
    if rig.K._S["conn"] is None or rig.K._S["conn"].closed:
        raise Finding("the connection ended", case)
    peer.send_raw(b'{"t":"need_levels"}\n')
    rig.tick()
    if "levels" not in [m["t"] for m in peer.take()]:
        raise Finding(f"the next good message found no answer {rig.K._S['pending']}", case)
    peer.clear()
    peer.faults.clear()     # its mirror doesn't know what broken messages did


def run(seed, count):
    rig = Rig(seed)
    try:
        peer = rig.connect()
        for i in range(150):
            msg = rig.random.choice(list(examples(rig).values()))
            try_message(rig, peer, mutate_message(rig.random, msg) if i % 7 else msg)
            count("messages")
            if len(rig.ed.actors()) < 8:
                rig.furnish(4)
            if len(rig.ed.actors()) > 60:
                rig.ed.open_level("/Game/Maps/Main")
            if i % 30 == 29:
                rig.check_own_undo_step()
        rig.settle(peer)
        rig.check_known()
    finally:
        rig.close()
