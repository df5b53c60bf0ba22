"""Vectors, rotations and transforms: centimetres, degrees, left-handed, Z up."""
import math

from ._values import COPIED

_new = object.__new__


class _Value:
    """Base of the mathematical values: compared by content, copied by objects."""
    __slots__ = ()

    def __init_subclass__(cls):
        COPIED.add(cls)

    def to_tuple(self):
        return tuple(getattr(self, k) for k in self.__slots__)

    def get_editor_property(self, name):
        value = getattr(self, str(name))
        return value._copy() if isinstance(value, _Value) else value

    def set_editor_property(self, name, value, notify_mode=None):
        old = getattr(self, str(name))
        if not isinstance(value, type(old) if isinstance(old, _Value) else (int, float)):
            raise TypeError(f"Cannot nativize '{type(value).__name__}' as '{name}'")
        setattr(self, str(name), value._copy() if isinstance(old, _Value) else value)

    def copy(self):
        return self._copy()

    def _copy(self):
        return type(self)(*(getattr(self, k) for k in self.__slots__))

    def __eq__(self, other):
        return type(other) is type(self) and self.to_tuple() == other.to_tuple()

    def __repr__(self):
        fields = ", ".join(f"{k}: {getattr(self, k)}" for k in self.__slots__)
        return f"<Struct '{type(self).__name__}' {{{fields}}}>"


class Vector(_Value):
    __slots__ = ("x", "y", "z")

    def __init__(self, x=0.0, y=0.0, z=0.0):
        self.x = x + 0.0  # refuses what is no number
        self.y = y + 0.0
        self.z = z + 0.0

    def _copy(self):
        v = _new(Vector)
        v.x = self.x
        v.y = self.y
        v.z = self.z
        return v

    def __add__(self, o):
        return Vector(self.x + o.x, self.y + o.y, self.z + o.z)

    def __sub__(self, o):
        return Vector(self.x - o.x, self.y - o.y, self.z - o.z)

    def __mul__(self, k):
        if isinstance(k, Vector):
            return Vector(self.x * k.x, self.y * k.y, self.z * k.z)
        return Vector(self.x * k, self.y * k, self.z * k)


class Rotator(_Value):
    """Degrees; applied as roll, then pitch, then yaw."""
    __slots__ = ("roll", "pitch", "yaw")

    def __init__(self, roll=0.0, pitch=0.0, yaw=0.0):
        self.roll = roll + 0.0
        self.pitch = pitch + 0.0
        self.yaw = yaw + 0.0

    def quaternion(self):
        return quat_of(self)

    def get_forward_vector(self):
        return _axis_x(quat_of(self))

    def get_right_vector(self):
        return _axis_y(quat_of(self))

    def get_up_vector(self):
        return _axis_z(quat_of(self))


class Quat(_Value):
    __slots__ = ("x", "y", "z", "w")

    def __init__(self, x=0.0, y=0.0, z=0.0, w=0.0):
        self.x = x + 0.0
        self.y = y + 0.0
        self.z = z + 0.0
        self.w = w + 0.0

    def _copy(self):
        q = _new(Quat)
        q.x = self.x
        q.y = self.y
        q.z = self.z
        q.w = self.w
        return q

    def get_axis_x(self):
        return _axis_x(self)

    def get_axis_y(self):
        return _axis_y(self)

    def get_axis_z(self):
        return _axis_z(self)

    def rotator(self):
        return rotator_of(self)


def _axis_x(q):
    x, y, z, w = q.x, q.y, q.z, q.w
    v = _new(Vector)
    v.x = 1.0 - 2.0 * (y * y + z * z)
    v.y = 2.0 * (x * y + w * z)
    v.z = 2.0 * (x * z - w * y)
    return v


def _axis_y(q):
    x, y, z, w = q.x, q.y, q.z, q.w
    v = _new(Vector)
    v.x = 2.0 * (x * y - w * z)
    v.y = 1.0 - 2.0 * (x * x + z * z)
    v.z = 2.0 * (y * z + w * x)
    return v


def _axis_z(q):
    x, y, z, w = q.x, q.y, q.z, q.w
    v = _new(Vector)
    v.x = 2.0 * (x * z + w * y)
    v.y = 2.0 * (y * z - w * x)
    v.z = 1.0 - 2.0 * (x * x + y * y)
    return v


def quat_of(r):
    """The rotation of a Rotator as a unit quaternion."""
    p, y, o = (math.radians(a) * 0.5 for a in (r.pitch, r.yaw, r.roll))
    sp, cp, sy, cy, sr, cr = (math.sin(p), math.cos(p), math.sin(y), math.cos(y),
                              math.sin(o), math.cos(o))
    return Quat(cr * sp * sy - sr * cp * cy, -cr * sp * cy - sr * cp * sy,
                cr * cp * sy - sr * sp * cy, cr * cp * cy + sr * sp * sy)


def rotator_of(q):
    """The rotation of a quaternion as a Rotator; near the poles pitch is exactly 90."""
    x, y, z, w = q.x, q.y, q.z, q.w
    n = math.sqrt(x * x + y * y + z * z + w * w)
    if n < 1e-8:
        return Rotator()
    x, y, z, w = x / n, y / n, z / n, w / n
    s = z * x - w * y
    yaw = math.degrees(math.atan2(2.0 * (w * z + x * y), 1.0 - 2.0 * (y * y + z * z)))
    if abs(s) > 0.4999995:
        side = math.copysign(1.0, s)
        roll = side * yaw - math.degrees(2.0 * math.atan2(x, w))
        return Rotator(roll=(roll + 180.0) % 360.0 - 180.0, pitch=90.0 * side, yaw=yaw)
    roll = math.degrees(math.atan2(-2.0 * (w * x + y * z), 1.0 - 2.0 * (x * x + y * y)))
    return Rotator(roll=roll, pitch=math.degrees(math.asin(2.0 * s)), yaw=yaw)


def rotate(q, v):
    """`v` turned by the unit quaternion `q`."""
    a, b, c = _axis_x(q), _axis_y(q), _axis_z(q)
    return Vector(a.x * v.x + b.x * v.y + c.x * v.z, a.y * v.x + b.y * v.y + c.y * v.z,
                   a.z * v.x + b.z * v.y + c.z * v.z)


def _times(a, b):
    """Quaternion product: first `b`, then `a`."""
    return Quat(a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
                a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
                a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w,
                a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z)


def transform_of(location, rotation, scale):
    """The Transform of a quaternion, without the way over a Rotator."""
    t = Transform(location, None, scale)
    t.rotation = rotation._copy()
    return t


class Transform(_Value):
    """Scale, then rotate, then move. The rotation is given as a Rotator and kept as a Quat."""
    __slots__ = ("translation", "rotation", "scale3d")

    def __init__(self, location=None, rotation=None, scale=None):
        for value, kind in ((location, Vector), (rotation, Rotator), (scale, Vector)):
            if value is not None and not isinstance(value, kind):
                raise TypeError(f"Transform: cannot take a '{type(value).__name__}'")
        self.translation = location._copy() if location is not None else Vector()
        self.rotation = quat_of(rotation) if rotation is not None else Quat(0.0, 0.0, 0.0, 1.0)
        self.scale3d = scale._copy() if scale is not None else Vector(1.0, 1.0, 1.0)

    def _copy(self):
        # Written out: this is what every look at an actor's place costs.
        t = _new(Transform)
        v = t.translation = _new(Vector)
        a = self.translation
        v.x = a.x
        v.y = a.y
        v.z = a.z
        t.rotation = self.rotation._copy()
        v = t.scale3d = _new(Vector)
        a = self.scale3d
        v.x = a.x
        v.y = a.y
        v.z = a.z
        return t

    def transform_location(self, location):
        """A point of the local space, in that of the parent."""
        return place(self, location)

    def make_relative(self, relative_to):
        """This transform as seen from `relative_to`."""
        q = relative_to.rotation
        inverse = Quat(-q.x, -q.y, -q.z, q.w)
        s, b = self.scale3d, relative_to.scale3d
        d = rotate(inverse, self.translation - relative_to.translation)
        return transform_of(Vector(_div(d.x, b.x), _div(d.y, b.y), _div(d.z, b.z)),
                         _times(inverse, self.rotation),
                         Vector(_div(s.x, b.x), _div(s.y, b.y), _div(s.z, b.z)))


def _div(a, b):
    return a / b if b else 0.0


def place(t, v):
    """The point `v` of the local space of `t`, in its parent space."""
    return rotate(t.rotation, v * t.scale3d) + t.translation


def box_in(t, low, high):
    """The axis-aligned box, low and high corner, around a box of the local space of `t`."""
    half = (high - low) * 0.5 * t.scale3d
    axes = _axis_x(t.rotation), _axis_y(t.rotation), _axis_z(t.rotation)
    reach = Vector(*(abs(getattr(axes[0], k) * half.x) + abs(getattr(axes[1], k) * half.y)
                     + abs(getattr(axes[2], k) * half.z) for k in "xyz"))
    centre = place(t, (low + high) * 0.5)
    return centre - reach, centre + reach


def combine(child, parent):
    """The transform of `child`, given relative to `parent`, in the space of `parent`."""
    return transform_of(place(parent, child.translation), _times(parent.rotation, child.rotation),
                     child.scale3d * parent.scale3d)


class Box(_Value):
    """Axis-aligned box with the corners `min` and `max`."""
    __slots__ = ("min", "max")

    def __init__(self, min=None, max=None):
        self.min = min._copy() if min else Vector()
        self.max = max._copy() if max else Vector()


def _dot(a, b):
    return a.x * b.x + a.y * b.y + a.z * b.z


def _cross(a, b):
    return Vector(a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x)


def _unit(v):
    n = math.sqrt(_dot(v, v))
    return v * (1.0 / n) if n > 1e-8 else Vector()


class MathLibrary:
    @staticmethod
    def make_rot_from_xz(x, z):
        """The rotation whose X axis is `x` and whose Z axis comes as near to `z` as it can."""
        x, z = _unit(x), _unit(z)
        if abs(abs(_dot(x, z)) - 1.0) < 1e-8:
            z = Vector(0.0, 0.0, 1.0) if abs(x.z) < 0.9999 else Vector(1.0, 0.0, 0.0)
        y = _unit(_cross(z, x))
        z = _cross(x, y)
        r = Rotator(pitch=math.degrees(math.atan2(x.z, math.hypot(x.x, x.y))),
                    yaw=math.degrees(math.atan2(x.y, x.x)))
        level = _axis_y(quat_of(r))
        r.roll = math.degrees(math.atan2(_dot(z, level), _dot(y, level)))
        return r

    @staticmethod
    def get_forward_vector(rot):
        return _axis_x(quat_of(rot))

    @staticmethod
    def get_up_vector(rot):
        return _axis_z(quat_of(rot))
