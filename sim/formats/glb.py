"""glTF binary files: the container, its arrays, and a writer. What the arrays mean is in gltf.py.

Every bound is checked before anything is allocated; ValueError says what is wrong with a file.
"""
import json
import struct

import numpy as np

MAGIC, JSON_CHUNK, BIN_CHUNK = 0x46546C67, 0x4E4F534A, 0x004E4942
TYPES = {5120: np.int8, 5121: np.uint8, 5122: np.int16, 5123: np.uint16, 5125: np.uint32,
         5126: np.float32}
CODES = {np.dtype(t): code for code, t in TYPES.items()}
SIZES = {"SCALAR": 1, "VEC2": 2, "VEC3": 3, "VEC4": 4, "MAT4": 16}
KINDS = {width: kind for kind, width in SIZES.items()}
VERTICES, INDICES = 34962, 34963
KNOWN = ("KHR_materials_", "KHR_texture_transform", "KHR_lights_punctual")
LARGEST = 1 << 29       # bytes of all arrays that are read from one file
HUGE = 1e30             # so that no number becomes infinite in the editor's units


def whole(value, what):
    if not isinstance(value, int) or isinstance(value, bool) or value < 0:
        raise ValueError(f"{what} is {value!r}")
    return value


class Glb:
    """The document (the JSON part) and the binary chunk."""

    def __init__(self, document, binary=b""):
        self.document = document
        self.binary = binary
        self._left = LARGEST
        self._lists = {}

    def items(self, kind):
        if kind not in self._lists:
            found = self.document.get(kind, [])
            if not isinstance(found, list) or not all(isinstance(item, dict) for item in found):
                raise ValueError(f"{kind} is no list of objects")
            self._lists[kind] = found
        return self._lists[kind]

    def item(self, kind, index):
        found = self.items(kind)
        if whole(index, f"an index of {kind}") >= len(found):
            raise ValueError(f"there is no {kind}[{index}]")
        return found[index]

    def _take(self, size):
        self._left -= size
        if self._left < 0:
            raise ValueError(f"the file's arrays hold more than {LARGEST} bytes")

    def view(self, index):
        """(the bytes of a buffer view, its stride or 0)."""
        view = self.item("bufferViews", index)
        buffer = self.item("buffers", view.get("buffer"))
        if view["buffer"] != 0 or "uri" in buffer:
            raise ValueError("a buffer lies outside of the file")
        first = whole(view.get("byteOffset", 0), "byteOffset")
        end = first + whole(view.get("byteLength"), "byteLength")
        if end > min(len(self.binary), whole(buffer.get("byteLength"), "byteLength")):
            raise ValueError(f"view {index} ends beyond the binary chunk")
        return memoryview(self.binary)[first:end], whole(view.get("byteStride", 0), "byteStride")

    def _rows(self, view, begin, count, dtype, width):
        data, stride = self.view(view)
        item = np.dtype(dtype).itemsize * width
        stride = stride or item
        if count and whole(begin, "byteOffset") + stride * (count - 1) + item > len(data):
            raise ValueError("an accessor ends beyond its view")
        if not count:
            return np.zeros((0, width), dtype)
        self._take(count * item)
        return np.ndarray((count, width), dtype, data, begin, (stride, np.dtype(dtype).itemsize)).copy()

    def accessor(self, index, normalized=False):
        """Rows of numbers, a copy; normalised integers (all, if `normalized`) become floats."""
        acc = self.item("accessors", index)
        dtype, width = TYPES.get(acc.get("componentType")), SIZES.get(acc.get("type"))
        if dtype is None or width is None:
            raise ValueError(f"accessor {index} has no known type")
        count = whole(acc.get("count"), "count")
        if "bufferView" in acc:
            rows = self._rows(acc["bufferView"], acc.get("byteOffset", 0), count, dtype, width)
        else:
            self._take(count * width * np.dtype(dtype).itemsize)
            rows = np.zeros((count, width), dtype)
        if "sparse" in acc:
            sparse = acc["sparse"]
            number, at, of = whole(sparse["count"], "count"), sparse["indices"], sparse["values"]
            where = self._rows(at["bufferView"], at.get("byteOffset", 0), number,
                               TYPES[at["componentType"]], 1)[:, 0]
            if number and not 0 <= int(where.max()) < count:
                raise ValueError(f"accessor {index} has a sparse index beyond its end")
            rows[where] = self._rows(of["bufferView"], of.get("byteOffset", 0), number, dtype, width)
        if dtype is np.float32:
            if not (np.abs(rows) < HUGE).all():
                raise ValueError(f"accessor {index} holds numbers that aren't finite, or huge")
        elif normalized or acc.get("normalized"):
            rows = np.maximum(rows / np.float32(np.iinfo(dtype).max), -1).astype(np.float32)
        return rows


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
    for name in document.get("extensionsRequired") or []:
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


class Builder:
    """Gathers a document's items, and arrays and images for its binary chunk."""

    def __init__(self):
        self.document = {"asset": {"version": "2.0"}}
        self.binary = bytearray()

    def add(self, kind, item):
        """The index of a new item of the document, among those of its kind."""
        self.document.setdefault(kind, []).append(item)
        return len(self.document[kind]) - 1

    def data(self, data, target=None):
        """The index of a new buffer view with these bytes."""
        view = {"buffer": 0, "byteOffset": len(self.binary), "byteLength": len(data)}
        self.binary += bytes(data) + b"\0" * (-len(data) % 4)
        return self.add("bufferViews", view | ({"target": target} if target else {}))

    def array(self, rows, target=None, bounds=False):
        """The index of a new accessor of rows of 1, 2, 3, 4 or 16 numbers; `bounds` as positions need
        them."""
        rows = np.ascontiguousarray(rows)
        accessor = {"bufferView": self.data(rows.tobytes(), target), "count": len(rows),
                    "componentType": CODES[rows.dtype], "type": KINDS[rows.shape[1]]}
        if bounds:
            accessor |= {"min": rows.min(0).tolist(), "max": rows.max(0).tolist()}
        return self.add("accessors", accessor)

    def bytes(self):
        self.document["buffers"] = [{"byteLength": len(self.binary)}]
        return write(self.document, bytes(self.binary))
