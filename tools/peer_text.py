"""Messages as text: one readable line for each, whichever side sends it."""
import json

def label_of(peer, aid):
    """An actor's label, or the last piece of its id if the mirror doesn't have it."""
    return peer.actors.get(aid, {}).get("label") or short(aid)


def short(path):
    """The last piece of an object path."""
    return path.rsplit(".", 1)[-1]


def some(items, limit=3):
    """The first few of a list in words: "a, b, c and 9 more"."""
    items = list(items)
    rest = f" and {len(items) - limit} more" if len(items) > limit else ""
    return (", ".join(map(str, items[:limit])) or "none") + rest


def point(values):
    """The first three numbers as "(x, y, z)"."""
    return "(" + ", ".join(f"{v:.1f}" for v in values[:3]) + ")"


def fields(record):
    """A record as "key value, key value"; long values are cut."""
    return ", ".join(f"{k} {json.dumps(v, ensure_ascii=False)[:80]}" for k, v in record.items())


def actor_text(rec):
    folder = f"  in {rec['folder']}" if rec["folder"] else ""
    return f"{rec['kind']}  {rec['label']}{folder}  at {point(rec['xf'])}"


def snapshot_text(_peer, msg):
    kinds = sorted(str(rec["kind"]) for rec in msg["actors"])
    counts = ", ".join(f"{kinds.count(k)} {k}" for k in dict.fromkeys(kinds)) or "nothing"
    gone = f"; {len(msg['gone'])} gone" if "gone" in msg else ""
    return f"{msg['level'] or '(no level)'}: {counts}{gone}"


def props_text(peer, msg):
    parts = []
    for key in ("light", "cam", "text"):
        new = msg.get(key)
        if new:
            old = peer.actors.get(msg["id"], {}).get(key, {})
            changes = [f"{k} {old[k]} → {v}" for k, v in new.items() if k in old and old[k] != v]
            parts.append(", ".join(changes) or fields(new))
    return f"{label_of(peer, msg['id'])}  {'; '.join(parts)}{'  (echo)' if msg.get('echo') else ''}"


def labels_text(peer, msg):
    return some((label_of(peer, aid) for aid in msg["ids"]), 6)


GREEN, RED, YELLOW, BLUE, CYAN, GREY = 32, 31, 33, 34, 36, 90

# Message type -> (verb, colour, text from the peer as it was before the message, and the message).
TEXTS = {
    "hello": ("hello", BLUE, lambda p, m:
              f"{m['project']}, version {m['version']}, cache {m['cache']}"),
    "snapshot": ("snapshot", BLUE, snapshot_text),
    "assets": ("assets", GREY, lambda p, m: some((short(e["path"]) for e in m["items"]), 6)),
    "add": ("add", GREEN, lambda p, m: actor_text(m["actor"])),
    "spawned": ("spawned", GREEN, lambda p, m: actor_text(m["actor"])),
    "spawn_failed": ("failed", RED, lambda p, m: f"spawn: {m['msg']}"),
    "remove": ("remove", RED, labels_text),
    "xf": ("move", CYAN, lambda p, m:
           some(f"{label_of(p, aid)}  → {point(xf)}" for aid, xf in m["items"])),
    "set_mesh": ("mesh", CYAN, lambda p, m:
                 f"{label_of(p, m['id'])}  → {short(m['asset']) or 'none'}"),
    "props": ("props", CYAN, props_text),
    "mats": ("mats", CYAN, lambda p, m: f"{label_of(p, m['id'])}  " + some(
        f"slot {i} {name} → {short(path)}" for i, name, _own, path in m["mats"])),
    "rename": ("rename", CYAN, lambda p, m: f"{label_of(p, m['id'])}  → {m['label']}"
               + (f"  in {m['folder']}" if m["folder"] else "")),
    "tags": ("tags", CYAN, lambda p, m: f"{label_of(p, m['id'])}  {some(m['tags'], 8)}"),
    "group": ("group", CYAN, lambda p, m:
              f"{label_of(p, m['id'])}  {len(m['comps'])} components"),
    "sel": ("select", CYAN, labels_text),
    "show": ("show", CYAN, labels_text),
    "unknown": ("unknown", RED, labels_text),
    "cam": ("camera", GREY, lambda p, m:
            f"at {point(m['c'])}, forward {point(m['c'][3:])}, fov {m['c'][9]:g}"),
    "status": ("status", YELLOW, lambda p, m: m["msg"] or "running"),
    "busy": ("busy", YELLOW, lambda p, m: m["what"] or "done"),
    "error": ("error", RED, lambda p, m: m["msg"]),
    "refused": ("refused", RED, lambda p, m: m["msg"]),
    "levels": ("levels", BLUE, lambda p, m: f"{len(m['levels'])}, open: {m['current'] or 'none'}"),
    "delete": ("delete", RED, labels_text),
    "select": ("select", CYAN, labels_text),
    "spawn": ("spawn", GREEN, lambda p, m:
              f"{m['kind']}  {m['label']}  at {point(m['xf'])}"),
    "dup": ("duplicate", GREEN, lambda p, m:
            f"{label_of(p, m['src'])}  → {m['label']}  at {point(m['xf'])}"),
}


def describe(peer, msg, colour=False):
    """One readable line for a message that the mirror hasn't taken in yet."""
    failed = msg.get("ok") is False or bool(msg.get("error"))
    verb, paint, text = TEXTS.get(msg["t"], (msg["t"], RED if failed else BLUE, None))
    rest = {k: v for k, v in msg.items() if k != "t"}
    try:
        text = text(peer, msg) if text else fields(rest)
    except (KeyError, IndexError, TypeError, ValueError, AttributeError):
        text = fields(rest)                     # malformed; it is in the faults, too
    text = "".join(c if c.isprintable() else "\ufffd" for c in text)
    verb = f"{verb:<9}"
    return f"\x1b[{paint}m{verb}\x1b[0m {text}" if colour else f"{verb} {text}"
