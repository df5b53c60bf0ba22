"""Every call on the editor that a message, a frame or a command makes fails, one after the other.

Each failing path is gone once: the tick survives, what was promised an answer gets one, no
transaction stays open, the link's own mirror stays true, and a resync brings peer and level
together. Then it is repeated a thousand times, and so is each message with one field missing or
wrong: the interpreter keeps neither memory nor references. One built for debugging counts all
references there are; any other only those to what is borrowed all the time, and blocks of memory.
"""
import contextlib
import gc
import socket
import sys
from array import array
from functools import partial

from rig import NONE, Finding, Rig, collect, compare, editor, examples, plain_mirror, true_level, xf_at

WARM_UP = 60
TIDY = 20       # repetitions from one tick and tidying to the next
TRIES = 8
SLACK = 20      # references that caches may take in one try; a thousand have 50 ticks in them
LINES = (b"{", b"\xff", b"5", b"[1]", b"null", b'{"t":5}', b'{"t":"unknown"}', b'{"v":1}',
         b'{"t":"x","t":', b'{"t":"\\ud800"}', b'{"t":"xf","items":[[1e999]]}', b"[" * 2000,
         b'{"t":"error"}\n{"t":"asking"}\n{', b"9" * 5000)

# For these the stand-in reads and writes files with numpy, which takes long, and isn't built to count
# references.
GEOMETRY = {"mesh", "rig", "coll", "need_mesh", "need_mat", "mat", "tex"}

HELLO = b'{"t":"hello","version":16,"takeover":%s}\n{"t":"synced"}\n{'


class Watched:
    """Counts blocks and references, all of them and those to what is borrowed all the time. The
    counts themselves are no objects."""

    def __init__(self, rig):
        import unreal
        self.total = getattr(sys, "gettotalrefcount", int) if rig.counts_all else int
        self.objects = [None, True, False, rig.K, rig.K._S, rig.K.HANDLERS, unreal, unreal.Vector,
                        unreal.Transform, rig.chair, rig.ed.actors()[0], NONE, RuntimeError]

    def __call__(self):
        collect()
        return array("q", [sys.getallocatedblocks(), self.total(), *map(sys.getrefcount, self.objects)])

    def name(self, at):
        return (["blocks of memory", "references"][at] if at < 2
                else f"references to {self.objects[at - 2]!r:.60}")


class Fault:
    """An operation fails while a deed is done, for one first word among its arguments (a property's
    name, say) and from one call on."""

    def __init__(self, operation, word=None, after=0):
        self.operation, self.word, self.after = operation, word, after
        self.left = None    # calls that go well; None between deeds
        self.once = False

    def __str__(self):
        return (f"with {self.operation}({self.word or ''}) failing"
                + (f" from call {self.after + 1}" if self.after else ""))

    def begin(self, once=False):
        self.left, self.once = self.after, once

    def end(self):
        self.left = None

    def strikes(self, *args, **_):
        if self.left is None or first_word(args) != self.word:
            return False
        self.left -= 1
        return self.left == -1 or self.left < 0 and not self.once


def first_word(args):
    return next((a for a in args if isinstance(a, str)), None)


def done(deed):
    """Functions that aren't handlers may raise; what that keeps is the question here."""
    try:
        deed()
    except Exception:
        pass


class Deeds:
    """Does one thing over and over, and puts the level back as it was."""

    def __init__(self, rig):
        self.rig, self.peer = rig, rig.connect()
        self.level = editor.level.path
        self.paths = {a._path for a in rig.ed.actors()}

    def put_back(self):
        ed = self.rig.ed
        if not editor.level or editor.level.path != self.level:
            ed.open_level(self.level)
        fresh = [a for a in ed.actors() if a._path not in self.paths]
        if fresh:
            ed.delete(*fresh)
        elif len(ed.actors()) < len(self.paths):
            ed.undo()

    def tidy(self):
        """Empties what grows by design."""
        rig, peer, state = self.rig, self.peer, self.rig.K._S
        rig.tick()
        peer.pump()
        peer.clear()
        for kept in (peer.errors, peer.faults, peer._named, peer.actors, peer.assets):
            kept.clear()
        rig.ed.clear_log()
        rig.ed.clear_history()
        state["kinds"].clear()
        state["touched"].clear()
        state["known"] = {a: e for a, e in state["known"].items() if a in self.paths}
        for key in ("bad_actors", "fps", "last_error", "errors"):
            state.pop(key, None)

    def repeat(self, deed, times, fault=None):
        for i in range(times):
            if fault:
                fault.begin()
            done(deed)
            if fault:
                fault.end()
            self.put_back()
            if i % TIDY == TIDY - 1 or i == times - 1:
                self.tidy()

    def check_flat(self, times, deed, what, fault=None):
        """A leak shows each time; what the interpreter's caches take while they settle doesn't."""
        self.repeat(deed, WARM_UP, fault)
        count = Watched(self.rig)
        count()
        # With files the caches take hundreds of repetitions to settle.
        most = times // 2 if self.rig.counts_all else 4 * times
        for _ in range(TRIES):
            before = count()
            self.repeat(deed, times, fault)
            grown = [b - a for a, b in zip(before, count(), strict=True)]
            if grown[0] < most and all(abs(n) <= SLACK for n in grown[1:]):
                return
        at = max(range(len(grown)), key=lambda i: abs(grown[i]))
        raise Finding(f"{what} keeps {grown[at]} {count.name(at)} in {times} times")

    def check_true(self, deed, msg, case, fault):
        """Goes the failing path once. Nothing is raised into the editor or left open, the peer is
        answered, and once the editor is well again both sides hold what is true."""
        rig, peer = self.rig, self.peer
        self.tidy()
        fault.begin(once=True)
        if msg:
            peer.send(msg)
            rig.tick(0.6)
            check_answer(msg, peer.take("brush"), case)
        else:
            done(deed)
        fault.end()
        rig.ed.heal()
        rig.check_quiet(case)
        if editor.level:
            rig.check_own_undo_step(case)
            rig.ed.undo()
        self.put_back()
        if peer.closed or rig.K._S["conn"] is None:
            peer = self.peer = rig.connect(takeover=True)
        rig.settle(peer)
        rig.check_known(case)
        self.together_again(case)
        self.tidy()

    def together_again(self, case):
        rig, peer = self.rig, self.peer
        peer.faults.clear()
        peer.hello()
        rig.tick(0.1)
        peer.synced()
        rig.settle(peer, 1.0)
        rig.check_peer(peer, case)
        compare(true_level(rig.ed), {aid: {k: rec[k] for k in ("label", "folder", "at", "tags")}
                                     for aid, rec in plain_mirror(peer.actors).items()},
                "the level and the mirror", case)

    @contextlib.contextmanager
    def struck_by(self, fault):
        yield self.rig.ed.inject(fault.operation, times=None, when=fault.strikes)
        self.rig.ed.heal()

    def faults(self, deed):
        """Every call on the editor that the deed makes; of several alike the first and the last."""
        ed, calls = self.rig.ed, []
        with ed.record() as called:
            done(deed)
        self.put_back()
        for name in sorted(called):
            ed.inject(name, times=0,
                      when=lambda *args, name=name, **_: calls.append((name, first_word(args))))
        done(deed)
        ed.heal()
        self.put_back()
        return [Fault(*call, after) for call in dict.fromkeys(calls)
                for after in sorted({0, calls.count(call) - 1})]


class Run:
    """Tries each deed; goes one failing path in `checked`, and repeats one in `repeated`."""

    def __init__(self, seed, count, times, checked, repeated):
        self.seed, self.count, self.times = seed, count, times
        self.most = times
        self.checked, self.repeated = checked, repeated
        self.seen = 0
        self.found = []     # texts: all, not just the first

    def turn(self, every):
        return (self.seen + self.seed) % every == 0

    def noted(self, check, *case):
        try:
            check(*case)
        except Finding as finding:
            self.found.append(f"{finding} ({finding.case})" if finding.case else f"{finding}")

    def plain(self, deeds, what, deed, count="a success"):
        self.noted(deeds.check_flat, self.times, deed, what)
        self.count(f"repetitions of {count}", self.times)

    def failing(self, deeds, what, deed, msg=None):
        for fault in deeds.faults(deed):
            self.seen += 1
            case = f"{what} {fault}"
            if self.turn(self.checked):
                with deeds.struck_by(fault):
                    self.noted(deeds.check_true, deed, msg, case, fault)
                self.count("failures")
            if self.turn(self.repeated):
                with deeds.struck_by(fault) as injection:
                    self.noted(deeds.check_flat, self.times, deed, case, fault)
                self.count("repetitions of a failure" if injection.hits > self.times else
                           "repetitions beyond a failure's reach", self.times)

    def message(self, number):
        rig = Rig(self.seed * 100 + number, meshes=2)
        try:
            deeds = Deeds(rig)
            msg = messages(rig)[number]
            rig.counts_all = msg["t"] not in GEOMETRY
            self.times = self.most if rig.counts_all else max(self.most // 50, SLACK)
            self.plain(deeds, f'"{msg["t"]}"', lambda: rig.K._handle(msg))
            self.failing(deeds, f'"{msg["t"]}"', lambda: rig.K._handle(msg), msg)
            for bad in misshapen(msg):
                self.seen += 1
                if self.turn(self.repeated):
                    self.plain(deeds, f"{bad}", lambda: rig.K._handle(bad), "a refusal")
        finally:
            rig.close()

    def other(self, kind, name):
        rig = Rig(self.seed, meshes=2)
        try:
            deeds = Deeds(rig)
            deed = kind(deeds)[name]
            self.plain(deeds, name, deed)
            if kind is not malformed:
                self.failing(deeds, name, deed)
        finally:
            rig.close()


# Request -> what answers it. "error" answers anything.
ANSWERS = {"hello": {"snapshot"}, "resync": {"snapshot"}, "spawn": {"spawned", "spawn_failed"},
           "dup": {"spawned", "spawn_failed"}, "props": {"props"}, "need_levels": {"levels"},
           "brush_get": {"brush"}, "cam_get": {"cam"}, "open_level": {"level_opened"},
           "need_mesh": {"mesh_file"}, "need_mat": {"mat_file"}, "mesh": {"mesh_done"},
           "rig": {"rig_done"}, "mat": {"mat_done"}, "tex": {"tex_done"}, "mat_known": {"mat_known"}}


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
        spawn | {"tmp": 3, "kind": "text", "text": {"body": "Hi"}},
        spawn | {"tmp": 4, "kind": "camera", "cam": {"focal": 40}},
        {"t": "dup", "tmp": 5, "src": prop, "xf": xf_at(9, 9, 9), "label": "Copy"},
        {"t": "rename", "id": prop, "label": "Stool", "folder": "A"},
        {"t": "tags", "id": prop, "tags": ["new"]}, light,
        {"t": "props", "id": label["Sign"], "text": {"body": "Stop", "size": 12}},
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


def check_answer(msg, answers, case):
    wanted = ANSWERS.get(msg["t"])
    got = [m["t"] for m in answers]
    if wanted and not (wanted | {"error"}) & set(got):
        raise Finding(f'"{msg["t"]}" has no answer, only {got}', case)
    if msg["t"] in ("spawn", "dup"):
        tmps = [m["tmp"] for m in answers if m["t"] in ("spawned", "spawn_failed")]
        if tmps != [msg["tmp"]]:
            raise Finding(f'"{msg["t"]}" of tmp {msg["tmp"]} is answered for {tmps}', case)


def messages(rig):
    scripted = requests(rig)
    kinds = {m["t"] for m in scripted}
    return scripted + [m for t, m in examples(rig).items() if t not in kinds]


def misshapen(value):
    """The value with each of its parts missing, or of a kind that it can't be."""
    if isinstance(value, dict):
        for key, part in value.items():
            if key != "t":
                yield {k: v for k, v in value.items() if k != key}
                yield from (value | {key: bad} for bad in [*misshapen(part), ["x"], 5, "x", None]
                            if type(bad) is not type(part) or isinstance(bad, (dict, list)))
    elif isinstance(value, list) and value:
        yield value[1:]
        yield from ([bad, *value[1:]] for bad in [*misshapen(value[0]), {}])


class Broken:
    """A socket on which everything fails."""

    def __init__(self, error):
        self.error = error

    def setblocking(self, _):
        pass

    def fail(self, *_):
        raise self.error("broken")

    setsockopt = send = recv = close = fail


def frames(deeds):
    """Frames of the editor in which everything is due, and the user has been busy."""
    rig, ed = deeds.rig, deeds.rig.ed
    prop, lamp = ed.actor("Prop0"), ed.actor("SpotLight")

    def frame():
        rig.clock.advance(2.1)  # longer than anything waits
        ed.tick(1, 0.5)

    def edits():
        odd = not prop._label.endswith("odd")
        ed.rename(prop, "Prop, odd" if odd else "Prop", "A" if odd else "B")
        ed.move(prop, (odd, 0, 0))
        ed.retag(prop, "odd" if odd else "even")
        ed.set(prop, static_mesh=rig.chair if odd else rig.table)
        ed.set(lamp, intensity=8.0 + odd)
        ed.select(prop if odd else lamp)
        ed.move_view((0, 0, 100 + odd))
        frame()

    held = messages(rig)[5:8]

    def play():
        ed.play()
        frame()
        rig.K._S["pending"] = list(held)
        ed.stop_play()
        frame()

    def change_of_level():
        ed.begin_level_change(deeds.level)
        frame()
        rig.K._handle({"t": "need_levels"})
        ed.end_level_change()
        frame()

    return {f.__name__: f for f in (frame, edits, play, change_of_level)}


def raw(rig):
    """A bare socket, connected and accepted."""
    rig.start()
    sock = socket.create_connection(("127.0.0.1", rig.K._S["port"]))
    sock.setblocking(False)
    rig.tick()
    return sock


def second(rig, data):
    """A connection that says this, and then nothing for longer than the link waits."""
    sock = raw(rig)
    sock.send(data)
    rig.tick()
    rig.clock.advance(6.0)
    rig.tick()
    sock.close()
    rig.tick()


def commands(deeds):
    """What the user does, and connections as the user's doing makes them."""
    rig, K = deeds.rig, deeds.rig.K

    def refused():
        second(rig, HELLO % b"false")

    def newcomer():
        deeds.peer.close()
        second(rig, b"{")

    def restart():
        K.stop()
        editor.ticks.clear()    # the editor keeps a callback that it failed to take off
        K.start(rig.port)

    return {f.__name__: f for f in (refused, newcomer, restart, K.status, K.register_menu,
                                    K.show_in_blender, K.toolbar_click)}


def malformed(deeds):
    """What comes over sockets and is wrong, and sockets that fail."""
    rig, K = deeds.rig, deeds.rig.K

    def line(data):
        deeds.peer.send_raw(data + b"\n")
        rig.tick()

    def broken(error):
        conn = K._Conn(Broken(error), ("", 0))
        conn.send({"t": "x"})
        conn.flush() if error is OSError else conn.read()

    loop = []
    loop.append(loop)
    made = {f"line {data[:40]}": partial(line, data) for data in LINES}
    made |= {f"sending {type(bad).__name__}": partial(K._send, {"t": "x", "v": bad})
             for bad in ({1}, loop, {(1, 2): 3})}
    made |= {f"{error.__name__} of a socket": partial(broken, error)
             for error in (OSError, ConnectionResetError, BlockingIOError, ZeroDivisionError)}
    return made | {"silence": partial(second, rig, b"{"),
                   "a web page": partial(second, rig, b"POST / HTTP/1.1\r\n" + HELLO % b"true"),
                   "taking over": partial(second, rig, HELLO % b"true")}


def run(seed, count, times=1000, checked=1, repeated=25):
    tried = Run(seed, count, times, checked, repeated)
    rig = Rig(seed, meshes=2)
    deeds = Deeds(rig)
    gc.freeze()     # what is there now needs no looking through each time
    number = len(messages(rig))
    names = [(kind, name) for kind in (frames, commands, malformed) for name in kind(deeds)]
    rig.close()
    for i in range(number):
        tried.message(i)
    for kind, name in names:
        tried.other(kind, name)
    if tried.found:
        raise Finding("\n  ".join(tried.found))


def run_short(seed, count):
    run(seed, count, times=100, checked=10, repeated=50)


def run_full(seed, count):
    run(seed, count, repeated=1)
