"""The peer: its library against a scripted editor, its console against the editor program."""
import json
import os
import signal
import socket
import subprocess
import sys
import threading

import pytest
from conftest import PLUGIN, ROOT
from link_peer import Peer, PeerError, editors, encode, find
from sim.formats import gltf, png

TOOL = ROOT / "tools" / "peer.py"
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


@pytest.fixture(scope="module")
def program(tmp_path_factory):
    """The editor program on a small level, and its port: run(*command) gives (code, out, err)."""
    project = tmp_path_factory.mktemp("program")
    with subprocess.Popen(
            [sys.executable, "-m", "sim", "--project", project, "--actors", "60",
             "--plugin", PLUGIN / "Content" / "Python"],
            cwd=ROOT, stdout=subprocess.PIPE, text=True) as editor:
        give_up = threading.Timer(60, editor.kill)
        give_up.start()
        port = next(int(line.split("127.0.0.1:")[1].split()[0]) for line in editor.stdout
                    if "listening on" in line)
        threading.Thread(target=editor.stdout.read, daemon=True).start()

        def run(*command, **how):
            done = subprocess.run([sys.executable, TOOL, *command, *how.pop("at", ("--port", str(port)))],
                                  capture_output=True, text=True, timeout=30, **how)
            assert "Traceback" not in done.stderr
            return done.returncode, done.stdout, done.stderr
        run.port = port
        yield run
        give_up.cancel()
        editor.terminate()


def test_the_console_tells_what_the_editor_did(program, tmp_path):
    code, out, _ = program("snapshot")
    assert code == 0 and "light" in out and "Sun" in out
    code, out, _ = program("--json", "spawn", "mesh", "--label", "Box", "--at", "1", "2", "3")
    box = json.loads(out)["actor"]
    assert code == 0 and box["label"] == "Box" and box["xf"][:3] == [1.0, 2.0, 3.0]
    assert program("move", "Box", "100", "0", "50") == (0, "moved Box to (100.0, 0.0, 50.0)\n", "")
    assert program("rename", "Box", "Seat", "--folder", "New")[:2] == (0, "renamed Box to Seat\n")
    assert program("tag", "Seat", "a", "--json")[1] == '{"done": true}\n'
    assert program("select", "Seat", "--frame")[0] == 0
    for command, said in ((("move", "Ground", "1", "2", "3"), "nothing happened"),
                          (("delete", "Ground"), "nothing happened")):
        assert program(*command)[:2] == (1, f"{said}: the editor leaves it as it is\n")
    assert program("delete", "Seat")[1] == "deleted Seat\n"
    code, _, err = program("rename", "Snu", "X")
    assert code == 1 and 'no actor "Snu"; similar labels: Sun' in err
    code, out, _ = program("light", "Sun", "--lux", "5", "--no-shadows")
    assert code == 0 and "lux" in out and "(echo)" in out
    assert program("spawn", "text", "--label", "Hi")[1].startswith("spawned   text  Hi")
    code, out, _ = program("levels", "--json")
    assert code == 0 and json.loads(out)["current"].startswith("/Game/Maps/Main")
    code, _, err = program("open", "/Game/Maps/No", "--save")
    assert code == 1 and "wasn't opened" in err
    assert json.loads(program("camera", "9", "9", "9", "--json")[1])["c"][:3] == [9.0, 9.0, 9.0]
    code, _, err = program("send", '{"t":"rename"}', "--wait", "0.3")
    assert code == 1 and err == ""
    file = tmp_path / "record"
    assert program("record", str(file), "--seconds", "0.3")[0] == 0
    rows = [json.loads(line) for line in file.read_text().splitlines()]
    assert {"hello", "snapshot"} <= {row["msg"]["t"] for row in rows}
    code, _, err = program("record", str(file), at=("--port", "1"))
    assert code == 1 and "no editor is listening" in err and file.read_text().splitlines()
    for command, said in [(("send", "{oops"), "not JSON"), (("move", "Chair", "1", "2"), "required: z")]:
        code, _, err = program(*command)
        assert code == 2 and said in err
    done = subprocess.run([sys.executable, "-m", "sim", "--plugin", tmp_path], cwd=ROOT,
                          capture_output=True, text=True, timeout=30)
    assert done.returncode == 1 and "no plugin at" in done.stderr


def test_the_console_brings_meshes_and_rigs(program, tmp_path):
    glb = str(ROOT / "tests" / "data" / "glb") + "/"
    answer = json.loads(program("mesh", glb + "chair.glb", "--as", "Seat", "--show", "Prop3", "--json")[1])
    assert answer["asset"] == "/Game/Verrin/Seat/StaticMeshes/chair_mesh.chair_mesh"
    assert program("mesh", glb + "tiny.glb", "--overwrite", "chair_mesh")[:2] == (
        0, f"overwrote {answer['asset']}\n")
    file = tmp_path / "seat.glb"
    assert program("need", "chair_mesh", "--save", str(file))[0] == 0
    assert len(gltf.read(file.read_bytes()).meshes[0].parts[0].arrays["indices"]) == 3
    code, out, _ = program("rig", glb + "rig.glb", "--as", "Hero", "--anim", "walk")
    assert code == 0 and "skel  Hero" in out
    assert program("rig", glb + "rig.glb", "--actor", "Hero")[1].startswith("imported /Game/Verrin/Hero/")
    assert program("collision", "chair_mesh", "Box")[1] == "chair_mesh collides as BOX\n"
    assert program("physics", "Prop3", "--sim", "--mass", "3")[1] == "Prop3 simulates\n"
    assert program("snapshot", "--gallery", str(tmp_path))[0] == 0
    assert png.read((tmp_path / "gallery.png").read_bytes()).std() > 10     # something is in it
    for command, said in ((("mesh", "no.glb"), "no such file"), (("need", "Nothing"), 'no mesh "Nothing"'),
                          (("mesh", glb + "lines.glb"), "no static mesh"),
                          (("rig", glb + "tiny.glb"), "no skeletal mesh"),
                          (("collision", "Cube", "box"), "isn't the link's own")):
        code, _, err = program(*command)
        assert code == 1 and said in err


def test_the_console_makes_materials(program, tmp_path):
    file = str(ROOT / "tests" / "data" / "materials" / "full_pbr" / "material.gltf")
    code, out, _ = program("material", file, "--as", "Wood")
    first, *textures = out.splitlines()
    assert code == 0 and first == "built /Game/Verrin/Materials/Wood/FBX/Wood.Wood" and len(textures) == 4
    assert program("params", "Wood", "RoughnessFactor=0.5", "BaseColorFactor=1,0.5,0")[1].startswith("set Roughness")
    assert program("texture", textures[0].split()[1], file.replace("material.gltf", "tex files/orm.png"))[0] == 0
    assert program("assign", "0=Wood", "--actor", "Prop3")[1] == "assigned 1 slot(s)\n"
    row, = program("materials")[1].splitlines()
    assert row.split() == ["Wood", "there", "4", "textures", "/Game/Verrin/Materials/Wood/FBX/Wood.Wood", "Prop3"]
    assert json.loads(program("materials", "--json")[1])["materials"][0]["actors"] == ["Prop3"]
    assert program("assign", "0=", "--actor", "Prop3")[0] == 0 and program("materials")[1].split()[-1] == "-"
    assert program("drop", "Wood")[0] == 0 and program("materials")[1] == ""
    for command, said in ((("material", "no.gltf"), "no such file"), (("params", "Wood", "a=1"), "no material"),
                          (("material", str(ROOT / "README.md")), "no material in README.md"),
                          (("params", "/Game/No.No", "a=1"), "isn't there")):
        code, _, err = program(*command)
        assert code == 1 and said in err
    assert program("params", "Wood", "nonsense")[0] == 2


def test_editors_are_found_among_other_things(program):
    """Beside the editor somebody says nothing, somebody hangs up, and nobody listens."""
    with socket.create_server(("127.0.0.1", 0)) as mute, socket.create_server(("127.0.0.1", 0)) as rude:
        def hang_up():
            for _ in range(2):
                rude.accept()[0].close()
        threading.Thread(target=hang_up, daemon=True).start()
        ports = [1, *(s.getsockname()[1] for s in (mute, rude)), program.port]
        with find(ports=ports, timeout=5.0) as peer:
            peer.wait("snapshot")
            assert peer.port == program.port
            states = {row["port"]: row["state"] for row in editors(ports=ports[2:])}
            assert states == {ports[2]: "silent", program.port: "linked"}
            peer.synced()
            assert not peer.closed and peer.faults == []
        with pytest.raises(PeerError, match="something else may be listening"):
            find(ports=ports[1], timeout=0.1)
    code, out, _ = program("editors")
    assert code == 0 and out == f"{program.port}  free    Demo\n"
    assert program("editors", at=("--port", "1"))[0] == 1


@pytest.mark.parametrize("end, code", [("interrupt", 0), ("pipe", 1)])
def test_watch_ends_quietly(editor, end, code, request):
    threading.Thread(target=editor.serve, args=({},), daemon=True).start()
    # The tool starts with the signals that it finds: a shell's background job ignores this one.
    inherited = signal.signal(signal.SIGINT, signal.default_int_handler)
    request.addfinalizer(lambda: signal.signal(signal.SIGINT, inherited))
    with subprocess.Popen([sys.executable, TOOL, "watch", "--port", str(editor.port)],
                          env={**os.environ, "PYTHONIOENCODING": "cp1252", "NO_COLOR": "1"},
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as watch:
        give_up = threading.Timer(10, watch.kill)       # ends the reads below, too
        give_up.start()
        verbs = [watch.stdout.readline().split()[0] for _ in GREETING]
        editor.send({"t": "xf", "items": [["L.c", XF]]})
        assert watch.stdout.readline() == "move      Chair  ? (1.0, 2.0, 3.0)\n"    # no arrow there
        if end == "interrupt":
            watch.send_signal(signal.SIGINT)
        else:
            watch.stdout.close()
            editor.send({"t": "ue_fps", "fps": 60.0})
        assert (watch.wait(), watch.stderr.read()) == (code, "")
        give_up.cancel()
    assert verbs == ["hello", "assets", "snapshot"]
