"""What a mesh collides with: its body setup's simple shapes, and how the mesh editor makes them."""
import numpy as np

from ._enums import CollisionTraceFlag, ScriptCollisionShapeType
from ._math import Vector
from ._object import Object
from ._values import HIDDEN, Struct, array_of, enum_of, f32, struct_of

LENGTHS = {side: (f32, 1.0) for side in "xyz"}


class KBoxElem(Struct):
    __slots__ = ()
    PROPS = {"center": (struct_of(Vector), Vector()), **LENGTHS}


class KSphereElem(Struct):
    __slots__ = ()
    PROPS = {"center": (struct_of(Vector), Vector()), "radius": (f32, 1.0)}


class KSphylElem(Struct):
    __slots__ = ()
    PROPS = {"center": (struct_of(Vector), Vector()), "radius": (f32, 1.0), "length": (f32, 1.0)}


class KConvexElem(Struct):
    """A convex piece, by its corners."""
    __slots__ = ()
    PROPS = {"vertex_data": (array_of(struct_of(Vector)), [])}


ELEMENTS = {"box_elems": KBoxElem, "sphere_elems": KSphereElem, "sphyl_elems": KSphylElem,
            "convex_elems": KConvexElem}


class KAggregateGeom(Struct):
    __slots__ = ()
    PROPS = {key: (array_of(struct_of(kind)), [], HIDDEN) for key, kind in ELEMENTS.items()}


class BodySetup(Object):
    """A mesh's own; its values are kept, saved and undone with the mesh."""
    __slots__ = ("_mesh",)
    PROPS = {"collision_trace_flag": (enum_of(CollisionTraceFlag),
                                      CollisionTraceFlag.CTF_USE_DEFAULT, HIDDEN),
             "agg_geom": (struct_of(KAggregateGeom), KAggregateGeom(), HIDDEN)}

    def __init__(self, mesh):
        super().__init__(f"{mesh._path}:BodySetup_0")
        self._mesh = mesh

    def _state(self):
        return self._mesh._state()

    def _restore(self, state):
        self._mesh._restore(state)

    def _dirtied(self):
        self._mesh._dirtied()

    def _replace(self, **elements):
        """Give it these elements, keyed as in KAggregateGeom, and no others."""
        self._set("agg_geom", KAggregateGeom(**elements))
        self._dirtied()

    def _added(self, key, element):
        """Add one; its index."""
        shapes = self._p["agg_geom"]._copy()
        elements = [*shapes._p[key], element]
        shapes._set(key, elements)
        self._set("agg_geom", shapes)
        self._dirtied()
        return len(elements) - 1


def fitted(shape, box):
    """(key, element) of a simple shape around a box."""
    center = (box.min + box.max) * 0.5
    size = [b - a for a, b in zip(box.min.to_tuple(), box.max.to_tuple())]
    if shape is ScriptCollisionShapeType.BOX:
        return "box_elems", KBoxElem(center=center, **dict(zip("xyz", size)))
    if shape is ScriptCollisionShapeType.SPHERE:
        return "sphere_elems", KSphereElem(center=center, radius=sum(s * s for s in size) ** 0.5 / 2)
    radius = max(size[:2]) / 2
    return "sphyl_elems", KSphylElem(center=center, radius=radius,
                                     length=max(size[2] - 2 * radius, 0.0))


def convex_pieces(sections, count, corners):
    """At most `count` pieces of at most `corners` corners each: slabs along the longest side, each by
    its outermost points. None for what has no volume."""
    triangles = [s["positions"][s["indices"].reshape(-1, 3)] for s in sections if len(s["indices"])]
    if not triangles:
        return []
    triangles = np.concatenate(triangles).astype(float)
    low, high = triangles.min((0, 1)), triangles.max((0, 1))
    if not (high - low > 1e-3).all():
        return []
    axis = int((high - low).argmax())
    order = triangles.mean(1)[:, axis].argsort(kind="stable")
    pieces = []
    for group in np.array_split(order, min(count, len(order))):
        points = np.unique(triangles[group].reshape(-1, 3), axis=0)
        spread = np.linspace(0, 2 * np.pi, corners, endpoint=False)
        ways = np.stack((np.cos(spread), np.sin(spread), np.sin(3 * spread)), 1)
        outer = sorted({int((points @ way).argmax()) for way in ways})
        pieces.append(KConvexElem(vertex_data=[Vector(*points[i].tolist()) for i in outer]))
    return pieces
