"""What a glTF file holds, as plain arrays: meshes by slot, skins, animations, images.

Everything is as it stands in the file: metres, y up, right-handed, quaternions (x, y, z, w). A file is
read whole or refused with a ValueError; an image that can't be read is the reader's to leave out.
"""
import dataclasses

import numpy as np

from . import glb
from .places import below, matrix_of, place_of

TRIANGLES, STRIP, FAN = 4, 5, 6
REST = {"translation": (0, 0, 0), "rotation": (0, 0, 0, 1), "scale": (1, 1, 1)}


@dataclasses.dataclass
class Part:
    """What one slot covers: `arrays` are positions, normals, uvs, uvs1 ..., colours, joints, weights and
    indices, three a triangle; `targets` the moves of the positions, an array a morph target."""
    material: int | None
    arrays: dict
    targets: list


@dataclasses.dataclass
class Mesh:
    name: str
    parts: list
    target_names: list
    skin: int | None = None
    nodes: tuple = ()


@dataclasses.dataclass
class Skin:
    """Joints in the file's order: node, name, parent (an index or -1) and place within it, a row of
    translation, rotation, scale each; `hung` are the places of nodes between that are no joints."""
    nodes: list
    names: list
    parents: list
    pose: np.ndarray
    hung: list
    inverse_bind: np.ndarray


@dataclasses.dataclass
class Animation:
    """(node, "translation", "rotation", "scale" or "weights") -> times, a row of values each."""
    name: str
    tracks: dict


@dataclasses.dataclass
class Content:
    """`materials`, `textures` and `samplers` are the document's own, with a name each, `nodes` too, with their
    parents; images are (name, bytes or None where they aren't in the file, the kind that it calls
    them)."""
    meshes: list
    materials: list
    textures: list
    samplers: list
    images: list
    skins: list
    animations: list
    nodes: list
    parents: list


def text(value, default):
    """A name without what no program can keep: lone surrogates, zeros, more than 1000 characters."""
    name = value if isinstance(value, str) and value else default
    return name.encode("utf-8", "replace").decode().replace("\0", "")[:1000]


def read(data):
    """The Content of a GLB file's bytes."""
    try:
        file = glb.read(data)
        parents = _parents(file)
        meshes = [_mesh(file, mesh, i) for i, mesh in enumerate(file.items("meshes"))]
        skins = [_skin(file, skin, parents) for skin in file.items("skins")]
        for i, node in enumerate(file.items("nodes")):
            if "mesh" in node:
                file.item("meshes", node["mesh"])
                mesh = meshes[node["mesh"]]
                mesh.nodes += (i,)
                if "skin" in node and mesh.skin is None:
                    mesh.skin = glb.whole(node["skin"], "skin")
        for mesh in meshes:
            _check_skin(mesh, skins)
        return Content(meshes, [dict(m, name=text(m.get("name"), f"Material_{i}"))
                                for i, m in enumerate(file.items("materials"))],
                       file.items("textures"), file.items("samplers"),
                       [_image(file, image, i) for i, image in enumerate(file.items("images"))], skins,
                       [_animation(file, a, i) for i, a in enumerate(file.items("animations"))],
                       file.items("nodes"), parents)
    except (TypeError, KeyError, AttributeError, IndexError, OverflowError) as error:
        raise ValueError(f"a value of the wrong kind ({error!r})") from error


def _parents(file):
    """The parent of each node, or None; each is some node's child once at most, and none its own."""
    nodes = file.items("nodes")
    parents = [None] * len(nodes)
    for i, node in enumerate(nodes):
        for child in node.get("children", []):
            file.item("nodes", child)
            if parents[child] is not None:
                raise ValueError(f"node {child} has two parents")
            parents[child] = i
    reached = [i for i, parent in enumerate(parents) if parent is None]
    for i in reached:       # grows as it goes
        reached += nodes[i].get("children", [])
    if len(reached) < len(nodes):
        raise ValueError("a node is its own child")
    for scene in file.items("scenes"):
        for root in scene.get("nodes", []):
            file.item("nodes", root)
    return parents


def _triangles(indices, mode):
    if mode == TRIANGLES:
        if len(indices) % 3:
            raise ValueError("the indices are no triangles")
        return indices
    at = np.arange(max(len(indices) - 2, 0))
    corners = ((0 * at, at + 1, at + 2) if mode == FAN else     # every other one of a strip is turned
               (at, at + 1 + at % 2, at + 2 - at % 2))
    return indices[np.stack(corners, 1)].reshape(-1)


def _attributes(file, given):
    arrays = {"positions": file.accessor(given["POSITION"])}
    wanted = {"normals": ("NORMAL", 3), "joints": ("JOINTS_0", 4), "weights": ("WEIGHTS_0", 4)}
    wanted |= {f"uvs{i or ''}": (f"TEXCOORD_{i}", 2) for i in range(8)}
    for key, (name, width) in wanted.items():
        if name in given:
            arrays[key] = file.accessor(given[name], normalized=key not in ("joints", "positions"))
            if arrays[key].shape[1] != width:
                raise ValueError(f"{name} has {arrays[key].shape[1]} numbers a vertex")
    if "COLOR_0" in given:
        colours = file.accessor(given["COLOR_0"], normalized=True)
        opaque = np.ones((len(colours), 4 - colours.shape[1]), np.float32)
        arrays["colours"] = np.hstack((colours, opaque))
    if {len(a) for a in arrays.values()} != {len(arrays["positions"])}:
        raise ValueError("the attributes of a primitive have different counts")
    return arrays


def _part(file, primitive):
    """None for points and lines."""
    mode, given = primitive.get("mode", TRIANGLES), primitive["attributes"]
    if "POSITION" not in given:
        raise ValueError("a primitive has no positions")
    if "material" in primitive:
        file.item("materials", primitive["material"])
    arrays = _attributes(file, given)
    count = len(arrays["positions"])
    if arrays["positions"].shape[1] != 3:
        raise ValueError("positions are three numbers each")
    indices = (file.accessor(primitive["indices"])[:, 0] if "indices" in primitive
               else np.arange(count))
    if indices.dtype.kind not in "ui" or (len(indices) and indices.max() >= count):
        raise ValueError("an index is beyond the vertices")
    if mode not in (TRIANGLES, STRIP, FAN) or not len(indices):
        return None
    targets = [file.accessor(t["POSITION"]) if "POSITION" in t else np.zeros((count, 3), np.float32)
               for t in primitive.get("targets", [])]
    if any(t.shape != (count, 3) for t in targets):
        raise ValueError("a morph target doesn't fit its mesh")
    arrays["indices"] = _triangles(indices, mode).astype(np.uint32)
    return Part(primitive.get("material"), arrays, targets)


def _mesh(file, mesh, index):
    parts = [part for part in (_part(file, p) for p in mesh["primitives"]) if part]
    count = len(parts[0].targets) if parts else 0
    if any(len(part.targets) != count for part in parts):
        raise ValueError("the primitives of a mesh have different morph targets")
    extras = mesh.get("extras")
    names = extras.get("targetNames", []) if isinstance(extras, dict) else []
    names = names if isinstance(names, list) and len(names) == count else [None] * count
    return Mesh(text(mesh.get("name"), f"Mesh_{index}"), parts,
                [text(name, f"Target_{i}") for i, name in enumerate(names)])


def _check_skin(mesh, skins):
    """Of a mesh without a skin, what skins need goes; weights of one with a skin add up to 1."""
    if mesh.skin is not None and mesh.skin >= len(skins):
        raise ValueError(f"there is no skins[{mesh.skin}]")
    for part in mesh.parts:
        if mesh.skin is None:
            part.arrays = {k: v for k, v in part.arrays.items() if k not in ("joints", "weights")}
            continue
        if not {"joints", "weights"} <= part.arrays.keys():
            raise ValueError("a mesh with a skin lacks joints or weights")
        weights, joints = np.maximum(part.arrays["weights"], 0), part.arrays["joints"]
        for later, first in ((1, 0), (2, 0), (3, 0), (2, 1), (3, 1), (3, 2)):
            same = joints[:, later] == joints[:, first]     # a joint counts once a vertex
            weights[same, first] += weights[same, later]
            weights[same, later] = 0
        joints[weights <= 0] = 0
        if joints.dtype.kind != "u" or joints.max() >= len(skins[mesh.skin].nodes):
            raise ValueError("a vertex follows a joint that isn't there")
        weights[weights.sum(1) <= 0, 0] = 1
        part.arrays["weights"] = weights / weights.sum(1, keepdims=True)


def _place(node):
    if "matrix" in node:
        place = place_of(np.array(node["matrix"], float).reshape(4, 4).T)
    else:
        place = np.concatenate([np.array(node.get(k, rest), float).reshape(len(rest))
                                for k, rest in REST.items()])
    if not (np.abs(place) < glb.HUGE).all():
        raise ValueError("a node's transform isn't finite, or huge")
    return place


def above(nodes, parents, node, known, ends=()):
    """(the nearest node above one that is among `ends`, or None; the matrix of what lies between).
    `known` keeps what was found, so that deep trees take no longer than flat ones."""
    path, parent = [], parents[node]
    while parent is not None and parent not in ends and parent not in known:
        path.append(parent)
        parent = parents[parent]
    end, matrix = known.get(parent, (parent, np.eye(4)))
    for parent in reversed(path):
        matrix = matrix @ matrix_of(_place(nodes[parent]))
        known[parent] = end, matrix
    return end, matrix


def world(content, node, known):
    """The matrix of a node in the scene; `known` as above."""
    return above(content.nodes, content.parents, node, known)[1] @ matrix_of(_place(content.nodes[node]))


def _skin(file, skin, parents):
    nodes, joints = file.items("nodes"), skin["joints"]
    at = {glb.whole(joint, "joint"): i for i, joint in enumerate(joints)}
    if not joints or max(at) >= len(nodes) or len(at) < len(joints):
        raise ValueError("a skin's joints are different nodes")
    names, up, pose, hung, known = [], [], [], [], {}
    for joint in joints:
        names.append(text(nodes[joint].get("name"), f"Joint_{joint}"))
        parent, matrix = above(nodes, parents, joint, known, at)
        up.append(at.get(parent, -1))
        hung.append(None if np.array_equal(matrix, np.eye(4)) else place_of(matrix))
        place = _place(nodes[joint])
        pose.append(place if hung[-1] is None else np.concatenate(
            [below(hung[-1], path, place[rows][None])[0] for path, rows in
             (("translation", slice(3)), ("rotation", slice(3, 7)), ("scale", slice(7, 10)))]))
    if not (np.abs(pose) < glb.HUGE).all():
        raise ValueError("a joint's place isn't finite, or huge")
    if "inverseBindMatrices" in skin:
        bind = file.accessor(skin["inverseBindMatrices"]).reshape(-1, 4, 4).transpose(0, 2, 1)
    else:
        bind = np.tile(np.eye(4, dtype=np.float32), (len(joints), 1, 1))
    if len(bind) < len(joints):
        raise ValueError("a skin has fewer matrices than joints")
    return Skin(joints, names, up, np.array(pose), hung, bind[:len(joints)])


def _animation(file, animation, index):
    tracks = {}
    for channel in animation["channels"]:
        sampler = animation["samplers"][glb.whole(channel["sampler"], "sampler")]
        times, values = file.accessor(sampler["input"])[:, 0], file.accessor(sampler["output"], True)
        cubic = sampler.get("interpolation") == "CUBICSPLINE"   # a value between two tangents
        target = channel["target"]
        if "node" not in target or target["path"] not in (*REST, "weights") or not len(times):
            continue
        file.item("nodes", target["node"])
        rows = values.reshape(len(times), 3 if cubic else 1, -1)[:, cubic * 1]
        if (np.diff(times) < 0).any() or rows.shape[1] != len(REST.get(target["path"], rows[0])):
            raise ValueError("the keys of an animation don't fit")
        tracks[target["node"], target["path"]] = times, rows
    return Animation(text(animation.get("name"), f"Animation_{index}"), tracks)


def _image(file, image, index):
    data = bytes(file.view(image["bufferView"])[0]) if "bufferView" in image else None
    return text(image.get("name"), f"Image_{index}"), data, image.get("mimeType")
