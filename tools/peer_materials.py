"""The console's commands for materials. What it has made is noted in the cache folder, as an add-on
would."""
import json
import pathlib

from link_peer import PeerError, resolve
from peer_assets import LONG, asset_named, file_named
from peer_talk import ask, post, tell
from peer_text import label_of


def _notes(peer):
    return pathlib.Path(peer.editor["cache"]) / "blender" / "console_materials.json"


def _noted(peer):
    """name -> "mat_done" of the materials that the console has made in this project."""
    try:
        return json.loads(_notes(peer).read_text(encoding="utf-8"))
    except (OSError, ValueError):
        return {}


def _note(peer, made):
    _notes(peer).parent.mkdir(parents=True, exist_ok=True)
    _notes(peer).write_text(json.dumps(made), encoding="utf-8")


def _path_of(peer, name):
    """The instance's path, by it or by the name of a material that was made here."""
    if name.startswith("/"):
        return name
    made = _noted(peer)
    if name not in made:
        raise PeerError(f'no material "{name}" was made here; there are ' + (", ".join(made) or "none"))
    return made[name]["path"]


def material(peer, args):
    """build a material of a .gltf or .glb file"""
    name = args.called or pathlib.Path(args.file).stem
    done = ask(peer, args, {"t": "mat", "file": file_named(args.file), "name": name, "key": args.key or name,
                            "cleanup": args.cleanup, "req": "console"},
               "mat_done", match=lambda m: m["req"] == "console", timeout=LONG)
    if "error" in done:
        raise PeerError(done["error"])
    _note(peer, _noted(peer) | {name: done})
    tell(args, "\n  ".join([f"built {done['path']}", *(f"{n}  {path}" for n, path in done["textures"])]), **done)


def _parameter(text):
    name, mark, value = text.partition("=")
    if not mark or not name:
        raise ValueError(text)
    numbers = [float(v) for v in value.split(",")]
    return name, numbers if "," in value else numbers[0]


def params(peer, args):
    """set numbers and colours (r,g,b) of a material, unsaved"""
    path, values = _path_of(peer, args.material), dict(args.values)
    if not ask(peer, args, {"t": "mat_known", "items": [["it", path]]}, "mat_known")["ok"]:
        raise PeerError(f"{path} isn't there")
    return post(peer, args, f"set {', '.join(values)} of {path}", lambda: True,
                {"t": "mat_params", "path": path, "params": values})


def texture(peer, args):
    """put the pixels of an image file into a texture, unsaved"""
    ask(peer, args, {"t": "tex", "path": args.texture, "file": file_named(args.file)}, "tex_done", timeout=LONG)
    tell(args, f"replaced the pixels of {args.texture}", path=args.texture)


def _slot(text):
    slot, mark, name = text.partition("=")
    if not mark:
        raise ValueError(text)
    return slot, name


def assign(peer, args):
    """put materials on slots, by the slot's name or number; SLOT= takes an override off"""
    slots = [[int(slot) if slot.isdigit() else -1, "" if slot.isdigit() else slot,
              _path_of(peer, name) if name else ""] for slot, name in args.slots]
    target = ({"asset": asset_named(peer, args.asset)} if args.asset else
              {"id": resolve(peer, args.actor), "asset_level": args.asset_level, "ov_slots": args.keep})
    return post(peer, args, f"assigned {len(slots)} slot(s)", lambda: True,
                {"t": "assign", "slots": slots, **target})


def drop(peer, args):
    """give a material's assets to the clean-up"""
    _note(peer, {name: m for name, m in _noted(peer).items() if name != args.material})
    return post(peer, args, f"dropped {args.material}: the editor looks whether anything uses it", lambda: True,
                {"t": "mat_drop", "name": args.material})


def materials(peer, args):
    """list the materials made here, whether they are there, and the actors that have them"""
    made = _noted(peer)
    known = ask(peer, args, {"t": "mat_known", "items": [[n, m["path"]] for n, m in made.items()]}, "mat_known")["ok"]
    users = {name: sorted(label_of(peer, aid) for aid, rec in peer.actors.items()
                          if any(row[3] == m["path"] for row in rec.get("mats", ())))
             for name, m in made.items()}
    if args.json:
        return tell(args, "", materials=[m | {"name": n, "there": n in known, "actors": users[n]}
                                         for n, m in made.items()])
    for name, m in made.items():
        print(f"{name:20} {'there' if name in known else 'gone':6} {len(m['textures'])} textures  "
              f"{m['path']}  {', '.join(users[name]) or '-'}")


def add_commands(command, flag):
    """Enters these commands; `command` and `flag` as the console's parser has them."""
    made = ("material", {"metavar": "NAME|PATH"})
    command("material", material, ("file", {"metavar": "FILE"}),
            ("--as", {"dest": "called", "metavar": "NAME", "help": "the file's own by default"}),
            ("--key", {"help": "name of the material in a .glb file"}),
            ("--cleanup", flag | {"help": "list what earlier builds left behind"}))
    command("params", params, made, ("values", {"nargs": "+", "type": _parameter, "metavar": "PARAMETER=VALUE"}))
    command("texture", texture, ("texture", {"metavar": "PATH"}), ("file", {"metavar": "FILE"}))
    command("assign", assign, ("slots", {"nargs": "+", "type": _slot, "metavar": "SLOT=MATERIAL"}),
            ("--actor", {"metavar": "ID|LABEL"}), ("--asset", {"help": "one of the link's own meshes"}),
            ("--asset-level", flag | {"help": "change the actor's mesh"}),
            ("--keep", {"nargs": "+", "type": int, "default": [], "metavar": "I",
                        "help": "indices that stay overrides with --asset-level"}))
    command("drop", drop, ("material", {"metavar": "NAME"}))
    command("materials", materials)
