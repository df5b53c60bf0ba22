"""Splines: points with tangents, Hermite between them, in the component's own space."""
import math

from ._components import PrimitiveComponent
from ._enums import SplineCoordinateSpace, SplinePointType
from ._math import Vector, place, rotate

STEPS = 16      # of the length, per piece


class SplineComponent(PrimitiveComponent):
    """`_points` is a tuple of (location, arrive tangent, leave tangent, type), never changed in place.
    Tangents of curves follow the neighbours until they are set."""
    __slots__ = ("_points", "_closed")

    def __init__(self, owner, name):
        super().__init__(owner, name)
        self._closed = False
        self._points = ()
        for x in (0.0, 100.0):
            self.add_spline_point(Vector(x, 0.0, 0.0), SplineCoordinateSpace.LOCAL)

    def _state(self):
        return super()._state(), self._points, self._closed

    def _restore(self, state):
        above, self._points, self._closed = state
        super()._restore(above)

    def _put(self, index, **changes):
        at = dict(zip(("location", "arrive", "leave", "kind"), self._points[index])) | changes
        self._points = (*self._points[:index], tuple(at.values()), *self._points[index + 1:])

    def _has(self, index):
        return 0 <= index < len(self._points)

    def _out(self, vector, space, is_point):
        if space is SplineCoordinateSpace.LOCAL:
            return vector._copy()
        world = self._world()
        return place(world, vector) if is_point else rotate(world.rotation, vector * world.scale3d)

    def _in(self, vector, space, is_point):
        if not isinstance(vector, Vector):
            raise TypeError(f"Cannot nativize '{type(vector).__name__}' as 'Vector'")
        if space is SplineCoordinateSpace.LOCAL:
            return vector._copy()
        world = self._world()
        q, s = world.rotation, world.scale3d
        v = rotate(type(q)(-q.x, -q.y, -q.z, q.w), vector - world.translation if is_point else vector)
        return Vector(v.x / s.x, v.y / s.y, v.z / s.z)

    def get_number_of_spline_points(self):
        self._check()
        return len(self._points)

    def get_location_at_spline_point(self, point_index, coordinate_space):
        self._check()
        if not self._has(point_index):
            return Vector()
        return self._out(self._points[point_index][0], coordinate_space, True)

    def get_arrive_tangent_at_spline_point(self, point_index, coordinate_space):
        self._check()
        return self._out(self._tangents(point_index)[0], coordinate_space, False)

    def get_leave_tangent_at_spline_point(self, point_index, coordinate_space):
        self._check()
        return self._out(self._tangents(point_index)[1], coordinate_space, False)

    def _tangents(self, index):
        if not self._has(index):
            return Vector(), Vector()
        _, arrive, leave, kind = self._points[index]
        if kind is SplinePointType.CURVE_CUSTOM_TANGENT:
            return arrive, leave
        n = len(self._points)
        before, after = index - 1, index + 1
        if not self._closed:
            before, after = max(before, 0), min(after, n - 1)
        span = (self._points[after % n][0] - self._points[before % n][0]) * 0.5
        return span, span

    def get_spline_point_type(self, point_index):
        self._check()
        return self._points[point_index][3] if self._has(point_index) else SplinePointType.CONSTANT

    def set_spline_point_type(self, point_index, type, update_spline=True):
        self._check()
        if self._has(point_index):
            self._put(point_index, kind=type)

    def add_spline_point(self, position, coordinate_space, update_spline=True):
        self._check()
        point = self._in(position, coordinate_space, True)
        self._points += ((point, Vector(), Vector(), SplinePointType.CURVE),)

    def clear_spline_points(self, update_spline=True):
        self._check()
        self._points = ()

    def set_tangents_at_spline_point(self, point_index, arrive_tangent, leave_tangent,
                                     coordinate_space, update_spline=True):
        self._check()
        if self._has(point_index):
            self._put(point_index, arrive=self._in(arrive_tangent, coordinate_space, False),
                      leave=self._in(leave_tangent, coordinate_space, False),
                      kind=SplinePointType.CURVE_CUSTOM_TANGENT)

    def is_closed_loop(self):
        self._check()
        return self._closed

    def set_closed_loop(self, closed_loop, update_spline=True):
        self._check()
        self._closed = bool(closed_loop)

    def update_spline(self):
        self._check()

    def get_spline_length(self):
        """In world units."""
        self._check()
        n, scale = len(self._points), self._world().scale3d
        total = 0.0
        for i in range(n if self._closed else n - 1):
            a, b = self._points[i], self._points[(i + 1) % n]
            leave, arrive = self._tangents(i)[1], self._tangents((i + 1) % n)[0]
            last = a[0]
            for step in range(1, STEPS + 1):
                here = self._between(a, b, leave, arrive, step / STEPS)
                total += math.hypot(*((here - last) * scale).to_tuple())
                last = here
        return total

    @staticmethod
    def _between(a, b, leave, arrive, t):
        if a[3] is SplinePointType.LINEAR:
            return a[0] + (b[0] - a[0]) * t
        if a[3] is SplinePointType.CONSTANT:
            return a[0] if t < 1.0 else b[0]
        u = 1.0 - t
        return (a[0] * ((1 + 2 * t) * u * u) + leave * (t * u * u)
                + b[0] * (t * t * (3 - 2 * t)) - arrive * (t * t * u))
