"""Speed as ratios, each measured side by side in one run: python3 bench/run.py [--json FILE].

The editor is bench_editor: its calls give fresh objects and cost next to nothing, so what is seen is
the link's own cost. Each row is the median over rounds in which the candidates take turns; "±" is half
the distance between the quartiles. Absolute times differ between machines and say nothing here; a row
"calls" counts the editor's calls, and more of them than before make the run fail.
"""

import argparse
import gc
import itertools
import json
import pathlib
import random
import socket
import statistics
import subprocess
import sys
import time
import types

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build" / "release"
sys.path[:0] = [str(BUILD / "bench"), str(BUILD / "plugin" / "Content" / "Python")]

import bench_editor  # noqa: E402

MEGABYTE = 1 << 20
PARTS = ("calls", "scan", "listing", "cold", "priced", "xf", "dispatch", "encode", "decode", "idle",
         "growth", "assets", "materials", "snapshots", "memory_held")


class Listing:
    """Stands for every editor subsystem: the actors of the level, its world, nothing selected."""

    def __init__(self):
        self.actors = []
        self.playing = False
        self.world = bench_editor.Object()
        self.world.path = "/Game/Maps/Main.Main"

    def get_all_level_actors(self):
        return self.actors

    def get_selected_level_actors(self):
        return []

    def get_editor_world(self):
        return self.world

    def is_in_play_in_editor(self):
        return self.playing

    def editor_invalidate_viewports(self):
        pass


def editor_module():
    """A module `unreal` on bench_editor's objects."""
    unreal = types.ModuleType("unreal")
    for name in ("Actor", "StaticMeshActor", "SkeletalMeshActor", "Light", "SkyLight",
                 "CameraActor", "TextRenderActor", "LandscapeProxy", "InstancedFoliageActor"):
        setattr(unreal, name, type(name, (bench_editor.Object,), {"__slots__": ()}))
    for name in ("DirectionalLight", "SpotLight", "RectLight"):
        setattr(unreal, name, type(name, (unreal.Light,), {"__slots__": ()}))
    for name in ("EditorActorSubsystem", "UnrealEditorSubsystem", "LevelEditorSubsystem",
                 "LightComponent", "EditorLevelLibrary", "ToolMenus"):
        setattr(unreal, name, type(name, (), {}))
    unreal.SystemLibrary = bench_editor.Library()
    unreal.LightUnits = types.SimpleNamespace(CANDELAS="CANDELAS", LUMENS="LUMENS", EV="EV",
                                              NITS="NITS")
    unreal.Paths = types.SimpleNamespace(project_content_dir=lambda: "/nowhere",
                                         convert_relative_path_to_full=lambda path: path)
    unreal.load_asset = unreal.find_object = lambda *path: None
    unreal.Vector, unreal.Transform = bench_editor.Vector, bench_editor.Transform
    unreal.Rotator = bench_editor.Quat
    unreal.MathLibrary = types.SimpleNamespace(
        make_rot_from_xz=lambda x, z: bench_editor.Quat(x.x, x.y, z.z, 1.0))
    unreal.log = unreal.log_warning = lambda text: None
    unreal.listing = Listing()
    unreal.get_editor_subsystem = lambda cls, listing=unreal.listing: listing
    sys.modules["unreal"] = unreal
    return unreal


def vector(dice, span):
    return bench_editor.Vector(*(dice.uniform(-span, span) for _ in range(3)))


def transform(dice):
    turn = [dice.gauss(0, 1) for _ in range(4)]
    length = sum(v * v for v in turn) ** 0.5
    return bench_editor.Transform(vector(dice, 1e4), bench_editor.Quat(*(v / length for v in turn)),
                                  vector(dice, 2))


def actors_of(unreal, count, light=False):
    """Mesh actors, or spot lights in candelas."""
    dice = random.Random(1)
    kind = "SpotLight" if light else "StaticMeshActor"
    mesh = bench_editor.Object()
    mesh.path = "/Game/Props/Chair.Chair"
    body = bench_editor.Object()
    body.props.update(simulate_physics=False, override_mass=False, linear_damping=0.01,
                      angular_damping=0.0, phys_material_override=None)
    made = []
    for i in range(count):
        actor = getattr(unreal, kind)()
        actor.path = f"/Game/Maps/Main.Main:PersistentLevel.{kind}_{i}"
        actor.label = f"Actor{i}"
        actor.folder = f"Props/Row{i % 8}"
        actor.transform = transform(dice)
        actor.props["tags"] = []
        actor.component = bench_editor.Object()
        actor.component.props.update(
            static_mesh=mesh, override_materials=[], body_instance=body,
            light_color=bench_editor.Vector(255, 200, 150), cast_shadows=True,
            use_temperature=True, temperature=6500.0, intensity=dice.uniform(1, 100),
            intensity_units="CANDELAS", attenuation_radius=1000.0, source_radius=1.0,
            inner_cone_angle=20.0, outer_cone_angle=44.0)
        made.append(actor)
    return made


def best_of(candidates, rounds, collecting=False):
    """name -> (median seconds, half the distance between the quartiles), in turns. What a candidate
    returns is freed when its time has been taken."""
    times = {name: [] for name in candidates}
    for _ in range(rounds):
        for name, run in candidates.items():
            gc.collect()
            if not collecting:
                gc.disable()
            begun = time.perf_counter()
            result = run()
            times[name].append(time.perf_counter() - begun)
            del result
            gc.enable()
    result = {}
    for name, values in times.items():
        low, middle, high = statistics.quantiles(values, n=4)
        result[name] = (statistics.median(values), (high - low) / 2)
    return result


class Bench:
    def __init__(self, rounds):
        self.rounds = rounds
        self.rows = []
        self.unreal = editor_module()
        import kestrix
        import twin

        self.kestrix = kestrix
        self.twin = twin

    def compare(self, what, ours, others, wanted, **how):
        """A row per other candidate. `wanted`: name -> (kind, limit), kind "at most" our time over
        theirs or "faster" theirs over ours."""
        times = best_of({"ours": ours, **others}, self.rounds, **how)
        for name, (kind, limit) in wanted.items():
            top, bottom = ("ours", name) if kind == "at most" else (name, "ours")
            ratio = times[top][0] / times[bottom][0]
            spread = ratio * (times[top][1] / times[top][0] + times[bottom][1] / times[bottom][0])
            met = limit is None or (ratio <= limit if kind == "at most" else ratio >= limit)
            self.rows.append({"what": what, "against": name, "kind": kind, "ratio": ratio,
                              "spread": spread, "limit": limit, "met": met,
                              "seconds": times["ours"][0]})

    # The scan.

    def mirror(self, count, light=False):
        """A level of that many actors, in the module's mirror and in the twin's."""
        K, state = self.kestrix, self.kestrix._S
        K._reset_scan_state()
        state.update(conn=None, xf_out={}, sent_assets=set(), assets={}, asset_rev={})
        self.unreal.listing.actors = actors_of(self.unreal, count, light)
        K._snapshot()
        twin = self.twin.Mirror()
        for aid, entry in state["known"].items():
            kind = entry["info"]["kind"]
            twin.kinds[aid] = kind
            twin.known[aid] = {"actor": entry["actor"],
                               "info": self.twin.info_of(entry["actor"], aid, kind, True)}
            assert twin.known[aid]["info"] == entry["info"]
        return twin

    def full_pass(self, pass_n=0):
        state = self.kestrix._S
        count = len(state["scan_ids"])
        state.update(scan_i=0, scan_quota=float(count), pass_n=pass_n, xf_out={})
        while state["scan_i"] < count:
            self.kestrix._scan_step(0.0)

    def scan(self, count=5000):
        for what, light in (("unchanged meshes", False), ("lights with settings", True)):
            twin = self.mirror(count, light)
            actors = self.unreal.listing.actors
            bare = bench_editor.bare_lights if light else bench_editor.bare_meshes
            self.compare(
                f"scan of {count} {what}", self.full_pass,
                {"bare calls": lambda: bare(actors),
                 **({} if light else {"tight calls": lambda: bench_editor.tight_meshes(actors)}),
                 "Python twin": lambda: twin.scan(time.perf_counter, True)},
                {"bare calls": ("at most", None), "Python twin": ("faster", 4.5),
                 **({} if light else {"tight calls": ("at most", None)})})
        self.moved(500)
        self.moved(count)

    def moved(self, count):
        """Every mesh has moved since the last pass."""
        twin = self.mirror(count)
        actors = self.unreal.listing.actors
        dice = random.Random(2)
        turns = [[transform(dice) for _ in actors] for _ in range(2)]

        def after_move(run):
            def passes():
                for _ in range(max(1, 5000 // count)):
                    turns.reverse()
                    for actor, place in zip(actors, turns[0]):
                        actor.transform = place
                    run()
            return passes

        # Moving the actors is part of all three candidates.
        self.compare(
            f"scan of {count} moved meshes", after_move(self.full_pass),
            {"bare calls": after_move(lambda: bench_editor.bare_moved(actors)),
             "Python twin": after_move(lambda: twin.scan(time.perf_counter, True))},
            {"bare calls": ("at most", None), "Python twin": ("faster", 2.5)})

    # What a tick may take.

    def calls(self, count=1000):
        """The editor's calls for one look at an actor that stands as it stood."""
        for what, light, limit in (("an unchanged mesh", False, 16), ("a light", True, 27)):
            self.mirror(count, light)
            self.full_pass()
            before = bench_editor.calls()
            self.full_pass(pass_n=0 if light else 1)
            self.count(f"calls for a look at {what}", (bench_editor.calls() - before) / count, limit)

    def count(self, what, calls, limit):
        self.rows.append({"what": what, "against": "", "kind": "calls", "ratio": calls,
                          "spread": 0.0, "limit": limit, "met": calls <= limit})

    def listing(self):
        """The level listed again, with the same actors and with one more or less, and the step of the
        walk behind that."""
        K, state = self.kestrix, self.kestrix._S
        for count in (20000, 100000):
            twin = self.mirror(count)
            actors = self.unreal.listing.actors
            state.update(conn=None, list_t=-1e9, scan_i=count, pass_n=1)
            K._scan_step(0.0)
            last = actors[-1]

            def again():
                state.update(scan_i=count, list_t=-1e9, pass_n=1)
                K._scan_step(0.0)

            def one_more_or_less():
                actors.pop() if actors[-1] is last else actors.append(last)
                again()

            def step():
                state.update(scan_i=0, scan_quota=17.0)
                K._scan_step(0.0)

            def step_behind():
                again()
                begun = time.perf_counter()
                step()
                return time.perf_counter() - begun

            step()
            self.compare(f"listing {count}, the same actors", again,
                         {"Python twin": lambda: twin.list_level(actors)},
                         {"Python twin": ("faster", 4.5)})
            if actors[-1] is not last:
                actors.append(last)
            self.compare(f"listing {count}, one more or less", one_more_or_less,
                         {"Python twin": lambda: twin.list_level(actors)},
                         {"Python twin": ("faster", None)})
            behind = statistics.median(step_behind() for _ in range(self.rounds))
            plain = best_of({"step": step}, self.rounds)["step"][0]
            self.rows.append({"what": f"the step behind a listing of {count}",
                              "against": "any other step", "kind": "at most",
                              "ratio": behind / plain, "spread": 0.0, "limit": 2.0,
                              "met": behind / plain <= 2.0})

    def cold(self, count=20000):
        """A working tick: 17 looks, with nothing of theirs in the caches."""
        K, state = self.kestrix, self.kestrix._S
        self.mirror(count)
        actors = self.unreal.listing.actors
        self.full_pass()
        dice = random.Random(3)
        other = bytearray(64 * MEGABYTE)

        def cold(run):
            def timed():
                at = dice.randrange(count - 17)
                other[::64] = bytes(len(other[::64]))
                begun = time.perf_counter()
                run(at)
                return time.perf_counter() - begun
            return statistics.median(timed() for _ in range(10 * self.rounds))

        def ours(at):
            state.update(scan_i=at, scan_quota=17.0)
            K._scan_step(0.0)

        costs = cold(ours), cold(lambda at: bench_editor.bare_meshes(actors[at:at + 17]))
        self.rows.append({"what": "17 looks with cold caches", "against": "bare calls",
                          "kind": "at most", "ratio": costs[0] / costs[1], "spread": 0.0,
                          "limit": None, "met": True})

    def priced(self, count=1000):
        """The scan where a call costs a microsecond, as in a real editor."""
        twin = self.mirror(count)
        actors = self.unreal.listing.actors
        bench_editor.set_price(1000)
        self.compare(f"scan of {count} meshes, calls of 1 µs", self.full_pass,
                     {"bare calls": lambda: bench_editor.bare_meshes(actors),
                      "Python twin": lambda: twin.scan(time.perf_counter, True)},
                     {"bare calls": ("at most", 1.15), "Python twin": ("faster", 1.8)})
        bench_editor.set_price(0)

    def xf(self, count=500):
        """The peer moves many actors."""
        twin = self.mirror(count)
        dice = random.Random(4)
        turned = [1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0, 1.0, 1.0, 1.0]
        items = [[aid, [dice.uniform(-1e4, 1e4) for _ in range(3)] + turned] for aid in twin.known]
        message = {"t": "xf", "items": items}
        self.kestrix._S.update(conn=None, touched={})
        self.compare(f"an xf of {count} pairs", lambda: self.kestrix._h_xf(message),
                     {"Python twin": lambda: twin.apply_xf(message)},
                     {"Python twin": ("faster", 3.0)})
        assert self.kestrix._S.get("last_error") is None

    def dispatch(self):
        """Many messages at once, and many that are held back and replayed, at growing numbers."""
        K = self.kestrix
        costs = {"coalescing": {}, "holding and replaying \"tex\"": {},
                 "holding and replaying \"rename\"": {}}
        for count in (2500, 10000, 40000):
            tex = [{"t": "tex", "path": f"/Game/T{i}"} for i in range(count)]
            rename = [{"t": "rename", "id": f"/Game/Maps/Main.Main:PersistentLevel.A{i}",
                       "label": "x"} for i in range(count)]
            for what, cost in zip(costs, (lambda: K._coalesce(tex), lambda: self.held(tex),
                                          lambda: self.held(rename))):
                costs[what][count] = best_of({"ours": cost}, 5)["ours"][0] / count
        for what, values in costs.items():
            self.growth_row(f"{what}, time per message", values, "messages")

    def held(self, messages):
        K, state, listing = self.kestrix, self.kestrix._S, self.unreal.listing
        lines = b"".join(json.dumps(m).encode() + b"\n" for m in messages)
        now = time.perf_counter()
        state.update(conn=K._Conn(Feed(lines), ("127.0.0.1", 0)), server=Feed(b""), cands=[],
                     world="/Game/Maps/Main.Main", pie=False, paused=False, pending=[],
                     slow_t=0.0, fast_t=now + 1e6, list_t=now + 1e6, client_ver=16)
        listing.playing = True
        K._step(0.0)
        assert len(state["pending"]) == len(messages)
        listing.playing = False
        state["slow_t"] = 0.0
        while state["pending"]:
            K._step(0.0)
        state.update(server=None, conn=None)

    # The wire.

    def pair(self):
        """A connection of the module's and a socket at its other end."""
        ours, theirs = socket.socketpair()
        return self.kestrix._Conn(ours, ("127.0.0.1", 0)), theirs

    def snapshot_message(self, count):
        self.mirror(count)
        infos = [entry["info"] for entry in self.kestrix._S["known"].values()]
        return {"t": "snapshot", "level": "Main", "world": "/Game/Maps/Main.Main",
                "actors": infos}

    def encode(self, count=5000):
        message = self.snapshot_message(count)
        conn, _peer = self.pair()
        conn.send(message)
        assert bytes(conn.wbuf) == json.dumps(message, separators=(",", ":")).encode() + b"\n"

        def ours():
            fresh, _ = self.pair()
            fresh.send(message)
            return fresh

        self.compare(f"encoding a snapshot of {count} actors", ours,
                     {"json.dumps": lambda: json.dumps(message, separators=(",", ":")).encode()},
                     {"json.dumps": ("faster", 8.0)})

    def decode(self):
        snapshot = self.snapshot_message(5000)
        moves = {"t": "xf", "items": [[i["id"], i["xf"]] for i in snapshot["actors"][:500]]}
        for what, message, times in (("an xf of 500 pairs", moves, 20),
                                     ("a snapshot of 5000 actors", snapshot, 1)):
            line = json.dumps(message, separators=(",", ":")).encode() + b"\n"
            feed = Feed(line)
            conn = self.kestrix._Conn(feed, ("127.0.0.1", 0))
            assert conn.read() == [message]

            def ours():
                for _ in range(times):
                    feed.ready = True
                    messages = conn.read()
                return messages

            def theirs():
                for _ in range(times):
                    message = json.loads(line)
                return message

            self.compare(f"decoding {what}", ours, {"json.loads": theirs},
                         {"json.loads": ("faster", 2.5)})

    # The tick.

    def idle(self, ticks=2000):
        K, state = self.kestrix, self.kestrix._S
        self.mirror(100)
        conn, _peer = self.pair()
        listener = socket.create_server(("127.0.0.1", 0))
        listener.setblocking(False)
        now = time.perf_counter()
        state.update(server=listener, conn=conn, cands=[], client_ver=16, slow_t=now + 1e6,
                     fast_t=now + 1e6, list_t=now + 1e6, scan_i=100, scan_quota=0.0)
        state["step_frame"] = None

        def ours():
            for _ in range(ticks):
                state["step_frame"] = None  # each tick is a new frame
                K._tick(0.0)

        self.compare("idle tick", ours,
                     {"bare calls": lambda: bench_editor.bare_idle(listener, conn.sock, ticks)},
                     {"bare calls": ("at most", 1.5)})
        assert state.get("last_error") is None
        state.update(server=None, conn=None)
        listener.close()

    # Growth.

    def growth(self):
        """Time and memory per actor of a snapshot, and time per byte of a long line and a long
        queue, at growing sizes."""
        results = {}
        for count in (1000, 5000, 20000, 100000):
            seconds, peak = in_own_process("--snapshot", count)
            results[count] = (seconds / count, peak / count)
        for index, what in ((0, "time"), (1, "peak memory")):
            self.growth_row(f"snapshot, {what} per actor", {n: r[index] for n, r in results.items()},
                            "actors")
        sizes = [4, 16, 64]
        self.growth_row("line in pieces of 64 KB, time per byte",
                        {n: self.long_line(n * MEGABYTE) / n for n in sizes}, "MB")
        self.growth_row("output drained in pieces of 64 KB, time per byte",
                        {n: self.long_queue(n * MEGABYTE) / n for n in sizes}, "MB")

    def assets(self):
        """What crosses the link as files."""
        import assets
        for part in (assets.catalogue, assets.requests, assets.edited):
            part(self)

    def materials(self):
        """Materials: built, tuned, cleaned up."""
        import materials
        for part in (materials.mapping, materials.rebuild, materials.live, materials.clean_up):
            part(self)

    def snapshots(self):
        """A snapshot against the twin's, the collector on, as in the editor."""
        for count, wanted in ((5000, None), (20000, 4.0), (100000, None)):
            ours, twins = in_own_process("--snapshot-twin", count)
            self.rows.append({"what": f"snapshot of {count} actors", "against": "Python twin",
                              "kind": "faster", "ratio": twins / ours, "spread": 0.0,
                              "limit": wanted, "met": wanted is None or twins >= wanted * ours})

    def memory_held(self):
        """What the mirror holds of each actor."""
        count = 100000
        held = {who: in_own_process(f"--held-by-{who}", count) for who in ("link", "twin")}
        ratio = held["link"] / held["twin"]
        self.rows.append({"what": f"memory per mirrored actor, {count}", "against": "Python twin",
                          "kind": "at most", "ratio": ratio, "spread": 0.0, "limit": 1.0,
                          "met": ratio <= 1.0})

    def growth_row(self, what, costs, unit):
        """Each size against the one before, at 4 or 5 times the size: growth with the square shows
        as 4 or 5, the step out of a core's cache as up to 2."""
        sizes = list(costs)
        for before, size in itertools.pairwise(sizes):
            ratio = costs[size] / costs[before]
            self.rows.append({"what": what, "against": f"{size} to {before} {unit}",
                              "kind": "at most", "ratio": ratio, "spread": 0.0, "limit": 2.0,
                              "met": ratio <= 2.0})

    def long_line(self, length):
        line = b'"' + b"x" * (length - 3) + b'"\n'
        feed = Feed(line, 65536, stutter=True)
        conn = self.kestrix._Conn(feed, ("127.0.0.1", 0))
        begun = time.perf_counter()
        messages = []
        while not messages:
            messages = conn.read()
        assert len(messages[0]) == length - 3
        return time.perf_counter() - begun

    def long_queue(self, length):
        drain = Drain(65536)
        conn = self.kestrix._Conn(drain, ("127.0.0.1", 0))
        conn.send({"t": "x" * length})
        begun = time.perf_counter()
        while drain.taken < length:
            drain.ready = True
            conn.flush()
        return time.perf_counter() - begun


class Feed:
    """A socket that has this data to give, once per `ready`, in pieces, which are cut beforehand."""

    def __init__(self, data, piece=MEGABYTE, stutter=False):
        self.pieces = [data[at:at + piece] for at in range(0, len(data), piece)]
        self.stutter = stutter
        self.ready = True
        self.at = 0

    def setblocking(self, _):
        pass

    def setsockopt(self, *_):
        pass

    def accept(self):
        raise BlockingIOError

    def send(self, data):
        return len(data)

    def recv(self, _):
        if not self.ready:
            self.ready = self.stutter
            raise BlockingIOError
        piece = self.pieces[self.at]
        self.at = (self.at + 1) % len(self.pieces)
        self.ready = self.at != 0 and not self.stutter
        return piece


class Drain(Feed):
    """A socket that takes a piece, then would block."""

    def __init__(self, piece):
        super().__init__(b"")
        self.piece = piece
        self.taken = 0

    def send(self, data):
        if not self.ready:
            raise BlockingIOError
        self.ready = False
        taken = min(len(data), self.piece)
        self.taken += taken
        return taken


def in_own_process(*options):
    """What this program prints with these options, read as JSON: in a process of its own the heap
    is not what an earlier measurement has left behind."""
    return json.loads(subprocess.run([sys.executable, __file__, *map(str, options)], check=True,
                                     stdout=subprocess.PIPE, text=True).stdout)


def memory(field):
    """A line of /proc/self/status, in bytes: VmRSS is held now, VmHWM the most ever held."""
    for line in pathlib.Path("/proc/self/status").read_text().splitlines():
        if line.startswith(field):
            return int(line.split()[1]) * 1024
    raise LookupError(field)


def measure_snapshot(count):
    """Print the median time of a snapshot, and the memory that the first one took at its peak."""
    bench = Bench(1)
    bench.mirror(10)
    bench.unreal.listing.actors = actors_of(bench.unreal, count)
    gc.collect()
    before = memory("VmRSS")
    times = []
    peak = 0
    for _ in range(5):
        conn, _peer = bench.pair()
        bench.kestrix._reset_scan_state()
        bench.kestrix._S["conn"] = conn
        gc.collect()
        begun = time.perf_counter()
        bench.kestrix._snapshot()
        times.append(time.perf_counter() - begun)
        peak = peak or memory("VmHWM") - before
    print(json.dumps([statistics.median(times), peak]))


def measure_against_twin(count):
    """Print the median times of a snapshot, ours and the twin's, with the collector on."""
    bench = Bench(1)
    bench.unreal.listing.actors = actors_of(bench.unreal, count)
    sock, _peer = socket.socketpair()

    class Mirrored:
        """Frees the mirror when its time has been taken, as it is with the twin's."""

        def __del__(self):
            bench.kestrix._S["conn"] = None
            bench.kestrix._reset_scan_state()

    def ours():
        bench.kestrix._S["conn"] = bench.kestrix._Conn(sock, ("127.0.0.1", 0))
        bench.kestrix._snapshot()
        return Mirrored()

    def theirs():
        twin = bench.twin.Mirror()
        return twin, twin.snapshot(bench.unreal.listing.actors)

    times = best_of({"ours": ours, "twin": theirs}, 5 if count > 20000 else 9, collecting=True)
    print(json.dumps([times["ours"][0], times["twin"][0]]))


def measure_held(who, count):
    """Print the memory per actor that the mirror holds after a snapshot and a pass."""
    bench = Bench(1)
    bench.mirror(10)
    bench.unreal.listing.actors = actors_of(bench.unreal, count)
    gc.collect()
    before = memory("VmRSS")
    if who == "link":
        bench.kestrix._reset_scan_state()
        bench.kestrix._S["conn"] = None
        bench.kestrix._snapshot()
        bench.full_pass()
        bench.kestrix._S.update(list_t=-1e9)
        bench.kestrix._scan_step(0.0)
    else:
        twin = bench.twin.Mirror()
        twin.snapshot(bench.unreal.listing.actors)
        twin.scan(time.perf_counter, True)
    gc.collect()
    print(json.dumps((memory("VmRSS") - before) / count))


def table(rows):
    lines = []
    for row in rows:
        if row["kind"] == "calls":
            lines.append(f"{row['what']:<48} {row['ratio']:6.2f}        (at most {row['limit']}"
                         + (")" if row["met"] else ", MISSED)"))
            continue
        word = "times the time of" if row["kind"] == "at most" else "times faster than"
        limit = f"({'at most' if row['kind'] == 'at most' else 'at least'} {row['limit']}"
        limit += ")" if row["met"] else ", MISSED)"
        lines.append(f"{row['what']:<48} {row['ratio']:6.2f} ±{row['spread']:.2f}  {word:<18}"
                     f"{row['against']:<22} {limit if row['limit'] else ''}".rstrip())
    return "\n".join(lines)


def main():
    parse = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parse.add_argument("--json", help="write the rows there too")
    parse.add_argument("--rounds", type=int, default=15)
    parse.add_argument("--part", choices=PARTS, help="print the rows of one part as JSON")
    for hidden in ("snapshot", "snapshot-twin", "held-by-link", "held-by-twin"):
        parse.add_argument(f"--{hidden}", type=int, help=argparse.SUPPRESS)
    args = parse.parse_args()
    if args.snapshot_twin:
        return measure_against_twin(args.snapshot_twin)
    if args.held_by_link or args.held_by_twin:
        return measure_held("link" if args.held_by_link else "twin",
                            args.held_by_link or args.held_by_twin)
    if args.snapshot:
        return measure_snapshot(args.snapshot)
    if args.part:
        bench = Bench(args.rounds)
        getattr(bench, args.part)()
        print(json.dumps(bench.rows))
        return 0
    rows = [row for part in PARTS
            for row in in_own_process("--part", part, "--rounds", args.rounds)]
    print(table(rows))
    if args.json:
        pathlib.Path(args.json).write_text(json.dumps(rows, indent=1))
    return int(any(row["kind"] == "calls" and not row["met"] for row in rows))


if __name__ == "__main__":
    sys.exit(main())
