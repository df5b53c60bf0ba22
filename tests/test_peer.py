"""The peer console against a small scripted editor: a socket and canned messages."""
import json
import signal
import socket
import subprocess
import sys
import threading
from pathlib import Path

import pytest

TOOL = Path(__file__).resolve().parents[1] / "tools" / "peer.py"
sys.path.insert(0, str(TOOL.parent))
from peer import Peer, PeerError, describe, encode  # noqa: E402

XF = [1.0, 2.0, 3.0, 1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0, 1.0, 1.0, 1.0]
ENTRY = {"path": "/Game/M.M", "bmin": [0, 0, 0], "bmax": [1, 1, 1], "key": "k", "stamp": "1_2"}


def rec(aid, kind, label, folder="", **more):
    return {"id": aid, "kind": kind, "label": label, "folder": folder, "xf": XF, **more}


CHAIR = rec("L.c", "mesh", "Chair", tags=["x"], asset="/Game/M.M")
LAMP = rec("L.l", "light", "Lamp", "Lights", light={"type": "point", "cd": 10.0})
LAND = rec("L.t", "terrain", "Land", ter={})
GROUP = rec("L.g", "group", "Rig", sig="1/0", cls="BP_C", comps=[])
HELLO = {"t": "hello", "version": 16, "project": "Demo", "cache": "/c"}
SNAPSHOT = {"t": "snapshot", "level": "L", "world": "/Game/L.L", "actors": [CHAIR, LAMP, LAND]}
GREETING = [HELLO, {"t": "assets", "items": [ENTRY]}, SNAPSHOT]


class Editor:
    def __init__(self):
        self.server = socket.create_server(("127.0.0.1", 0))
        self.port = self.server.getsockname()[1]
        self.heard = []

    def accept(self):
        self.conn = self.server.accept()[0]

    def send(self, *msgs):
        self.conn.sendall(b"".join(encode(m) + b"\n" for m in msgs))

    def serve(self, answers):
        """Answers "hello", and others from `answers` (None hangs up), until the peer leaves."""
        self.accept()
        with self.conn, self.conn.makefile("rb") as lines:
            for line in lines:
                self.heard.append(json.loads(line))
                kind = self.heard[-1]["t"]
                if kind in answers and answers[kind] is None:
                    break
                self.send(*([answers[kind]] if kind in answers else GREETING * (kind == "hello")))


@pytest.fixture
def editor():
    fake = Editor()
    with fake.server:
        yield fake


@pytest.fixture
def peer(editor):
    with Peer(ports=editor.port) as it:
        editor.accept()
        with editor.conn:
            yield it


def test_connects_to_the_first_port_that_accepts(editor):
    with socket.socket() as closed:
        closed.bind(("127.0.0.1", 0))                   # holds the port without listening
        port = closed.getsockname()[1]
        with Peer(ports=[port, editor.port]) as peer:
            editor.accept()
            peer.hello("me", scope={"radius_m": 5}, takeover=True, pid=None)
            assert json.loads(editor.conn.recv(1000)) == {
                "t": "hello", "client": "me", "version": 16, "scope": {"radius_m": 5},
                "takeover": True}
            editor.conn.close()
        with pytest.raises(PeerError, match=f"no editor is listening on 127.0.0.1, port {port} "):
            Peer(ports=port)


def test_mirror_follows_every_message(editor, peer):
    moved, entry2 = [9.0, *XF[1:]], {**ENTRY, "path": "/Game/N.N"}
    comps, mats = [{"asset": "/Game/N.N", "rel": XF, "name": "c"}], [[0, "s", "", "/Game/W.W"]]
    stream = [
        *GREETING[:2], {**SNAPSHOT, "gone": ["L.old"]}, {"t": "add", "actor": GROUP},
        {"t": "add", "actor": rec("L.s", "skel", "Hero", asset="/Game/S.S")},
        {"t": "spawned", "tmp": 1, "actor": {**LAMP, "id": "L.x"}},
        {"t": "xf", "items": [["L.c", moved], ["L.l", moved]]},
        {"t": "assets", "items": [entry2]}, {"t": "set_mesh", "id": "L.c", "asset": "/Game/N.N"},
        {"t": "mats", "id": "L.c", "mats": mats}, {"t": "tags", "id": "L.c", "tags": []},
        {"t": "props", "id": "L.l", "light": {"cd": 20.0}, "cam": None, "text": None},
        {"t": "rename", "id": "L.l", "label": "Lámp", "folder": ""},
        {"t": "group", "id": "L.g", "comps": comps}, {"t": "remove", "ids": ["L.x", "L.s"]},
        {"t": "sel", "ids": ["L.c"]}, {"t": "status", "paused": True, "msg": "playing"},
        {"t": "busy", "what": "importing"}, {"t": "error", "msg": "mat: no"}, {"t": "new_type"}]
    data = b"".join(encode(m) + b"\n" for m in stream)
    for at in range(0, len(data), 97):                  # cuts lines anywhere
        editor.conn.sendall(data[at:at + 97])
        peer.pump(0.01)
    peer.wait("new_type")
    assert peer.messages == stream and peer.faults == []
    assert peer.actors == {
        "L.c": {**rec("L.c", "mesh", "Chair", asset="/Game/N.N", mats=mats), "xf": moved},
        "L.l": {**rec("L.l", "light", "Lámp", light={"cd": 20.0}), "xf": moved},
        "L.t": LAND, "L.g": rec("L.g", "group", "Rig", cls="BP_C", comps=comps)}
    assert peer.assets == {"/Game/M.M": ENTRY, "/Game/N.N": entry2}
    assert (peer.editor, peer.level, peer.world) == (HELLO, "L", "/Game/L.L")
    assert (peer.gone, peer.selection, peer.paused) == (["L.old"], ["L.c"], True)
    assert (peer.busy, peer.errors) == ("importing", ["mat: no"])
    editor.send({**SNAPSHOT, "actors": [LAMP]})
    peer.wait("snapshot")
    assert peer.actors == {"L.l": LAMP} and peer.gone is None


@pytest.mark.parametrize("sent, fault", [
    ({"t": "xf", "items": [["L.no", XF]]}, '"xf" for L.no, which the mirror doesn\'t have'),
    ({"t": "add", "actor": LAMP}, "already"),
    ({"t": "add", "actor": {**CHAIR, "id": "L.d", "asset": "/Game/No.No"}}, "no entry came for"),
    ({"t": "set_mesh", "id": "L.c", "asset": "/Game/No.No"}, "no entry came for"),
    ({"t": "spawned", "actor": {k: v for k, v in GROUP.items() if k != "cls"}}, "lacks cls"),
    ({"t": "assets", "items": [{"path": "/Game/P.P"}]}, "lacks bmin, bmax, key, stamp"),
    ({"t": "xf", "items": [["L.c", [float("nan"), *XF[1:]]]]}, "15 finite"),
    ({"t": "cam", "c": [-0.0]}, "negative zero"),
    ({"t": "sel"}, 'malformed "sel"'),
    (b'{"t": "ue_fps","fps":60.0}', "compact"),
    (b'{"fps":60.0}', 'without "t"'),
    (b'{"t":"\xff"}', "isn't JSON"),
])
def test_faults_are_found(editor, peer, sent, fault):
    editor.send(*GREETING)
    editor.conn.sendall((sent if isinstance(sent, bytes) else encode(sent)) + b"\n")
    editor.send({"t": "mark"})
    peer.wait("mark")
    assert len(peer.faults) == 1 and fault in peer.faults[0]


def test_own_edits_enter_the_mirror(editor, peer):
    editor.send(*GREETING)
    peer.wait("snapshot")
    peer.send({"t": "delete", "ids": ["L.l"]})          # refused before "synced"
    assert "L.l" in peer.actors
    peer.synced()
    moved = [7.0, *XF[1:]]
    for msg in [{"t": "delete", "ids": ["L.l", "L.t"]}, {"t": "tags", "id": "L.c", "tags": [""]},
                {"t": "rename", "id": "L.c", "label": "", "folder": "New"},
                {"t": "xf", "items": [["L.c", moved], ["L.t", moved]]},
                {"t": "set_mesh", "id": "L.c"}, {"t": "xf", "items": None}]:
        peer.send(msg)
    chair = {**rec("L.c", "mesh", "Chair", "New", asset=""), "xf": moved}
    assert peer.actors == {"L.c": chair, "L.t": LAND}
    editor.send({"t": "xf", "items": [["L.l", XF]]}, {"t": "mark"})     # crossed our delete
    peer.wait("mark")
    assert peer.faults == [] and SNAPSHOT["actors"] == [CHAIR, LAMP, LAND]
    editor.send({"t": "add", "actor": LAMP}, *[{"t": "remove", "ids": ["L.l"]}] * 2, {"t": "mark"})
    peer.wait("mark")
    assert len(peer.faults) == 1                        # it had come back, so this isn't about us


def test_wait_and_take_have_positions_of_their_own(editor, peer):
    def a(n):
        return {"t": "a", "n": n}
    editor.send(a(1), {"t": "b"}, a(2), a(3))
    assert peer.wait("a", lambda m: m["n"] == 2) == a(2)
    assert peer.wait(("b", "a")) == {"t": "b"}          # another type, earlier in the stream
    assert peer.wait("a") == a(3)                       # 1 was passed over, 2 is taken
    assert [m["t"] for m in peer.take()] == ["a", "b", "a", "a"]
    editor.send(a(4))
    with pytest.raises(PeerError, match='no "a" from the editor within 0.05 s'):
        peer.wait("a", lambda m: False, timeout=0.05)
    ticks = iter([[], [a(5)]])
    assert peer.wait("a", idle=lambda: editor.send(*next(ticks))) == a(5)
    assert peer.take() == [a(4), a(5)] and len(peer.messages) == 6
    peer.clear()
    editor.send(a(6))
    assert peer.wait("a") == a(6) and peer.messages == [a(6)]


def test_ends_of_a_connection(editor, peer):
    sent, got = b'{"t":"' + b"x" * 10_000_000 + b'"}\n', b""
    peer.send_raw(sent)                                 # more than the socket takes at once
    while len(got) < len(sent):
        got += editor.conn.recv(1 << 20)
        peer.pump()
    assert got == sent
    editor.send({"t": "a"}, {"t": "refused", "msg": "taken"}, {"t": "b"})
    editor.conn.sendall(b'{"t":"cut')
    editor.conn.close()
    for _ in range(3):                                  # into the void, but not an error yet
        peer.send({"t": "early"})
    assert peer.wait("b") == {"t": "b"}                 # what came before the end still counts
    with pytest.raises(PeerError, match="refused the link: taken"):
        peer.wait("c")
    assert peer.closed and peer.faults == [] and peer.wait("refused")["msg"] == "taken"
    with pytest.raises(PeerError, match="closed"):
        peer.send({"t": "late"})


def console(port, *command):
    done = subprocess.run([sys.executable, TOOL, "--port", str(port), *command],
                          capture_output=True, text=True, timeout=20)
    return done.returncode, done.stdout, done.stderr


VIEW = {"t": "cam", "c": [1, 2, 3, 1, 0, 0, 0, 0, 1, 90.0], "snap": True}
UNSAVED = {"t": "level_opened", "path": "/B", "ok": False, "unsaved": 2, "level": "/Game/L"}
ECHO = {"t": "props", "id": "L.l", "light": {"cd": 5.0}, "echo": True}


@pytest.mark.parametrize("command, answers, code, said, heard", [
    ("snapshot", {}, 0, "light          1  Lamp", []),
    ('send {"t":"x"} --wait 0.3', {"x": {"t": "busy", "what": "y"}}, 0, "busy      y",
     [{"t": "x"}]),
    ("move Chair -5 6 7 --wait 0.3", {"xf": {"t": "unknown", "ids": ["L.c"]}}, 1, "unknown   Chair",
     [{"t": "xf", "items": [["L.c", [-5.0, 6.0, 7.0, *XF[3:]]]]}, {"t": "drag_end"}]),
    ("snapshot", {"hello": {"t": "error", "msg": "hello: bad scope"}}, 1, "reports: hello: bad", []),
    ("rename Lmap X", {}, 1, 'no actor "Lmap"; similar labels: Lamp', []),
    ("light Lamp --cd 5 --no-shadows", {"props": ECHO}, 0, "Lamp  cd 5.0  (echo)",
     [{"t": "props", "id": "L.l", "light": {"cd": 5.0, "shadows": False}}]),
    ("spawn sun", {"spawn": {"t": "spawn_failed", "tmp": "console", "msg": "full"}}, 1, "full",
     None),
    ("open /B", {"open_level": UNSAVED}, 1, "/Game/L has 2 unsaved, say --save", None),
    ("levels", {"need_levels": {"t": "error", "msg": "need_levels: boom"}}, 1, "boom", None),
    ("camera 9 9 9", {"cam_get": VIEW}, 0, "fov 90",
     [{"t": "cam_get"}, {"t": "cam", "c": [9.0, 9.0, 9.0, *VIEW["c"][3:]]}, {"t": "cam_get"}]),
    ("watch", {"synced": None}, 1, "peer: the editor closed the connection", []),
    ("levels", {"hello": {"t": "refused", "msg": "taken"}}, 1, "refused the link: taken", None),
])
def test_console_commands(editor, command, answers, code, said, heard):
    thread = threading.Thread(target=editor.serve, args=(answers,))
    thread.start()
    got, out, err = console(editor.port, *command.split())
    thread.join(10)
    assert got == code and said in (err if code else out) and "Traceback" not in err
    assert heard is None or editor.heard[2:] == heard   # behind "hello" and "synced"


def test_console_with_a_wrong_command_line_or_without_an_editor(editor):
    for command, said in [(["send", "{oops"], "not JSON"),
                          (["move", "Chair", "1", "2"], "required: z")]:
        code, _, err = console(editor.port, *command)
        assert code == 2 and said in err
    editor.server.setblocking(False)
    with pytest.raises(BlockingIOError):                # it didn't even connect
        editor.accept()
    editor.server.close()
    code, out, err = console(editor.port, "levels")
    assert code == 1 and out == "" and err.startswith("peer: no editor is listening")


@pytest.mark.parametrize("end, code", [("interrupt", 0), ("pipe", 1)])
def test_watch_ends_quietly(editor, end, code, request):
    threading.Thread(target=editor.serve, args=({},), daemon=True).start()
    # The tool starts with the signals that it finds: a shell's background job ignores this one.
    inherited = signal.signal(signal.SIGINT, signal.default_int_handler)
    request.addfinalizer(lambda: signal.signal(signal.SIGINT, inherited))
    with subprocess.Popen([sys.executable, TOOL, "--port", str(editor.port), "watch"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as watch:
        give_up = threading.Timer(10, watch.kill)       # ends the reads below, too
        give_up.start()
        verbs = [watch.stdout.readline().split()[0] for _ in GREETING]
        if end == "interrupt":
            watch.send_signal(signal.SIGINT)
        else:
            watch.stdout.close()
            editor.send({"t": "ue_fps", "fps": 60.0})
        assert (watch.wait(), watch.stderr.read()) == (code, "")
        give_up.cancel()
    assert verbs == ["hello", "assets", "snapshot"]


def test_record_writes_messages_with_times(editor, tmp_path):
    threading.Thread(target=editor.serve, args=({},), daemon=True).start()
    assert console(editor.port, "record", str(tmp_path / "r"), "--seconds", "0.3")[0] == 0
    rows = [json.loads(line) for line in (tmp_path / "r").read_text().splitlines()]
    assert [row["msg"] for row in rows] == GREETING and 0 <= rows[0]["time"] < 10


def test_described_lines(editor, peer):
    editor.send(*GREETING)
    peer.wait("snapshot")
    for msg, line in [
            ({"t": "xf", "items": [["L.c", XF]]}, "move      Chair  → (1.0, 2.0, 3.0)"),
            ({"t": "props", "id": "L.l", "light": {"cd": 3}}, "props     Lamp  cd 10.0 → 3"),
            ({"t": "rename", "id": 5}, "rename    id 5"),       # malformed
            ({"t": "error", "msg": "a\x1b[2Jb"}, "error     a\ufffd[2Jb")]:
        assert describe(peer, msg) == line
