"""Meshes with real geometry: bytes per piece, from which bounds and counts are computed.

A section is what one material slot covers: positions (float32, centimetres), normals, UV sets, linear
colours and indices (uint32, three a triangle), wound as the editor's left-handed axes have it; of a
skeletal mesh also four joints and weights a vertex, and for each morph target the moves of the positions,
"target:<name>".
"""
import numpy as np

from ._animation import Skeleton
from ._collision import BodySetup
from ._materials import Material, MaterialInterface
from ._math import Box, Vector
from ._packages import Asset, encoded, fill
from ._values import HIDDEN, READ_ONLY, Name, Struct, array_of, name, object_of, struct_of

PIECES = {"positions": (np.float32, 3), "normals": (np.float32, 3), "uvs": (np.float32, 2),
          "indices": (np.uint32, 1), **{f"uvs{i}": (np.float32, 2) for i in range(1, 8)},
          "colours": (np.float32, 4), "joints": (np.uint16, 4), "weights": (np.float32, 4)}
TARGET = "target:"


def _layout(key):
    return PIECES["positions"] if key.startswith(TARGET) else PIECES[key]


class StaticMaterial(Struct):
    """One material slot of a static mesh."""
    __slots__ = ()
    PROPS = {"material_interface": (object_of(MaterialInterface), None),
             "material_slot_name": (name, Name())}


class SkeletalMaterial(Struct):
    """One material slot of a skeletal mesh."""
    __slots__ = ()
    PROPS = {**StaticMaterial.PROPS,
             "imported_material_slot_name": (name, Name(), HIDDEN, READ_ONLY)}


class Mesh(Asset):
    """What both kinds of mesh have."""
    __slots__ = ("_measured",)

    def __init__(self, path):
        super().__init__(path)
        self._measured = None, None     # the pieces and their box

    def _set_sections(self, sections):
        """Take over a list of maps, one a slot, with arrays or lists under the names of PIECES and of
        morph targets."""
        self._pieces = {}
        for slot, section in enumerate(sections):
            for key, rows in section.items():
                dtype, width = _layout(key)
                self._pieces[f"{slot}/{key}"] = np.ascontiguousarray(
                    rows, dtype).reshape(-1, width).tobytes()
        self._dirtied()

    def _sections(self):
        """The same as arrays of rows."""
        found = {}
        for place, piece in self._pieces.items():
            slot, _, key = place.partition("/")
            dtype, width = _layout(key)
            found.setdefault(int(slot), {})[key] = np.frombuffer(piece, dtype).reshape(-1, width)
        return [found[slot] for slot in sorted(found)]

    @property
    def _box(self):
        pieces, box = self._measured
        if pieces != self._pieces:
            points = [s["positions"] for s in self._sections() if len(s["positions"])]
            points = np.concatenate(points).astype(float) if points else np.zeros((1, 3))
            box = Box(Vector(*points.min(0).tolist()), Vector(*points.max(0).tolist()))
            self._measured = dict(self._pieces), box
        return box

    def _count(self, key):
        width = 3 if key == "indices" else 1
        return sum(len(s[key]) for s in self._sections()) // width


class StaticMesh(Mesh):
    __slots__ = ()
    PROPS = {"static_materials": (array_of(struct_of(StaticMaterial)), []),
             "body_setup": (object_of(BodySetup), None, HIDDEN)}

    def __init__(self, path):
        super().__init__(path)
        self._p["body_setup"] = BodySetup(self)

    # The body's values are kept with the mesh's.

    def _state(self):
        return super()._state(), dict(self._p["body_setup"]._p)

    def _restore(self, state):
        state, body = state
        super()._restore(state)
        self._p["body_setup"]._p = dict(body)

    def _take(self, other):
        body = self._p["body_setup"]
        super()._take(other)
        self._p["body_setup"] = body
        body._p = dict(other._p["body_setup"]._p)

    def _values(self):
        body = self._p["body_setup"]
        return {**super()._values(), "body_setup": {k: encoded(body._p[k]) for k in body._schema}}

    def _fill(self, values):
        body = self._p.get("body_setup") or BodySetup(self)
        super()._fill({k: v for k, v in values.items() if k != "body_setup"})
        self._p["body_setup"] = body
        fill(body, values["body_setup"])

    def get_bounding_box(self):
        self._check()
        return self._box._copy()

    def get_num_vertices(self, lod_index):
        self._check()
        return self._count("positions")

    def get_num_triangles(self, lod_index):
        self._check()
        return self._count("indices")

    def get_material(self, material_index):
        self._check()
        return self._slot_material(material_index)

    def set_material(self, material_index, new_material):
        self._check()
        slots = list(self._p["static_materials"])
        if 0 <= material_index < len(slots):
            slots[material_index] = StaticMaterial(
                material_interface=new_material,
                material_slot_name=slots[material_index].material_slot_name)
            self._assign("static_materials", slots)

    def _slot_material(self, index):
        slots = self._p["static_materials"]
        return slots[index].material_interface if 0 <= index < len(slots) else None


class SkeletalMesh(Mesh):
    __slots__ = ()
    PROPS = {"materials": (array_of(struct_of(SkeletalMaterial)), []),
             "skeleton": (object_of(Skeleton), None, READ_ONLY)}


def box_section(low, high):
    """A box of 24 vertices and 12 triangles, or a quad of 4 and 2 where it has no height."""
    low, high = np.array(low, float), np.array(high, float)
    section = {"positions": [], "normals": [], "uvs": [], "indices": []}
    flat = low[2] == high[2]
    for axis in (2,) if flat else range(3):
        for side in (1,) if flat else (0, 1):
            normal = np.zeros(3)
            normal[axis] = 2 * side - 1
            u, v = np.roll(range(3), -axis - 1)[:2]
            first = len(section["positions"])
            for du, dv in ((0, 0), (1, 0), (1, 1), (0, 1)):
                corner = np.where(normal > 0, high, low)
                corner[u], corner[v] = (high if du else low)[u], (high if dv else low)[v]
                section["positions"].append(corner)
                section["normals"].append(normal)
                section["uvs"].append((du, dv))
            turn = (0, 2, 1, 0, 3, 2) if side else (0, 1, 2, 0, 2, 3)
            section["indices"] += [first + i for i in turn]
    return section


def round_section(profile, segments=24):
    """A body of revolution about Z: `profile` is (radius, z) pairs from the top down."""
    angles = np.linspace(0, 2 * np.pi, segments + 1)
    ring = np.stack((np.cos(angles), np.sin(angles)), 1)
    positions = [(r * x, r * y, z) for r, z in profile for x, y in ring]
    uvs = [(i / segments, j / (len(profile) - 1)) for j in range(len(profile))
           for i in range(segments + 1)]
    indices = []
    for j in range(len(profile) - 1):
        for i in range(segments):
            a = j * (segments + 1) + i
            b = a + segments + 1
            indices += [a, a + 1, b, a + 1, b + 1, b]
    outward = [np.array((x, y, 0.0)) for _ in profile for x, y in ring]
    return {"positions": positions, "normals": outward, "uvs": uvs, "indices": indices}


def add_engine_assets():
    """The engine's own content, as far as levels use it."""
    grey = Material("/Engine/BasicShapes/BasicShapeMaterial")
    slot = StaticMaterial(material_interface=grey, material_slot_name="BasicShapeMaterial")
    bend = np.linspace(0, np.pi, 13)
    shapes = {"Cube": box_section((-50,) * 3, (50,) * 3), "Plane": box_section((-50, -50, 0), (50, 50, 0)),
              "Sphere": round_section([(50 * np.sin(t), 50 * np.cos(t)) for t in bend]),
              "Cylinder": round_section([(0, 50), (50, 50), (50, -50), (0, -50)]),
              "Cone": round_section([(0, 50), (50, -50), (0, -50)])}
    for shape, section in shapes.items():
        mesh = StaticMesh(f"/Engine/BasicShapes/{shape}")
        mesh._set_sections([section])
        mesh._p["static_materials"] = [slot]
        mesh._save()
