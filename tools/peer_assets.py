"""The console's commands for meshes, rigs, collision and physics."""
import os
import pathlib
import shutil
import sys

from link_peer import PeerError, resolve
from peer_talk import ask, post, show, tell
from peer_text import label_of, short

SHAPES = ("auto", "hull", "box", "sphere", "capsule", "mesh", "none")
PHYSICS = {"mass": "kilograms, 0 for what follows from the shape", "friction": "default 0.7",
           "bounce": "default 0.3", "ldamp": "linear damping", "adamp": "angular damping"}
LONG = 600.0    # seconds that an import or an export may take
MOST_TRIANGLES = 20000      # of one mesh in a picture; more of them show nothing more


def asset_named(peer, name):
    """The path of an asset of the level by its path or its short name."""
    found = [path for path in peer.assets if name in (path, short(path))]
    if not found and not name.startswith("/"):
        raise PeerError(f'no mesh "{name}" in this level; it has '
                        + (", ".join(sorted(map(short, peer.assets))[:8]) or "none"))
    return found[0] if found else name


def file_named(name):
    if not os.path.isfile(name):
        raise PeerError(f"no such file: {name}")
    return os.path.abspath(name)


def mesh(peer, args):
    """import a mesh file into the project, over an asset if one is named"""
    msg = {"t": "mesh", "file": file_named(args.file), "req": "console",
           "name": args.called or pathlib.Path(args.file).stem,
           "ids": [resolve(peer, name) for name in args.show]}
    if args.overwrite or args.asset:
        msg |= {"asset": asset_named(peer, args.overwrite or args.asset),
                "overwrite": bool(args.overwrite)}
    done = ask(peer, args, msg, "mesh_done", match=lambda m: m["req"] == "console", timeout=LONG)
    if "error" in done:
        raise PeerError(done["error"])
    tell(args, f"{'overwrote' if done.get('overwrite') else 'imported'} {done['asset']}", **done)


def fetch(peer, args, path, **how):
    """The last "mesh_file" of an asset that was asked for; PeerError if it can't be exported."""
    answer = ask(peer, args, {"t": "need_mesh", "assets": [path], **how}, "mesh_file",
                 match=lambda m: m["asset"] == path and ("error" in m or m["phase"] == how.get(
                     "phase", m["phase"])), timeout=LONG)
    if "error" in answer:
        raise PeerError(answer["error"])
    return answer


def need(peer, args):
    """have an asset exported, and copy the file"""
    answer = fetch(peer, args, asset_named(peer, args.asset), full=True)
    if args.save:
        shutil.copyfile(answer["file"], args.save)
    tell(args, f"{answer['asset']} is in {args.save or answer['file']}", **answer)


def rig(peer, args):
    """import a rig onto a skeletal mesh actor, or as a new one, and play an animation"""
    msg = {"file": file_named(args.file), "name": args.called or pathlib.Path(args.file).stem,
           "anim": args.anim}
    if args.actor:
        done = ask(peer, args, {"t": "rig", "id": resolve(peer, args.actor), **msg}, "rig_done",
                   timeout=LONG)
        if "error" in done:
            raise PeerError(done["error"])
        return tell(args, f"imported {done['asset']}", **done)
    place = [0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1]
    show(peer, ask(peer, args, {"t": "spawn", "kind": "skel", "tmp": "console", "xf": place,
                                "label": msg["name"], **msg},
                   "spawned", "spawn_failed", match=lambda m: m["tmp"] == "console", timeout=LONG),
         args.json)


def collision(peer, args):
    """choose how one of the link's own meshes collides"""
    path = asset_named(peer, args.asset)
    root = peer.editor["link_root"]
    if not path.startswith(root + "/"):
        raise PeerError(f"{path} isn't the link's own: collision is chosen for meshes under {root}")
    record = {"shape": args.shape.upper(), "sac": args.sac}
    peer.clear()            # of the entries that came with the greeting
    answer = ask(peer, args, {"t": "coll", "asset": path, "coll": record}, "assets",
                 match=lambda m: any(e["path"] == path for e in m["items"]), timeout=LONG)
    entry = next(e for e in answer["items"] if e["path"] == path)
    tell(args, f"{short(path)} collides as {entry.get('coll', {}).get('shape')}", **entry)


def physics(peer, args):
    """have an actor simulate physics, or not; what isn't given takes the default"""
    aid = resolve(peer, args.actor)
    values = {key: getattr(args, key) for key in PHYSICS if getattr(args, key) is not None}
    values |= {"sim": args.sim}
    return post(peer, args, f"{label_of(peer, aid)} {'simulates' if args.sim else 'stands'}",
                lambda: peer.actors.get(aid, {}).get("phys", {}).get("sim", False) == args.sim,
                {"t": "phys", "id": aid, "phys": values})


def draw(axes, file):
    """A shaded view of a GLB file's triangles."""
    import numpy as np
    sys.path.append(str(pathlib.Path(__file__).resolve().parents[1]))
    from sim.formats import gltf

    corners = [part.arrays["positions"][part.arrays["indices"]].reshape(-1, 3, 3)
               for found in gltf.read(pathlib.Path(file).read_bytes()).meshes for part in found.parts]
    corners = np.concatenate(corners)[..., (0, 2, 1)] * (1, -1, 1)     # z up
    points = corners[::len(corners) // MOST_TRIANGLES + 1].reshape(-1, 3)
    axes.set_box_aspect((1, 1, 1))
    axes.plot_trisurf(*points.T, triangles=np.arange(len(points)).reshape(-1, 3), color="tab:blue")
    low, high = points.min(0), points.max(0)
    reach = max((high - low).max() / 2, 1e-6)
    for limit, middle in zip((axes.set_xlim, axes.set_ylim, axes.set_zlim), (low + high) / 2):
        limit(middle - reach, middle + reach)


def gallery(peer, args):
    """One picture of all meshes of the level, as gallery.png in a folder."""
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot

    paths = sorted(path for path, entry in peer.assets.items() if entry["key"] != "missing")
    if not paths:
        raise PeerError("the level has no meshes")
    files = {path: fetch(peer, args, path, phase="geo")["file"] for path in paths}
    columns = min(4, len(paths))
    rows = -(-len(paths) // columns)
    figure = pyplot.figure(figsize=(3 * columns, 3 * rows), dpi=100)
    for i, (path, file) in enumerate(files.items()):
        axes = figure.add_subplot(rows, columns, i + 1, projection="3d")
        axes.set_axis_off()
        axes.set_title(short(path), fontsize=9)
        if file.lower().endswith(".glb"):
            draw(axes, file)
    os.makedirs(args.gallery, exist_ok=True)
    target = os.path.join(args.gallery, "gallery.png")
    figure.savefig(target)
    tell(args, f"{len(paths)} meshes in {target}", file=target, meshes=paths)


def add_commands(command, actor, flag):
    """Enters these commands; `command`, `actor` and `flag` as the console's parser has them."""
    file = ("file", {"metavar": "FILE"})
    name = ("--as", {"dest": "called", "metavar": "NAME", "help": "of the asset; the file's own by default"})
    asset = ("asset", {"metavar": "ASSET", "help": "path or short name"})
    command("mesh", mesh, file, name,
            ("--asset", {"help": "one of the link's own meshes to replace"}),
            ("--overwrite", {"metavar": "ASSET", "help": "any mesh of the project; it is backed up"}),
            ("--show", {"nargs": "+", "default": [], "metavar": "ID|LABEL",
                        "help": "mesh actors that get the new mesh"}))
    command("need", need, asset, ("--save", {"metavar": "FILE"}))
    command("rig", rig, file, name, ("--actor", {"metavar": "ID|LABEL"}),
            ("--anim", {"help": "animation to play"}))
    command("collision", collision, asset, ("shape", {"choices": SHAPES, "type": str.lower}),
            ("--sac", flag | {"help": "the simple shapes stand for the complex collision, too"}))
    command("physics", physics, actor, ("--sim", flag),
            *[("--" + key, {"type": float, "help": text}) for key, text in PHYSICS.items()])
