"""Value types (structs, names, texts) and the named properties that structs and objects share."""
import collections
import collections.abc
import functools
import re
import struct

_F32 = struct.Struct("f")

# Types whose values are copied whenever they cross the border of an object.
# Arrays of immutable values are kept as tuples, others as lists; both are handed out as Array.
COPIED = {list, tuple, dict}


class Array(collections.abc.MutableSequence):
    """The editor's array of one type: a sequence that is no list."""
    __slots__ = ("_items",)

    def __init__(self, items=()):
        self._items = list(items)

    def __getitem__(self, index):
        found = self._items[index]
        return Array(found) if isinstance(index, slice) else found

    def __setitem__(self, index, value):
        self._items[index] = value

    def __delitem__(self, index):
        del self._items[index]

    def __len__(self):
        return len(self._items)

    def __iter__(self):
        return iter(self._items)

    def insert(self, index, value):
        self._items.insert(index, value)

    def __eq__(self, other):
        return isinstance(other, (Array, list, tuple)) and self._items == list(other)

    def __repr__(self):
        return repr(self._items)


class Map(collections.UserDict):
    """The editor's map: a mapping that is no dict."""


def copied(value):
    """A copy that shares nothing mutable with `value`."""
    kind = type(value)
    if kind is tuple:
        return Array(value)
    if kind is list:
        return Array(copied(v) for v in value)
    if kind is dict:
        return Map((k, copied(v)) for k, v in value.items())
    return value._copy() if kind in COPIED else value


@functools.lru_cache(None)
def pythonize(name):
    """The scripting name of a native property: bUseTarget -> use_target."""
    name = re.sub(r"^b(?=[A-Z])", "", name)
    name = re.sub(r"(?<=[a-z0-9])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z])", "_", name)
    return name.lower()


# Converters: each takes what a script hands over and gives what is stored, or raises TypeError.

def _refuse(value, kind):
    raise TypeError(f"Cannot nativize '{type(value).__name__}' as '{kind}'")


def f64(value):
    return float(value) if isinstance(value, (int, float)) else _refuse(value, "DoubleProperty")


def f32(value):
    """Most engine floats have 32 bits, so what is read back differs from what was written."""
    if not isinstance(value, (int, float)):
        _refuse(value, "FloatProperty")
    try:
        return _F32.unpack(_F32.pack(value))[0]
    except OverflowError:
        return float("inf") if value > 0 else float("-inf")


def integer(value):
    return int(value) if isinstance(value, int) else _refuse(value, "IntProperty")


def boolean(value):
    return bool(value) if isinstance(value, int) else _refuse(value, "BoolProperty")


def _words(value, kind):
    """Text goes to the engine as UTF-8, which has no lone surrogates."""
    words = str(value)
    try:
        words.isascii() or words.encode()
    except UnicodeEncodeError:
        _refuse(value, kind)
    return words


def string(value):
    return (_words(value, "StrProperty") if isinstance(value, (str, Name))
            else _refuse(value, "StrProperty"))


def name(value):
    return Name(value) if isinstance(value, (str, Name)) else _refuse(value, "NameProperty")


def text(value):
    return Text(value) if isinstance(value, (str, Text)) else _refuse(value, "TextProperty")


def enum_of(cls):
    def convert(value):
        return value if isinstance(value, cls) else _refuse(value, cls.__name__)
    return convert


def struct_of(cls):
    def convert(value):
        return value._copy() if isinstance(value, cls) else _refuse(value, cls.__name__)
    return convert


def object_of(cls):
    """`cls` is a class, or a function that gives one (for classes defined later)."""
    def convert(value):
        kind = cls if isinstance(cls, type) else cls()
        return value if value is None or isinstance(value, kind) else _refuse(value, kind.__name__)
    return convert


def array_of(convert):
    def convert_all(value):
        if isinstance(value, (str, bytes)) or not hasattr(value, "__iter__"):
            _refuse(value, "ArrayProperty")
        items = [convert(v) for v in value]
        return items if any(type(v) in COPIED for v in items) else tuple(items)
    return convert_all


HIDDEN = "hidden"
READ_ONLY = "read-only"


class _Attribute(property):
    """Attribute access to a named property: `actor.tags`."""


class Properties:
    """Named, typed properties. A class lists its own in PROPS: name -> (converter, default), with
    HIDDEN for one that has no attribute, or READ_ONLY, behind it.

    Stored values are never changed in place, so a shallow copy of `_p` is a full snapshot.
    """
    __slots__ = ("_p",)
    PROPS = {}
    ALIASES = {}

    def __init_subclass__(cls):
        cls._schema = {}
        cls._defaults = {}
        cls._fixed = set()
        for base in reversed(cls.__mro__):
            for key, (convert, default, *access) in base.__dict__.get("PROPS", {}).items():
                cls._schema[key] = convert
                cls._defaults[key] = default
                if READ_ONLY in access:
                    cls._fixed.add(key)
        for key, (_, _, *access) in cls.__dict__.get("PROPS", {}).items():
            if HIDDEN not in access:
                cls._attribute(key, READ_ONLY in access)
        for key in cls.__dict__.get("ALIASES", ()):
            cls._attribute(key, False)

    @classmethod
    def _attribute(cls, key, fixed):
        def get(self):
            value = self._p[key] if key in self._p else self._p[self._find(key)]
            return copied(value) if type(value) in COPIED else value

        def put(self, value):
            self._set(key, value)
            self._changed(self._find(key))
        if key not in cls.__dict__:
            setattr(cls, key, _Attribute(get, None if fixed else put))

    def _changed(self, key):
        """Called after a script or the user set the property `key`."""

    def _find(self, key):
        """The stored name of a property under any of its names; raises Exception for none."""
        key = str(key)
        for k in (key, self.ALIASES.get(key), pythonize(key)):
            if k in self._p:
                return k
        kind = type(self).__name__
        raise Exception(f"{kind}: Failed to find property '{key}' on '{kind}'")

    def _get(self, key):
        try:
            value = self._p[key]
        except (KeyError, TypeError):
            value = self._p[self._find(key)]
        return copied(value) if type(value) in COPIED else value

    def _set(self, key, value):
        if key not in self._p:
            key = self._find(key)
        self._p[key] = self._schema[key](value)

    def _settable(self, key):
        """The stored name of a property that scripts may set; raises Exception for others."""
        key = self._find(key)
        if key in self._fixed or key not in self._schema:
            kind = type(self).__name__
            raise Exception(f"{kind}: Property '{key}' on '{kind}' is read-only and cannot be set")
        return key


class Struct(Properties):
    """A struct of named properties; a value, so objects hand out and take in copies."""
    __slots__ = ()

    def __init_subclass__(cls):
        super().__init_subclass__()
        COPIED.add(cls)

    def __init__(self, **values):
        self._p = dict(self._defaults)
        for key, value in values.items():
            self._set(key, value)

    def get_editor_property(self, name):
        return self._get(name)

    def set_editor_property(self, name, value, notify_mode=None):
        self._set(self._settable(name), value)

    def copy(self):
        return self._copy()

    def _copy(self):
        other = object.__new__(type(self))
        other._p = dict(self._p)
        return other

    def __eq__(self, other):
        return type(other) is type(self) and self._p == other._p

    def __repr__(self):
        return f"<Struct '{type(self).__name__}' {self._p}>"


class Name:
    """A name: case-insensitive, and "None" when empty."""
    __slots__ = ("_s",)

    def __init__(self, value=""):
        self._s = _words(value, "NameProperty") or "None"

    def __str__(self):
        return self._s

    def __repr__(self):
        return f'Name("{self._s}")'

    def __eq__(self, other):
        if isinstance(other, (Name, str)):
            return self._s.lower() == str(other).lower()
        return NotImplemented

    def __hash__(self):
        return hash(self._s.lower())

    def is_none(self):
        return self._s.lower() == "none"


class Text:
    """A piece of display text."""
    __slots__ = ("_s",)

    def __init__(self, value=""):
        if not isinstance(value, (str, Text, Name)):
            _refuse(value, "TextProperty")
        self._s = _words(value, "TextProperty")

    def __str__(self):
        return self._s

    def __repr__(self):
        return f'Text("{self._s}")'

    def __eq__(self, other):
        return str(other) == self._s if isinstance(other, (Text, str)) else NotImplemented

    def __hash__(self):
        return hash(self._s)


def _byte(value):
    if not isinstance(value, int):
        _refuse(value, "ByteProperty")
    if not 0 <= value <= 255:
        raise OverflowError(f"{value} does not fit in a byte")
    return int(value)


class Color(Struct):
    """8-bit sRGB colour. Positional order is that of memory: b, g, r, a."""
    PROPS = {c: (_byte, 0) for c in "bgra"}
    __slots__ = ()

    def __init__(self, b=0, g=0, r=0, a=0):
        super().__init__(b=b, g=g, r=r, a=a)


class LinearColor(Struct):
    """Linear-light colour of 32-bit floats."""
    PROPS = {c: (f32, 0.0) for c in "rgba"}
    __slots__ = ()

    def __init__(self, r=0.0, g=0.0, b=0.0, a=0.0):
        super().__init__(r=r, g=g, b=b, a=a)


class TopLevelAssetPath(Struct):
    """A class or asset by package and name."""
    PROPS = {"package_name": (name, Name()), "asset_name": (name, Name())}
    __slots__ = ()

    def __init__(self, package_name="", asset_name=""):
        super().__init__(package_name=package_name, asset_name=asset_name)
