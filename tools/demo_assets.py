"""The demo's third act: meshes and a rig cross the link as real files, written as Blender does.

Steps as in demo.py: each sends, and yields what the editor must then hold.
"""
import os
import pathlib
import sys

import numpy as np
from link_peer import resolve

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT))
from sim.formats import glb, gltf  # noqa: E402 - from the tree, whatever is installed

FILES = ROOT / "tests" / "data" / "glb"
CRATE = "/Game/Props/Crate.Crate"
PATIENCE = 20.0
CM = 100.0


def expect(truth, text):
    if not truth:
        raise AssertionError(text)


def fetch(peer, asset, phase):
    """The answer to a request for a mesh in that phase."""
    peer.send({"t": "need_mesh", "assets": [asset], "full": phase == "full"})
    answer = peer.wait("mesh_file", lambda m: m["asset"] == asset and m["phase"] == phase, PATIENCE)
    expect("error" not in answer, f"{asset} wasn't exported: {answer.get('error')}")
    return answer


def geometry(file):
    """(positions in centimetres in the editor's axes, number of triangles) of a file."""
    parts = [part for mesh in gltf.read(pathlib.Path(file).read_bytes()).meshes for part in mesh.parts]
    points = np.concatenate([part.arrays["positions"] for part in parts])
    return points[:, (0, 2, 1)] * CM, sum(len(part.arrays["indices"]) for part in parts) // 3


def check_entry(peer, asset, file):
    """The file holds what the asset's entry says."""
    points, triangles = geometry(file)
    entry = peer.assets[asset]
    expect(np.allclose(points.min(0), entry["bmin"], atol=0.01)
           and np.allclose(points.max(0), entry["bmax"], atol=0.01), f"{file} isn't {entry}")
    return triangles


def send_mesh(peer, **msg):
    peer.send({"t": "mesh", "req": "demo", **msg})
    done = peer.wait("mesh_done", lambda m: m["req"] == "demo", PATIENCE)
    expect("error" not in done, f"the mesh wasn't taken: {done.get('error')}")
    return done["asset"]


def stretched(source, target):
    """A copy of a GLB file as an artist might send it back: half as high again."""
    file = glb.read(pathlib.Path(source).read_bytes())
    binary = bytearray(file.binary)
    for mesh in file.document["meshes"]:
        for primitive in mesh["primitives"]:
            accessor = file.document["accessors"][primitive["attributes"]["POSITION"]]
            view = file.document["bufferViews"][accessor["bufferView"]]
            rows = np.frombuffer(binary, np.float32, accessor["count"] * 3,
                                 view["byteOffset"] + accessor.get("byteOffset", 0)).reshape(-1, 3)
            rows[:, 1] *= 1.5
            accessor["min"], accessor["max"] = rows.min(0).tolist(), rows.max(0).tolist()
    pathlib.Path(target).write_bytes(glb.write(file.document, bytes(binary)))


def mesh_out(peer):
    """A mesh goes out: the peer asks for the crate, gets its geometry at once, then the whole"""
    geo, full = fetch(peer, CRATE, "geo"), fetch(peer, CRATE, "full")
    expect(geo["key"] == full["key"] == peer.assets[CRATE]["key"], "the key isn't the entry's")
    print(f"  {check_entry(peer, CRATE, geo['file'])} triangles in {os.path.basename(geo['file'])}")
    yield {"steps": []}


def mesh_in(peer):
    """A mesh made in Blender comes in as an asset of its own, and an actor shows it"""
    seat = resolve(peer, "Prop4")
    asset = send_mesh(peer, file=str(FILES / "chair.glb"), name="Garden chair", ids=[seat])
    peer.actors[seat]["asset"] = asset      # the editor doesn't echo it
    yield {"steps": ["Verrin: mesh Garden chair"]}
    print(f"  {check_entry(peer, asset, fetch(peer, asset, 'geo')['file'])} triangles come out again")


def overwrite(peer):
    """The crate, edited in Blender, goes over the project's own: backed up, unsaved, a new key"""
    before = peer.assets[CRATE]
    edited = os.path.join(peer.editor["cache"], "blender", "crate.glb")
    stretched(fetch(peer, CRATE, "geo")["file"], edited)
    send_mesh(peer, file=edited, asset=CRATE, overwrite=True)
    after = peer.assets[CRATE]
    expect(after["key"] != before["key"] and np.isclose(after["bmax"][2], 1.5 * before["bmax"][2]),
           f"{before} became {after}")
    check_entry(peer, CRATE, fetch(peer, CRATE, "geo")["file"])
    yield {"steps": [], "backups": ["Crate"]}


def collide(peer):
    """The chair collides as a box, and falls: physics is a step that the user can undo"""
    asset = peer.actors[resolve(peer, "Prop4")]["asset"]
    peer.send({"t": "coll", "asset": asset, "coll": {"shape": "BOX"}})
    peer.wait("assets", lambda m: m["items"][0].get("coll", {}).get("shape") == "BOX", PATIENCE)
    peer.send({"t": "phys", "id": resolve(peer, "Prop4"), "phys": {"sim": True, "mass": 4.0}})
    yield {"steps": ["Verrin: physics Prop4"]}


def walk(peer):
    """A rig comes in and walks"""
    peer.send({"t": "spawn", "kind": "skel", "tmp": "rig", "label": "Hero", "folder": "New",
               "file": str(FILES / "rig.glb"), "anim": "walk", "tags": [],
               "xf": [0, -500, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1]})
    answer = peer.wait(("spawned", "spawn_failed"), lambda m: m["tmp"] == "rig", PATIENCE)
    expect(answer["t"] == "spawned", f"no rig: {answer.get('msg')}")
    yield {"steps": ["Verrin: add Hero"], "playing": ["Hero: Walk_Cycle"]}


STEPS = (mesh_out, mesh_in, overwrite, collide, walk)
QUICK_STEPS = (mesh_in, overwrite, walk)
