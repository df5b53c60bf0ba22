#!/usr/bin/env python3
"""The other end of the link from a terminal: watches it, sends messages, makes common edits.

    python3 tools/peer.py editors
    python3 tools/peer.py watch
    python3 tools/peer.py move Chair_3 120 40 0
    python3 tools/peer.py send '{"t": "need_levels"}'

One peer is linked at a time: while Blender is linked, the editor refuses a second peer unless
--takeover is given.
"""
import argparse
import contextlib
import json
import math
import os
import sys
import time

import peer_assets
import peer_materials
from link_peer import HOST, PORTS, PeerError, editors, encode, resolve
from peer_talk import FAILURES, ask, greet, link, listen, post, report_faults, show, tell
from peer_text import label_of, point, short, some


# -- commands: each gets its peer and returns the exit code, None for 0

def watch(peer, args):
    """print what the editor sends, a line per message"""
    peer.listener = lambda msg: show(peer, msg, args.json)
    for msg in listen(peer, args.seconds):
        if msg["t"] == "snapshot":
            peer.synced()


def record(peer, args):
    """write every message with its time to a file, a JSON object a line"""
    with open(args.file, "w", encoding="utf-8") as file:     # not before an editor has answered
        for msg in listen(peer, args.seconds):
            at = round(time.monotonic() - peer.opened, 4)
            print(encode({"time": at, "msg": msg}).decode(), file=file, flush=True)
            if msg["t"] == "snapshot":
                peer.synced()


def send(peer, args):
    """send one message and print what comes back"""
    peer.clear()
    peer.listener = lambda msg: show(peer, msg, args.json)
    peer.send(args.message)
    return 1 if [m for m in listen(peer, args.wait) if m["t"] in FAILURES] else 0


def snapshot(peer, args):
    """print what the level holds, by kind"""
    if args.gallery:
        return peer_assets.gallery(peer, args)
    if args.json:
        for msg in peer.take():
            if msg["t"] in ("assets", "snapshot"):
                show(peer, msg, raw=True)
        return
    rows = {}
    for aid, rec in peer.actors.items():
        rows.setdefault(str(rec.get("kind")), []).append(label_of(peer, aid))
    print(f"{peer.level or '(no level)'}  {peer.world}\n{'kind':<9} {'count':>6}  names")
    for kind, names in [*sorted(rows.items()), ("(meshes)", sorted(map(short, peer.assets)))]:
        print(f"{kind:<9} {len(names):>6}  {some(names, 4)}")


def is_near(xf, wanted):
    return all(abs(a - b) < 0.01 for a, b in zip(xf, wanted))


def move(peer, args):
    """move an actor, keeping its rotation and scale"""
    aid = resolve(peer, args.actor)
    xf = [args.x, args.y, args.z] + peer.actors[aid]["xf"][3:]
    return post(peer, args, f"moved {label_of(peer, aid)} to {point(xf)}",
                lambda: aid in peer.actors and is_near(peer.actors[aid]["xf"], xf),
                {"t": "xf", "items": [[aid, xf]]}, {"t": "drag_end"})


def spawn(peer, args):
    """add an actor"""
    kind = "light" if args.kind in LIGHT_TYPES else args.kind
    msg = {"t": "spawn", "tmp": "console", "kind": kind, "label": args.label,
           "folder": args.folder, "xf": args.at + [1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1]}
    if kind == "light":
        msg["light"] = {"type": args.kind}
    elif kind == "text":
        msg["text"] = {"body": args.label or "Text"}
    elif kind == "mesh":
        msg.update({"asset": args.asset} if args.asset else {"empty": True})
    answer = ask(peer, args, msg, "spawned", "spawn_failed", match=lambda m: m["tmp"] == "console")
    show(peer, answer, args.json)
    if not args.json:
        print(answer["actor"]["id"])


def delete(peer, args):
    """delete actors"""
    ids = [resolve(peer, name) for name in args.actors]
    return post(peer, args, "deleted " + some([label_of(peer, aid) for aid in ids], 8),
                lambda: not any(aid in peer.actors for aid in ids), {"t": "delete", "ids": ids})


def rename(peer, args):
    """give an actor a new label, and with --folder a new folder"""
    wanted = {"label": args.label}
    if args.folder is not None:
        wanted["folder"] = args.folder
    aid = resolve(peer, args.actor)
    return post(peer, args, f"renamed {args.actor} to {args.label}",
                lambda: wanted.items() <= peer.actors.get(aid, {}).items(),
                {"t": "rename", "id": aid, **wanted})


def tag(peer, args):
    """replace an actor's tags; without tags, clear them"""
    aid = resolve(peer, args.actor)
    return post(peer, args, f"tagged {label_of(peer, aid)}: {some(args.tags, 8)}",
                lambda: peer.actors.get(aid, {}).get("tags", []) == args.tags,
                {"t": "tags", "id": aid, "tags": args.tags})


def light(peer, args):
    """change a light's settings and show what the editor made of them"""
    values = {key: getattr(args, key) for key in (*LIGHT_OPTIONS, "color", "shadows")}
    values = {key: value for key, value in values.items() if value is not None}
    if not values:
        raise PeerError("give at least one setting, such as --cd or --color")
    aid = resolve(peer, args.actor)
    if peer.actors[aid]["kind"] != "light":
        raise PeerError(f"{args.actor} isn't a light but a {peer.actors[aid]['kind']}")
    show(peer, ask(peer, args, {"t": "props", "id": aid, "light": values}, "props",
                   match=lambda m: m["id"] == aid and m.get("echo")), args.json)


def select_actors(peer, args):
    """select actors in the editor; without any, clear the selection"""
    ids = [resolve(peer, name) for name in args.actors]
    return post(peer, args, f"selected {some([label_of(peer, aid) for aid in ids], 8)}",
                lambda: True, {"t": "select", "ids": ids, "frame": args.frame})


def levels(peer, args):
    """list the project's levels; the open one has a star"""
    answer = ask(peer, args, {"t": "need_levels"}, "levels")
    if args.json:
        return show(peer, answer, raw=True)
    for level in answer["levels"]:
        print("*" if level["path"] == answer["current"] else " ", level["path"])


def open_level(peer, args):
    """open a level; unsaved changes need --save or --discard"""
    msg = {"t": "open_level", "path": args.path, "save": args.save, "discard": args.discard}
    answer = ask(peer, args, msg, "level_opened", timeout=120.0)
    if not answer["ok"]:
        reason = answer.get("msg", "no reason given")
        if answer.get("unsaved"):
            reason = f"{answer['level']} has {answer['unsaved']} unsaved, say --save or --discard"
        raise PeerError(f"{args.path} wasn't opened: {reason}")
    tell(args, f"{answer['path']} is open", path=answer["path"])


def camera(peer, args):
    """show the editor's view; given a place, move it there, keeping its direction"""
    def view():
        return ask(peer, args, {"t": "cam_get"}, "cam", match=lambda m: m.get("snap"))
    if len(args.at) not in (0, 3):
        raise PeerError("give X, Y and Z, or none of them")
    if args.at:
        peer.send({"t": "cam", "c": args.at + view()["c"][3:]})
    show(peer, view(), args.json)


def list_editors(_peer, args):
    """list who listens where, and with which project; no link is disturbed"""
    found = editors(args.host, args.port or PORTS, name=args.name)
    if args.json:
        print(json.dumps(found))
    for row in [] if args.json else found:
        print(f"{row['port']}  {row['state']:<7} {row['project'] or ''}".rstrip())
    if not found:
        raise PeerError("nobody listens")


# -- command line

LIGHT_TYPES = ("point", "spot", "rect", "sun")
SPAWN_KINDS = ("mesh", "text", "camera", *LIGHT_TYPES)
LIGHT_OPTIONS = {"cd": "candela", "lux": "lux, of a sun", "temp": "kelvin, 0 for none",
                 "angle": "degrees, of a sun", "radius": "reach in cm", "src": "source radius, cm",
                 "inner": "inner cone, degrees", "outer": "outer cone, degrees",
                 "w": "width of a rect, cm", "h": "height of a rect, cm"}


def number(text):
    value = float(text)
    if not math.isfinite(value):
        raise argparse.ArgumentTypeError(f"not a finite number: {text}")
    return value


def json_object(text):
    try:
        value = json.loads(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(f"not JSON: {error}") from error
    if not isinstance(value, dict):
        raise argparse.ArgumentTypeError(f"not a JSON object: {text}")
    return value


def common():
    """The options that every command takes, before its name or behind it."""
    options = argparse.ArgumentParser(add_help=False, argument_default=argparse.SUPPRESS)
    options.add_argument("--host", help=f"default: {HOST}")
    options.add_argument("--port", type=int, help="default: the first of 9920 to 9925 that answers")
    options.add_argument("--name", help="the name said in hello")
    options.add_argument("--takeover", action="store_true", help="replace a peer that is linked")
    options.add_argument("--scope", type=json_object, metavar="JSON",
                         help='what to mirror, such as {"kinds": {"light": false}, "radius_m": 50}')
    options.add_argument("--timeout", type=number, help="seconds to wait for an answer")
    options.add_argument("--json", action="store_true", help="answers as JSON, raw messages")
    return options


DEFAULTS = {"host": HOST, "port": None, "name": "peer", "takeover": False, "scope": None,
            "timeout": None, "json": False}


def parser():
    top = argparse.ArgumentParser(description=__doc__, allow_abbrev=False, parents=[common()],
                                  formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = top.add_subparsers(metavar="COMMAND", required=True)

    def command(name, run, *arguments, peer=link):
        sub = commands.add_parser(name, help=run.__doc__, description=run.__doc__,
                                  allow_abbrev=False, parents=[common()])
        sub.set_defaults(run=run, peer=peer)
        for argument, options in arguments:
            sub.add_argument(argument, **options)

    actor = ("actor", {"metavar": "ID|LABEL"})
    xyz = {"nargs": 3, "type": number, "metavar": ("X", "Y", "Z")}
    flag = {"action": "store_true"}
    wait = ("--wait", {"type": number, "default": 1.0, "help": "seconds to listen, default 1"})
    seconds = ("--seconds", {"type": number, "help": "stop by itself"})
    command("watch", watch, seconds, peer=greet)
    command("record", record, ("file", {"metavar": "FILE"}), seconds, peer=greet)
    command("editors", list_editors, peer=lambda args: contextlib.nullcontext())
    command("send", send, ("message", {"type": json_object, "metavar": "JSON"}), wait)
    command("snapshot", snapshot, ("--gallery", {
        "metavar": "DIR", "help": "write one picture of the level's meshes to this folder"}))
    command("move", move, actor, *[(axis, {"type": number}) for axis in "xyz"])
    command("spawn", spawn, ("kind", {"choices": SPAWN_KINDS}),
            ("--label", {"default": ""}), ("--folder", {"default": ""}),
            ("--at", xyz | {"default": [0, 0, 0]}),
            ("--asset", {"help": "path of a static mesh; without it the mesh actor is empty"}))
    command("delete", delete, ("actors", {"nargs": "+", "metavar": "ID|LABEL"}))
    command("rename", rename, actor, ("label", {"metavar": "NEWLABEL"}),
            ("--folder", {"help": "an empty one takes the actor out of its folder"}))
    command("tag", tag, actor, ("tags", {"nargs": "*", "metavar": "TAG"}))
    command("light", light, actor,
            *[("--" + key, {"type": number, "help": text}) for key, text in LIGHT_OPTIONS.items()],
            ("--color", xyz | {"metavar": ("R", "G", "B"), "help": "linear"}),
            ("--shadows", {"action": argparse.BooleanOptionalAction}))
    command("select", select_actors, ("actors", {"nargs": "*", "metavar": "ID|LABEL"}),
            ("--frame", flag | {"help": "bring them into view"}))
    command("levels", levels)
    command("open", open_level, ("path", {"metavar": "PATH"}), ("--save", flag),
            ("--discard", flag))
    command("camera", camera, ("at", {"nargs": "*", "type": number, "metavar": "X Y Z"}))
    peer_assets.add_commands(command, actor, flag)
    peer_materials.add_commands(command, flag)
    return top


def main(argv=None):
    """Runs one command. Exit code 0, 1 on a failure, 2 on a wrong command line, 130 on Ctrl-C."""
    for stream in (sys.stdout, sys.stderr):     # a console may lack an arrow
        stream.reconfigure(errors="replace")
    args = argparse.Namespace(**DEFAULTS | vars(parser().parse_args(argv)))
    try:
        with args.peer(args) as peer:
            code = args.run(peer, args) or 0
            if peer:
                report_faults(peer)
        sys.stdout.flush()
        return code
    except PeerError as error:
        print(f"peer: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:                   # the usual end of watch and record
        return 0 if args.run in (watch, record) else 130
    except OSError as error:
        if error.filename is None:              # the reader of a pipe has gone: nothing to flush
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        else:
            print(f"peer: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
