"""Objects of the editor: identity, properties by name, undo records."""
import sys

from ._editor import editor
from ._values import COPIED, Properties, _refuse, copied


class Object(Properties):
    """Base of everything that has a path.

    One that was destroyed is no longer valid but still answers until it is collected; then it
    raises. (`_lingers` is the state between.)
    """
    __slots__ = ("_path", "_valid", "_lingers", "__weakref__")

    def __init__(self, path):
        self._path = path
        self._valid = True
        self._lingers = False
        self._p = dict(self._defaults)

    def _check(self):
        if not (self._valid or self._lingers):
            raise Exception(f"{type(self).__name__}: Internal Error - ObjectInstance is null!")

    # What undo keeps of an object, and how it comes back.

    def _state(self):
        return dict(self._p)

    def _restore(self, state):
        self._p = dict(state)

    def _dirtied(self):
        """Called when the object's package has to be saved again."""

    def _modify(self):
        editor.history.note(self)
        self._dirtied()

    # What scripts see.

    def get_name(self):
        self._check()
        return self._path.rsplit("/", 1)[-1].rsplit(":", 1)[-1].rsplit(".", 1)[-1]

    def get_package(self):
        self._check()
        return Package(self._package())

    def _package(self):
        return self._path.split(".", 1)[0]

    def get_path_name(self):
        if not self._valid:
            self._check()
        return self._path

    def get_class(self):
        self._check()
        return Class(type(self).__name__)

    def modify(self, always_mark_dirty=True):
        self._check()
        self._modify()
        return True

    def get_editor_property(self, name):
        if not self._valid:
            self._check()
        try:
            value = self._p[name]
        except (KeyError, TypeError):
            value = self._p[self._find(name)]
        return copied(value) if type(value) in COPIED else value

    def set_editor_property(self, name, value, notify_mode=None):
        self._check()
        self._assign(self._settable(name), value)

    def set_editor_properties(self, properties):
        for name, value in properties.items():
            self.set_editor_property(name, value)

    def _assign(self, name, value):
        """Set as the details panel does: recorded, and followed by what the change entails."""
        old = self._state()
        self._set(name, value)
        editor.history.note(self, old)
        self._dirtied()
        self._changed(self._find(name))

    def __repr__(self):
        return f"<Object '{self._path}' Class '{type(self).__name__}'>"


def type_of(kind):
    """The Python class of what scripts may give as one or as a Class; raises TypeError for others."""
    found = getattr(sys.modules["unreal"], kind.get_name(), None) if isinstance(kind, Class) else kind
    return found if isinstance(found, type) else _refuse(kind, "Class")


class Class(Object):
    """The class of an object."""
    __slots__ = ()

    def __init__(self, name):
        super().__init__(f"/Script/Engine.{name}")

    def __eq__(self, other):
        return isinstance(other, Class) and other._path == self._path

    def __hash__(self):
        return hash(self._path)


class Package(Object):
    """A package file, loaded; its name is its path."""
    __slots__ = ()

    def get_name(self):
        return self._path
