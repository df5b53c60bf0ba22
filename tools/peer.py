#!/usr/bin/env python3
"""The add-on's end of the link, for people and for tests.

`Peer` holds one connection to the editor and a mirror of what the editor has told. As a program
it watches the link, sends messages and makes common edits from a terminal:

    python3 tools/peer.py watch
    python3 tools/peer.py move Chair_3 120 40 0
    python3 tools/peer.py send '{"t": "need_levels"}'

One peer is linked at a time: while Blender is linked, the editor refuses a second peer unless
--takeover is given.
"""
import argparse
import difflib
import json
import math
import os
import select
import socket
import sys
import time

from peer_text import describe, label_of, point, short, some

HOST = "127.0.0.1"
PORTS = range(9920, 9926)
VERSION = 16

# Fields that every actor record has, and those that come on top for its kind.
RECORD_FIELDS = ("id", "kind", "label", "folder", "xf")
KIND_FIELDS = {"mesh": ("asset",), "skel": ("asset",), "light": ("light",), "camera": ("cam",),
               "text": ("text",), "group": ("cls",)}
ENTRY_FIELDS = ("path", "bmin", "bmax", "key", "stamp")


class PeerError(Exception):
    """The link failed; the text is one sentence for the user."""


def encode(msg):
    """The bytes of a message as both sides write it, without the line feed."""
    return json.dumps(msg, separators=(",", ":")).encode()


class Peer:
    """One connection to the editor, and a mirror of what the editor has told over it.

    Edits that the editor takes without an answer (xf, rename, tags, set_mesh, delete) go into
    the mirror when they are sent, for the editor doesn't echo them.
    """

    def __init__(self, host=HOST, ports=PORTS, timeout=2.0):
        """Connects to the first of `ports` (or to the one port given) that accepts.

        `timeout` is seconds per port. Raises PeerError if none accepts.
        """
        self.sock = _connect(host, [ports] if isinstance(ports, int) else list(ports), timeout)
        self.opened = time.monotonic()
        self.closed = False
        self.listener = None            # called with each message before the mirror takes it in
        self.messages = []
        # the mirror
        self.editor = None              # the editor's "hello"
        self.level = self.world = ""    # name and full path of the level of the last snapshot
        self.actors = {}                # id -> info record, kept up to date by every message
        self.assets = {}                # path -> asset entry
        self.gone = None                # ids that the last snapshot called gone; None if silent
        self.selection = []             # ids last reported as selected
        self.paused = False             # the editor plays
        self.busy = None                # what the editor is busy with
        self.errors = []                # texts of all "error" messages
        self.refused = None             # the editor's reason for refusing this peer
        self.faults = []                # texts: what the editor did against the protocol
        self._ready = False             # the editor takes deletes from us
        self._named = set()             # ids outside the mirror that our messages named
        self._seen = {}                 # message type -> index in messages where wait goes on
        self._taken = 0                 # the same for take
        self._in, self._out = bytearray(), bytearray()

    def __enter__(self):
        return self

    def __exit__(self, *_exc):
        self.close()

    def close(self):
        """Closes the connection; what has arrived stays readable. Harmless when repeated."""
        self.closed = True
        self.sock.close()

    # -- sending

    def hello(self, name="peer", version=VERSION, scope=None, have=None, pid=os.getpid(),
              takeover=False):
        """Sends "hello". Fields that are None are left out, and so is a false `takeover`."""
        msg = {"t": "hello", "client": name, "version": version, "scope": scope, "have": have,
               "pid": pid, "takeover": takeover or None}
        self.send({k: v for k, v in msg.items() if v is not None})

    def synced(self):
        """Tells the editor that the level copy is built: it then takes spawn, dup and delete."""
        self.send({"t": "synced"})

    def send(self, msg):
        """Sends a message given as a dict. Raises PeerError on a closed connection."""
        self.send_raw(encode(msg) + b"\n")
        try:
            self._note_own(msg)
        except (KeyError, TypeError, ValueError, AttributeError):
            pass                    # malformed on purpose: the editor won't apply it either

    def send_raw(self, data):
        """Sends bytes as they are. What the socket doesn't take now goes out with pump."""
        if self.closed:
            raise PeerError("the connection to the editor is closed")
        self._out += data
        self._flush()

    def _flush(self):
        try:
            while self._out:
                del self._out[:self.sock.send(self._out)]
        except (BlockingIOError, InterruptedError):
            pass
        except OSError:             # the end shows in the next read, behind the last messages
            self._out.clear()

    def _note_own(self, msg):
        """Puts an edit of ours that has no answer into the mirror."""
        kind = msg["t"]
        if kind == "hello":
            self._ready = msg.get("version", 1) < 2
        elif kind == "synced":
            self._ready = True
        elif kind == "xf":
            for aid, xf in msg.get("items", ()):
                if self._is_ours_to_move(aid):
                    self.actors[aid]["xf"] = list(xf)
        elif kind == "delete" and self._ready:
            for aid in filter(self._is_ours_to_move, msg.get("ids", ())):
                del self.actors[aid]
        elif kind in ("rename", "tags", "set_mesh") and msg["id"] in self.actors:
            rec = self.actors[msg["id"]]
            _set_fields(rec, {
                "rename": {"label": msg.get("label") or rec["label"],
                           "folder": msg.get("folder", rec["folder"])},
                "tags": {"tags": [tag for tag in msg.get("tags", ()) if tag]},
                "set_mesh": {"asset": msg.get("asset") or ""}}[kind])
        named = {msg.get("id"), *msg.get("ids", ()), *(item[0] for item in msg.get("items", ()))}
        self._named |= named - self.actors.keys()

    def _is_ours_to_move(self, aid):
        """The editor never moves or deletes landscapes and painted foliage for a peer."""
        rec = self.actors.get(aid)
        return rec and rec["kind"] != "terrain" and rec.get("cls") != "InstancedFoliageActor"

    # -- receiving

    def pump(self, timeout=0.0):
        """Takes in what has arrived and returns the new messages, oldest first.

        With nothing there yet it waits up to `timeout` seconds. The end of the connection is no
        error here: it sets `closed`.
        """
        if self.closed:
            return []
        self._flush()
        if timeout > 0:
            select.select([self.sock], [self.sock] if self._out else [], [], timeout)
            self._flush()
        while not self.closed:
            try:
                data = self.sock.recv(1 << 20)
            except (BlockingIOError, InterruptedError):
                break
            except OSError:
                data = b""
            if not data:
                self.close()
            self._in += data
        cut = self._in.rfind(b"\n") + 1
        lines = bytes(self._in[:cut]).split(b"\n")
        del self._in[:cut]
        parsed = (self._parse(line) for line in lines if line.strip())
        return [self._accept(msg) for msg in parsed if msg is not None]

    def _parse(self, line):
        """The message in a line, or None if it isn't one; faults in its form are noted."""
        try:
            msg = json.loads(line.decode())
        except ValueError as error:
            return self._fault(f"a line that isn't JSON ({error}): {line[:80]!r}")
        if not isinstance(msg, dict) or not isinstance(msg.get("t"), str):
            return self._fault(f'a message without "t": {line[:80]!r}')
        if encode(msg) != line:
            self._fault(f'"{msg["t"]}" isn\'t written as compact ASCII JSON: {line[:80]!r}')
        if b"-0.0" in line and _has_negative_zero(msg):
            self._fault(f'"{msg["t"]}" holds a negative zero')
        return msg

    def _accept(self, msg):
        self.messages.append(msg)
        if self.listener:
            self.listener(msg)
        try:
            self._apply(msg)
        except (KeyError, TypeError, ValueError, AttributeError) as error:
            self._fault(f'malformed "{msg["t"]}": {error!r}')
        return msg

    def wait(self, kind, match=None, timeout=5.0, idle=None):
        """Waits for a message of type `kind`, or of one of several types, and returns it.

        Each type has a position of its own in `messages`. A wait looks at the messages of its
        types from there on, also those that came before the call, takes the first for which
        `match(msg)` is true (any, without `match`) and moves the position behind it. So no
        message is returned twice, one that a wait has passed over is never returned, and
        different types can be waited for in any order.

        `idle` is called between looks, in place of sleeping: an editor that runs in the same
        thread gets its ticks there. Raises PeerError after `timeout` seconds, when the editor
        refuses this peer, and when the connection ends.
        """
        kinds = (kind,) if isinstance(kind, str) else tuple(kind)
        end = time.monotonic() + timeout
        self.pump()
        while True:
            start = {k: self._seen.get(k, 0) for k in kinds}
            for i in range(min(start.values()), len(self.messages)):
                msg = self.messages[i]
                if i >= start.get(msg["t"], math.inf) and (match is None or match(msg)):
                    self._seen.update({k: max(start[k], i + 1) for k in kinds})
                    return msg
            self._seen.update(dict.fromkeys(kinds, len(self.messages)))
            self.check()
            left = end - time.monotonic()
            if left <= 0:
                names = " or ".join(f'"{k}"' for k in kinds)
                why = ("; it is playing, and the link is paused" if self.paused
                       else f"; it is busy {self.busy}" if self.busy else "")
                raise PeerError(f"no {names} from the editor within {timeout:g} s{why}")
            if idle:
                idle()
            self.pump(0.0 if idle else left)

    def check(self):
        """Raises PeerError if the editor has refused this peer or the connection has ended."""
        if self.refused is not None:
            raise PeerError(f"the editor refused the link: {self.refused}")
        if self.closed:
            raise PeerError("the editor closed the connection")

    def take(self):
        """Pumps, and returns all messages since the last take or clear, waited for or not."""
        self.pump()
        new = self.messages[self._taken:]
        self._taken = len(self.messages)
        return new

    def clear(self):
        """Forgets all messages received so far; the mirror and the faults stay."""
        self.messages.clear()
        self._seen.clear()
        self._taken = 0

    # -- the mirror

    def _apply(self, msg):
        """Takes a message into the mirror; types that don't change it are left alone."""
        match msg["t"]:
            case "hello":
                self.editor = msg
            case "snapshot":
                self.level, self.world, self.gone = msg["level"], msg["world"], msg.get("gone")
                self.actors = {}
                for rec in msg["actors"]:
                    self._store(rec, "snapshot", is_new=True)
            case "assets":
                for entry in msg["items"]:
                    self._require(entry, ENTRY_FIELDS, f'"assets" entry {entry.get("path")}')
                    self.assets[entry["path"]] = entry
            case "add":
                self._store(msg["actor"], "add", is_new=True)
            case "spawned":             # may take the id of an actor that is being removed
                self._store(msg["actor"], "spawned")
            case "remove":
                for aid in msg["ids"]:
                    self._update(aid, "remove")
                    self.actors.pop(aid, None)
            case "xf":
                for aid, xf in msg["items"]:
                    self._check_xf(xf, "xf", aid)
                    self._update(aid, "xf", xf=xf)
            case "set_mesh":
                self._check_assets([msg["asset"]], "set_mesh", msg["id"])
                self._update(msg["id"], "set_mesh", asset=msg["asset"])
            case "props":
                new = {k: msg[k] for k in ("light", "cam", "text") if msg.get(k) is not None}
                self._update(msg["id"], "props", **new)
            case "mats":
                self._update(msg["id"], "mats", mats=msg["mats"])
            case "tags":
                self._update(msg["id"], "tags", tags=msg["tags"])
            case "rename":
                self._update(msg["id"], "rename", label=msg["label"], folder=msg["folder"])
            case "group":               # brings no signature, and the old one is no longer true
                self._check_assets([c.get("asset") for c in msg["comps"]], "group", msg["id"])
                self._update(msg["id"], "group", comps=msg["comps"], sig=None)
            case "sel":
                for aid in msg["ids"]:
                    self._update(aid, "sel")
                self.selection = msg["ids"]
            case "status":
                self.paused = msg["paused"]
            case "busy":
                self.busy = msg["what"]
            case "error":
                self.errors.append(msg["msg"])
            case "refused":
                self.refused = msg["msg"]

    def _store(self, rec, where, is_new=False):
        what = f'"{where}" record {rec.get("id")}'
        self._require(rec, RECORD_FIELDS + KIND_FIELDS.get(rec.get("kind"), ()), what)
        if is_new and rec["id"] in self.actors:
            self._fault(f"{what} is in the mirror already")
        self._check_xf(rec.get("xf"), where, rec["id"])
        paths = [c.get("asset") for c in rec.get("comps", ())]
        if rec.get("kind") != "skel":           # skeletal meshes have no catalogue entry
            paths.append(rec.get("asset"))
        self._check_assets(paths, where, rec["id"])
        self.actors[rec["id"]] = dict(rec)
        self._named.discard(rec["id"])

    def _update(self, aid, where, **values):
        """Sets fields of an actor's record. No such actor is a fault unless we brought it up."""
        if aid in self.actors:
            _set_fields(self.actors[aid], values)
        elif aid not in self._named:
            self._fault(f'"{where}" for {aid}, which the mirror doesn\'t have')

    def _require(self, record, names, what):
        lacking = [name for name in names if name not in record]
        if lacking:
            self._fault(f"{what} lacks {', '.join(lacking)}")

    def _check_xf(self, xf, where, aid):
        if not (isinstance(xf, list) and len(xf) == 15
                and all(type(v) in (int, float) and math.isfinite(v) for v in xf)):
            self._fault(f'"{where}" of {aid}: xf isn\'t 15 finite numbers: {xf!r:.120}')

    def _check_assets(self, paths, where, aid):
        for path in sorted({p for p in paths if p} - self.assets.keys()):
            self._fault(f'"{where}" of {aid}: no entry came for {path} before')

    def _fault(self, text):
        self.faults.append(text)


def _connect(host, ports, timeout):
    reason = "no port given"
    for port in ports:
        try:
            sock = socket.create_connection((host, port), timeout)
        except OSError as error:
            reason = error.strerror or str(error)
            continue
        sock.setblocking(False)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return sock
    where = f"port {ports[0]}" if len(ports) == 1 else f"ports {ports[0]} to {ports[-1]}"
    raise PeerError(f"no editor is listening on {host}, {where} ({reason})")


def _set_fields(rec, values):
    for key, value in values.items():
        if not value and key in ("tags", "mats", "sig"):    # absent, never empty
            rec.pop(key, None)
        else:
            rec[key] = value


def _has_negative_zero(value):
    if isinstance(value, (list, dict)):
        return any(map(_has_negative_zero, value.values() if isinstance(value, dict) else value))
    return isinstance(value, float) and value == 0 and math.copysign(1, value) < 0


def show(peer, msg, raw=False):
    colour = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
    print(encode(msg).decode() if raw else describe(peer, msg, colour), flush=True)


# -- the console's side of the link

FAILURES = ("error", "unknown", "spawn_failed")


def greet(args):
    """A connected peer that has said hello, by the global options."""
    peer = Peer(args.host, args.port or PORTS)
    peer.hello(args.name, scope=args.scope, takeover=args.takeover)
    return peer


def link(args):
    """A peer that has its snapshot and is ready for edits."""
    peer = greet(args)
    hear(peer, args, "hello", "snapshot")
    peer.synced()
    return peer


def report_faults(peer):
    for text in peer.faults:
        print(f"peer: fault: {text}", file=sys.stderr)
    peer.faults.clear()


def listen(peer, seconds):
    """Yields every message for that many seconds, without end if None."""
    end = math.inf if seconds is None else time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        yield from peer.pump(min(left, 3600.0))
        report_faults(peer)
        peer.clear()
        peer.check()


def post(peer, args, text, *msgs):
    """Sends messages that have no answer, says so with `text`, and listens for --wait seconds.

    Returns the exit code: 1 if the editor reports a failure.
    """
    for msg in msgs:
        peer.send(msg)
    print(text, flush=True)
    failures = [m for m in listen(peer, args.wait) if m["t"] in FAILURES]
    for msg in failures:
        print("peer: " + describe(peer, msg), file=sys.stderr)
    return 1 if failures else 0


def ask(peer, args, msg, *kinds, **how):
    """Sends `msg` and returns the answer of one of `kinds`; PeerError if the request failed."""
    peer.send(msg)
    return hear(peer, args, msg["t"], *kinds, **how)


def hear(peer, args, request, *kinds, match=None, timeout=10.0):
    """The answer of one of `kinds` to a request of that type; PeerError if the request failed."""
    def is_answer(m):
        if m["t"] == "error":
            return m["msg"].startswith(request + ": ")
        return match is None or match(m)
    answer = peer.wait((*kinds, "error"), is_answer, args.timeout or timeout)
    if answer["t"] in FAILURES:
        raise PeerError(f"the editor reports: {answer['msg']}")
    return answer


def resolve(peer, name):
    """The id of the actor with that id or exact label; PeerError naming candidates if unclear."""
    if name in peer.actors:
        return name
    ids = [aid for aid in peer.actors if label_of(peer, aid) == name]
    if len(ids) == 1:
        return ids[0]
    if ids:
        raise PeerError(f'the label "{name}" is ambiguous, give one of the ids: {some(ids, 8)}')
    labels = sorted({label_of(peer, aid) for aid in peer.actors})
    near = [text for text in labels if name.lower() in text.lower()]
    near = near or difflib.get_close_matches(name, labels, 8, 0.5)
    raise PeerError(f'no actor "{name}"' + (f"; similar labels: {some(near, 8)}" if near else ""))


# -- commands: each gets its peer and returns the exit code, None for 0

def watch(peer, args):
    """print what the editor sends, a line per message"""
    peer.listener = lambda msg: show(peer, msg, args.json)
    for msg in listen(peer, args.seconds):
        if msg["t"] == "snapshot":
            peer.synced()


def record(peer, args):
    """write every message with its time to a file, a JSON object a line"""
    with args.file as file:
        for msg in listen(peer, args.seconds):
            at = round(time.monotonic() - peer.opened, 4)
            print(encode({"time": at, "msg": msg}).decode(), file=file, flush=True)
            if msg["t"] == "snapshot":
                peer.synced()


def send(peer, args):
    """send one message and print what comes back"""
    peer.listener = lambda msg: show(peer, msg)
    peer.send(args.message)
    return 1 if [m for m in listen(peer, args.wait) if m["t"] in FAILURES] else 0


def snapshot(peer, args):
    """print what the level holds, by kind"""
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


def move(peer, args):
    """move an actor, keeping its rotation and scale"""
    aid = resolve(peer, args.actor)
    xf = [args.x, args.y, args.z] + peer.actors[aid]["xf"][3:]
    return post(peer, args, f"moved {label_of(peer, aid)} to {point(xf)}",
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
    show(peer, answer)
    print(answer["actor"]["id"])


def delete(peer, args):
    """delete actors"""
    ids = [resolve(peer, name) for name in args.actors]
    return post(peer, args, "sent: delete " + some((label_of(peer, aid) for aid in ids), 8),
                {"t": "delete", "ids": ids})


def rename(peer, args):
    """give an actor a new label, and with --folder a new folder"""
    msg = {"t": "rename", "id": resolve(peer, args.actor), "label": args.label}
    if args.folder is not None:
        msg["folder"] = args.folder
    return post(peer, args, f"renamed {args.actor} to {args.label}", msg)


def tag(peer, args):
    """replace an actor's tags; without tags, clear them"""
    aid = resolve(peer, args.actor)
    return post(peer, args, f"tagged {label_of(peer, aid)}: {some(args.tags, 8)}",
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
                   match=lambda m: m["id"] == aid and m.get("echo")))


def select_actors(peer, args):
    """select actors in the editor; without any, clear the selection"""
    ids = [resolve(peer, name) for name in args.actors]
    return post(peer, args, f"selected {some((label_of(peer, aid) for aid in ids), 8)}",
                {"t": "select", "ids": ids, "frame": args.frame})


def levels(peer, args):
    """list the project's levels; the open one has a star"""
    answer = ask(peer, args, {"t": "need_levels"}, "levels")
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
    print(f"{answer['path']} is open")


def camera(peer, args):
    """show the editor's view; given a place, move it there, keeping its direction"""
    def view():
        return ask(peer, args, {"t": "cam_get"}, "cam", match=lambda m: m.get("snap"))
    if len(args.at) not in (0, 3):
        raise PeerError("give X, Y and Z, or none of them")
    if args.at:
        peer.send({"t": "cam", "c": args.at + view()["c"][3:]})
    show(peer, view())


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


def parser():
    top = argparse.ArgumentParser(description=__doc__, allow_abbrev=False,
                                  formatter_class=argparse.RawDescriptionHelpFormatter)
    top.add_argument("--host", default=HOST)
    top.add_argument("--port", type=int, help="default: the first of 9920 to 9925 that accepts")
    top.add_argument("--name", default="peer", help="the name said in hello")
    top.add_argument("--takeover", action="store_true", help="replace a peer that is linked")
    top.add_argument("--scope", type=json_object, metavar="JSON",
                     help='what to mirror, such as {"kinds": {"light": false}, "radius_m": 50}')
    top.add_argument("--timeout", type=number, help="seconds to wait for an answer")
    commands = top.add_subparsers(metavar="COMMAND", required=True)

    def command(name, run, *arguments, peer=link):
        sub = commands.add_parser(name, help=run.__doc__, description=run.__doc__,
                                  allow_abbrev=False)
        sub.set_defaults(run=run, peer=peer)
        for argument, options in arguments:
            sub.add_argument(argument, **options)

    actor = ("actor", {"metavar": "ID|LABEL"})
    xyz = {"nargs": 3, "type": number, "metavar": ("X", "Y", "Z")}
    flag = {"action": "store_true"}
    wait = ("--wait", {"type": number, "default": 1.0, "help": "seconds to listen, default 1"})
    seconds = ("--seconds", {"type": number, "help": "stop by itself"})
    raw = ("--json", flag | {"help": "raw messages"})
    command("watch", watch, raw, seconds, peer=greet)
    command("record", record, ("file", {"type": argparse.FileType("w"), "metavar": "FILE"}),
            seconds, peer=greet)
    command("send", send, ("message", {"type": json_object, "metavar": "JSON"}), wait)
    command("snapshot", snapshot, raw)
    command("move", move, actor, *[(axis, {"type": number}) for axis in "xyz"], wait)
    command("spawn", spawn, ("kind", {"choices": SPAWN_KINDS}),
            ("--label", {"default": ""}), ("--folder", {"default": ""}),
            ("--at", xyz | {"default": [0, 0, 0]}),
            ("--asset", {"help": "path of a static mesh; without it the mesh actor is empty"}))
    command("delete", delete, ("actors", {"nargs": "+", "metavar": "ID|LABEL"}), wait)
    command("rename", rename, actor, ("label", {"metavar": "NEWLABEL"}),
            ("--folder", {"help": "an empty one takes the actor out of its folder"}), wait)
    command("tag", tag, actor, ("tags", {"nargs": "*", "metavar": "TAG"}), wait)
    command("light", light, actor,
            *[("--" + key, {"type": number, "help": text}) for key, text in LIGHT_OPTIONS.items()],
            ("--color", xyz | {"metavar": ("R", "G", "B"), "help": "linear"}),
            ("--shadows", {"action": argparse.BooleanOptionalAction}))
    command("select", select_actors, ("actors", {"nargs": "*", "metavar": "ID|LABEL"}),
            ("--frame", flag | {"help": "bring them into view"}), wait)
    command("levels", levels)
    command("open", open_level, ("path", {"metavar": "PATH"}), ("--save", flag),
            ("--discard", flag))
    command("camera", camera, ("at", {"nargs": "*", "type": number, "metavar": "X Y Z"}))
    return top


def main(argv=None):
    """Runs one command. Exit code 0, 1 on a failure, 2 on a wrong command line, 130 on Ctrl-C."""
    sys.stdout.reconfigure(errors="replace")
    args = parser().parse_args(argv)
    try:
        with args.peer(args) as peer:
            code = args.run(peer, args) or 0
            report_faults(peer)
        sys.stdout.flush()
        return code
    except PeerError as error:
        print(f"peer: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:                   # the usual end of watch and record
        return 0 if args.run in (watch, record) else 130
    except BrokenPipeError:                     # the reader has gone; leave nothing to flush
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1


if __name__ == "__main__":
    sys.exit(main())
