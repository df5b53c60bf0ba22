"""glTF binary files: parsed with every bound checked, and written.

Everything is as it stands in the file: metres, y up, right-handed. ValueError says what is wrong with a
file that isn't one.
"""
import json
import struct

import numpy as np

MAGIC, JSON_CHUNK, BIN_CHUNK = 0x46546C67, 0x4E4F534A, 0x004E4942
TYPES = {5120: np.int8, 5121: np.uint8, 5122: np.int16, 5123: np.uint16, 5125: np.uint32,
         5126: np.float32}
CODES = {np.dtype(t): code for code, t in TYPES.items()}
SIZES = {"SCALAR": 1, "VEC2": 2, "VEC3": 3, "VEC4": 4, "MAT4": 16}
TRIANGLES = 4
KNOWN = ("KHR_materials_", "KHR_texture_transform", "KHR_lights_punctual")


class Glb:
    """The document (the JSON part) and the binary chunk."""

    def __init__(self, document, binary=b""):
        self.document = document
        self.binary = binary

    def items(self, kind):
        found = self.document.get(kind, [])
        if not isinstance(found, list):
            raise ValueError(f"{kind} is no list")
        return found

    def item(self, kind, index):
        found = self.items(kind)
        if not isinstance(index, int) or not 0 <= index < len(found):
            raise ValueError(f"there is no {kind}[{index!r}]")
        return found[index]

    def accessor(self, index):
        """An array of count rows, or of count numbers for scalars; a copy."""
        acc = self.item("accessors", index)
        dtype, width = TYPES.get(acc.get("componentType")), SIZES.get(acc.get("type"))
        if dtype is None or width is None:
            raise ValueError(f"accessor {index} has no known type")
        count = _whole(acc.get("count"), "count")
        view = self.item("bufferViews", acc.get("bufferView"))
        item = np.dtype(dtype).itemsize * width
        stride = _whole(view.get("byteStride", item), "byteStride") or item
        begin = _whole(acc.get("byteOffset", 0), "byteOffset")
        end = begin + stride * (count - 1) + item if count else begin
        if end > _whole(view.get("byteLength"), "byteLength"):
            raise ValueError(f"accessor {index} ends beyond its view")
        first = _whole(view.get("byteOffset", 0), "byteOffset")
        data = self.binary[first:first + view["byteLength"]]
        if len(data) < view["byteLength"] or view.get("buffer", 0) != 0:
            raise ValueError(f"the view of accessor {index} ends beyond the file")
        rows = np.ndarray((count, width), dtype, data, begin, (stride, np.dtype(dtype).itemsize))
        return (rows[:, 0] if width == 1 else rows).copy()


def _whole(value, what):
    if not isinstance(value, int) or isinstance(value, bool) or value < 0:
        raise ValueError(f"{what} is {value!r}")
    return value


def read(data):
    """The Glb in these bytes."""
    if len(data) < 20:
        raise ValueError("too short for a GLB file")
    magic, version, length = struct.unpack_from("<III", data)
    if magic != MAGIC or version != 2:
        raise ValueError("no GLB file of version 2")
    if length != len(data):
        raise ValueError(f"the header says {length} bytes, the file has {len(data)}")
    chunks, at = {}, 12
    while at + 8 <= length:
        size, kind = struct.unpack_from("<II", data, at)
        if at + 8 + size > length:
            raise ValueError("a chunk ends beyond the file")
        chunks.setdefault(kind, data[at + 8:at + 8 + size])
        at += 8 + size
    if JSON_CHUNK not in chunks:
        raise ValueError("no JSON chunk")
    try:
        document = json.loads(chunks[JSON_CHUNK].decode())
    except RecursionError:
        raise ValueError("the JSON is nested too deeply") from None
    if not isinstance(document, dict):
        raise ValueError("the JSON is no object")
    for name in document.get("extensionsRequired", []):
        if not str(name).startswith(KNOWN):
            raise ValueError(f"the file needs {name}")
    return Glb(document, chunks.get(BIN_CHUNK, b""))


def write(document, binary=b""):
    """The bytes of a file."""
    text = json.dumps(document, separators=(",", ":"), ensure_ascii=False).encode()
    text += b" " * (-len(text) % 4)
    chunks = struct.pack("<II", len(text), JSON_CHUNK) + text
    if binary:
        binary += b"\0" * (-len(binary) % 4)
        chunks += struct.pack("<II", len(binary), BIN_CHUNK) + binary
    return struct.pack("<III", MAGIC, 2, 12 + len(chunks)) + chunks


def matrix_of(node):
    """A node's 4 x 4 matrix, for columns."""
    if "matrix" in node:
        return np.array(node["matrix"], float).reshape(4, 4).T
    x, y, z, w = node.get("rotation", (0, 0, 0, 1))
    turn = np.array([[1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)],
                     [2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)],
                     [2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)]])
    matrix = np.eye(4)
    matrix[:3, :3] = turn * np.array(node.get("scale", (1, 1, 1)), float)
    matrix[:3, 3] = node.get("translation", (0, 0, 0))
    return matrix


def placed_meshes(glb):
    """(node, mesh, world matrix) for each node of the scene that has a mesh."""
    scenes = glb.items("scenes")
    roots = (glb.item("scenes", glb.document.get("scene", 0)).get("nodes", []) if scenes
             else range(len(glb.items("nodes"))))
    found, seen = [], set()
    stack = [(index, np.eye(4)) for index in reversed(roots)]
    while stack:
        index, above = stack.pop()
        if index in seen:
            raise ValueError(f"node {index} is reached twice")
        seen.add(index)
        node = glb.item("nodes", index)
        matrix = above @ matrix_of(node)
        if "mesh" in node:
            found.append((node, glb.item("meshes", node["mesh"]), matrix))
        stack += [(child, matrix) for child in reversed(node.get("children", []))]
    return found


def triangles_of(glb, primitive):
    """(positions, normals or None, uvs or None, indices) of a primitive; None for points and lines."""
    if primitive.get("mode", TRIANGLES) != TRIANGLES:
        return None
    attributes = primitive.get("attributes", {})
    if "POSITION" not in attributes:
        raise ValueError("a primitive has no positions")
    if "material" in primitive:
        glb.item("materials", primitive["material"])
    positions = glb.accessor(attributes["POSITION"])
    if positions.ndim != 2 or positions.shape[1] != 3 or not np.isfinite(positions).all():
        raise ValueError("positions are three finite numbers each")
    indices = (glb.accessor(primitive["indices"]) if "indices" in primitive
               else np.arange(len(positions)))
    if len(indices) % 3 or (len(indices) and indices.max() >= len(positions)):
        raise ValueError("indices don't fit the positions")
    normals, uvs = (glb.accessor(attributes[name]) if name in attributes else None
                    for name in ("NORMAL", "TEXCOORD_0"))
    for more in (normals, uvs):
        if more is not None and len(more) != len(positions):
            raise ValueError("attributes of a primitive have different counts")
    return positions, normals, uvs, indices.astype(np.uint32)


class Builder:
    """Gathers arrays into the binary chunk."""

    def __init__(self):
        self.document = {"asset": {"version": "2.0"}, "buffers": [{}], "bufferViews": [],
                         "accessors": []}
        self.binary = b""

    def add(self, array, bounds=False):
        """The index of a new accessor; `bounds` as positions need them."""
        array = np.ascontiguousarray(array)
        kind = {1: "SCALAR"}.get(array.ndim) or f"VEC{array.shape[1]}"
        view = {"buffer": 0, "byteOffset": len(self.binary), "byteLength": array.nbytes}
        accessor = {"bufferView": len(self.document["bufferViews"]), "count": len(array),
                    "componentType": CODES[array.dtype], "type": kind}
        if bounds:
            accessor |= {"min": array.min(0).tolist(), "max": array.max(0).tolist()}
        self.document["bufferViews"].append(view)
        self.document["accessors"].append(accessor)
        self.binary += array.tobytes() + b"\0" * (-array.nbytes % 4)
        return len(self.document["accessors"]) - 1

    def bytes(self):
        self.document["buffers"][0]["byteLength"] = len(self.binary)
        return write(self.document, self.binary)
