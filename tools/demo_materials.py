"""The demo's fourth act: materials of Blender's own files become instances, are tuned live, assigned,
dropped and collected.

Steps as in demo.py: each sends, and yields what the editor must then hold.
"""
import pathlib
import shutil
import time

from demo_assets import PATIENCE, ROOT, expect
from link_peer import resolve

FILES = ROOT / "tests" / "data" / "materials"
FLOOR = "Floor"
made = {}       # name -> "mat_done"


def build(peer, name, file, **fields):
    """Has a material built; its name, roughness and textures are what the editor must then hold."""
    peer.send({"t": "mat", "name": name, "key": name, "req": name, "file": str(file), "cleanup": True, **fields})
    done = peer.wait("mat_done", lambda m: m["req"] == name, PATIENCE)
    expect("error" not in done, f"{name} wasn't built: {done.get('error')}")
    made[name] = done
    print(f"  {done['path']} with {', '.join(n for n, _ in done['textures']) or 'no textures'}")


def held(**changed):
    """What the editor must hold of the materials made here: the roughness of each."""
    roughness = {FLOOR: 1.0, "Car Paint": 0.5} | changed
    return {"materials": {made[name]["path"]: roughness[name] for name in made}}


def materials_in(peer):
    """A material comes in as a .gltf with image files, another as a .glb by the editor's importer"""
    folder = pathlib.Path(peer.editor["cache"]) / "blender" / "floor"
    shutil.copytree(FILES / "full_pbr", folder, dirs_exist_ok=True)
    build(peer, FLOOR, folder / "material.gltf")
    build(peer, "Car Paint", FILES / "textured.glb")
    yield {"steps": []} | held()
    build(peer, FLOOR, folder / "material.gltf")    # nothing has changed: nothing is imported
    yield held()


def tune(peer):
    """A slider moves for a second, sixty times: no build, nothing saved, the last value stands"""
    for i in range(60):
        peer.send({"t": "mat_params", "path": made[FLOOR]["path"], "params": {"RoughnessFactor": i / 118}})
        time.sleep(1 / 60)
    yield {"steps": []} | held(Floor=0.5)
    folder = pathlib.Path(peer.editor["cache"]) / "blender" / "floor" / "tex files"
    texture = dict(made[FLOOR]["textures"])["base_color"]
    shutil.copy(folder / "orm.png", folder / "painted.png")
    peer.send({"t": "tex", "path": texture, "file": str(folder / "painted.png")})
    peer.wait("tex_done", lambda m: m["path"] == texture, PATIENCE)
    yield held(Floor=0.5)


def assign(peer):
    """It goes onto an actor's slot, as a step that the user can undo, and onto the link's own mesh"""
    actor, chair = resolve(peer, "Prop5"), peer.actors[resolve(peer, "Prop4")]["asset"]
    peer.send({"t": "assign", "id": actor, "slots": [[0, "", made[FLOOR]["path"]]]})
    peer.send({"t": "assign", "asset": chair, "slots": [[0, "", made["Car Paint"]["path"]]]})
    yield {"steps": ["Verrin: materials Prop5"], "users": {made[FLOOR]["path"]: ["Prop5"],
                                                           made["Car Paint"]["path"]: ["Prop4"]}}


def drop(peer):
    """One leaves its slot and is dropped: a look later nobody uses it, and the log says so"""
    peer.send({"t": "assign", "id": resolve(peer, "Prop5"), "slots": [[0, "", ""]]})
    for name in made:
        peer.send({"t": "mat_drop", "name": name})
    print("  waiting for the clean-up")
    yield {"steps": ["Verrin: materials Prop5"], "unused": [made[FLOOR]["path"].split(".")[0]]}


STEPS = (materials_in, tune, assign, drop)
QUICK_STEPS = (materials_in,)
