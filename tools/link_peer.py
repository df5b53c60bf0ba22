"""The add-on's end of the link: `Peer` holds one connection to the editor and a mirror of what the
editor has told. `find` looks for an editor, `editors` for all of them.

One peer is linked at a time: while Blender is linked, the editor refuses a second peer unless it asks
to take over.
"""
import difflib
import json
import math
import os
import select
import socket
import time

from peer_text import label_of, some

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

        `timeout` is seconds per port. Raises PeerError if none accepts. What accepts may be anything:
        find() looks for an editor.
        """
        self.sock = _connect(host, [ports] if isinstance(ports, int) else list(ports), timeout)
        self.port = self.sock.getpeername()[1]
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


# -- looking for editors

ANSWER_TIME = 1.5       # seconds in which an editor that isn't busy answers


def find(host=HOST, ports=PORTS, timeout=10.0, **hello):
    """A Peer that has said hello to the first editor on these ports (or the one port given).

    Something else may listen there: what doesn't answer as an editor does is left for the next port
    after a moment, and heard again when all have been tried, as an editor may be busy. `hello`: the
    arguments of Peer.hello. Raises PeerError if there is none within about `timeout` seconds.
    """
    ports = [ports] if isinstance(ports, int) else list(ports)
    silent, reasons = [], []
    for port in ports:
        try:
            peer = Peer(host, port)
            peer.hello(**hello)
        except PeerError as error:
            reasons.append(str(error))
            continue
        if _answers(peer, ANSWER_TIME if len(ports) > 1 else timeout):
            return _chosen(peer, silent)
        silent.append(peer)
    end = time.monotonic() + timeout
    while any(not peer.closed for peer in silent) and time.monotonic() < end:
        for peer in silent:
            if _answers(peer, 0.05):
                return _chosen(peer, silent)
    for peer in silent:
        peer.close()
    if silent:
        where = ", ".join(str(peer.port) for peer in silent)
        raise PeerError(f"no editor answers; something else may be listening on port {where}")
    if len(ports) == 1:
        raise PeerError(reasons[0])
    raise PeerError(f"no editor is listening on {host}, ports {ports[0]} to {ports[-1]}")


def _answers(peer, seconds):
    """Whether something came that an editor says."""
    end = time.monotonic() + seconds
    while not peer.messages and not peer.closed and (left := end - time.monotonic()) > 0:
        peer.pump(left)
    return bool(peer.messages)


def _chosen(peer, others):
    for other in others:
        if other is not peer:
            other.close()
    return peer


def editors(host=HOST, ports=PORTS, **hello):
    """What listens on each port: a list of {"port", "state", "project"}.

    "state" is "free" (linked to us for a moment), "linked" (to another peer, which isn't disturbed)
    or "silent" (busy, or no editor at all).
    """
    found = []
    for port in [ports] if isinstance(ports, int) else ports:
        try:
            with Peer(host, port, 0.5) as peer:
                peer.hello(**hello)
                _answers(peer, ANSWER_TIME)
        except PeerError:
            continue
        state = ("linked" if peer.refused is not None else "free" if peer.editor else "silent")
        found.append({"port": port, "state": state,
                      "project": peer.editor and peer.editor["project"]})
    return found


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
