"""No message and no failing path keeps memory or references: a thousand repetitions leave the
interpreter as it was.

A failing path is a message with one field missing or wrong, or one in whose way one call on the
editor fails: each call that its handler makes gets its turn. Ticks, connections and the menu's
commands are tried in the same way. An interpreter built for debugging counts all references there
are; any other only those to what is borrowed all the time, and blocks of memory.
"""
import gc
import sys
from array import array
from functools import partial

from editor_faults import requests
from link import raw
from rig import NONE, Finding, Rig, collect, editor, examples

WARM_UP = 60
TIDY = 20       # repetitions from one tick and tidying to the next
TRIES = 8
SLACK = 20      # references that caches may take in one try; a thousand have 50 ticks in them
LINES = (b"{", b"\xff", b"5", b"[1]", b"null", b'{"t":5}', b'{"t":"unknown"}', b'{"v":1}',
         b'{"t":"x","t":', b'{"t":"\\ud800"}', b'{"t":"xf","items":[[1e999]]}', b"[" * 2000,
         b'{"t":"error"}\n{"t":"asking"}\n{', b"9" * 5000)

HELLO = b'{"t":"hello","version":16,"takeover":%s}\n{"t":"synced"}\n{'


class Watched:
    """Counts blocks and references, all of them and those to what is borrowed all the time. The
    counts themselves are no objects."""

    def __init__(self, rig):
        import unreal
        self.objects = [None, True, False, rig.K, rig.K._S, rig.K.HANDLERS, unreal, unreal.Vector,
                        unreal.Transform, rig.chair, rig.ed.actors()[0], NONE, RuntimeError]

    def __call__(self):
        collect()
        total = getattr(sys, "gettotalrefcount", int)()
        return array("q", [sys.getallocatedblocks(), total, *map(sys.getrefcount, self.objects)])

    def name(self, at):
        return (["blocks of memory", "references"][at] if at < 2
                else f"references to {self.objects[at - 2]!r:.60}")


class Fault:
    """An operation fails while a deed is done, for one first word among its arguments (a property's
    name, say) and from one call on."""

    def __init__(self, operation, word=None, after=0):
        self.operation, self.word, self.after = operation, word, after
        self.left = None    # calls that go well; None between deeds

    def __str__(self):
        return (f"with {self.operation}({self.word or ''}) failing"
                + (f" from call {self.after + 1}" if self.after else ""))

    def begin(self):
        self.left = self.after

    def end(self):
        self.left = None

    def strikes(self, *args, **_):
        if self.left is None or first_word(args) != self.word:
            return False
        self.left -= 1
        return self.left < 0


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
        for _ in range(TRIES):
            before = count()
            self.repeat(deed, times, fault)
            grown = [b - a for a, b in zip(before, count(), strict=True)]
            if grown[0] < times // 2 and all(abs(n) <= SLACK for n in grown[1:]):
                return
        at = max(range(len(grown)), key=lambda i: abs(grown[i]))
        raise Finding(f"{what} keeps {grown[at]} {count.name(at)} in {times} times")

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
    """Tries each deed, and of its failing paths one in `every`."""

    def __init__(self, seed, count, times, every):
        self.seed, self.count, self.times, self.every = seed, count, times, every
        self.seen = 0
        self.found = []     # texts: all leaks, not just the first

    def sampled(self, paths):
        for path in paths:
            self.seen += 1
            if (self.seen + self.seed) % self.every == 0:
                yield path

    def check_flat(self, deeds, *case):
        try:
            deeds.check_flat(self.times, *case)
        except Finding as finding:
            self.found.append(str(finding))

    def plain(self, deeds, what, deed, count="a success"):
        self.check_flat(deeds, deed, what)
        self.count(f"repetitions of {count}", self.times)

    def failing(self, deeds, what, deed):
        for fault in self.sampled(deeds.faults(deed)):
            injection = deeds.rig.ed.inject(fault.operation, times=None, when=fault.strikes)
            self.check_flat(deeds, deed, f"{what} {fault}", fault)
            deeds.rig.ed.heal()
            self.count("repetitions of a failure" if injection.hits > self.times else
                       "repetitions beyond a failure's reach", self.times)

    def message(self, number):
        rig = Rig(self.seed * 100 + number, meshes=2)
        try:
            deeds = Deeds(rig)
            msg = messages(rig)[number]
            self.plain(deeds, f'"{msg["t"]}"', lambda: rig.K._handle(msg))
            self.failing(deeds, f'"{msg["t"]}"', lambda: rig.K._handle(msg))
            for bad in self.sampled(misshapen(msg)):
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
        for msg in held:
            rig.K._handle(msg)
        ed.stop_play()
        frame()

    def change_of_level():
        ed.begin_level_change(deeds.level)
        frame()
        rig.K._handle({"t": "need_levels"})
        ed.end_level_change()
        frame()

    return {f.__name__: f for f in (frame, edits, play, change_of_level)}


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


def run(seed, count, times=1000, every=25):
    tried = Run(seed, count, times, every)
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
    run(seed, count, times=100, every=50)


def run_full(seed, count):
    run(seed, count, every=1)
