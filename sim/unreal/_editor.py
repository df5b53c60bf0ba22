"""What the running editor holds: project, open level, history, log, viewports, menus."""
import os
import traceback
import weakref

from ._enums import LevelViewportType
from ._math import Rotator, Vector
from ._values import Name


class Event:
    """An event that scripts bind callables to; their exceptions end in the log."""

    def __init__(self):
        self._callables = []

    def add_callable(self, function):
        self._callables.append(function)

    def add_callable_unique(self, function):
        if function not in self._callables:
            self._callables.append(function)

    def remove_callable(self, function):
        self._callables.remove(function)

    def contains_callable(self, function):
        return function in self._callables

    def clear(self):
        self._callables.clear()

    def _fire(self, *args):
        for function in list(self._callables):
            editor.guarded(function, *args)


class Pane:
    """One level viewport. Orthographic panes have no camera."""

    def __init__(self, index, kind):
        self.index = index
        self.kind = kind
        self.key = Name(f"FourPanes2x2.Viewport 1.Viewport{index}")
        self.location = Vector(-500.0, 0.0, 300.0)
        self.rotation = Rotator()
        self.fov = 90.0

    @property
    def has_camera(self):
        return self.kind is LevelViewportType.LVT_PERSPECTIVE


class EditorState:
    def reset(self, project_dir, project_name):
        """A fresh editor on the project in `project_dir`, with no level open yet."""
        self.project_dir = os.path.join(os.path.abspath(project_dir), "")
        self.project_name = project_name
        for sub in ("Content", "Saved"):
            os.makedirs(self.project_dir + sub, exist_ok=True)
        self.level = None
        self.levels = {}        # package path -> text of its file, None while that is on disk
        self.assets = {}        # package path -> asset
        self.dirty = {}         # package path of assets changed since they were saved
        self.objects = {}       # object path -> default and transient objects
        self.history = None
        self.garbage = weakref.WeakSet()    # destroyed actors that still answer
        self.alter = {}         # "label", "folder", "transform" -> what the editor makes of it
        self.log = []
        self.frame = 0
        self.ticks = {}         # handle -> callable
        self.playing = False
        self.selection = []
        kinds = LevelViewportType
        self.panes = [Pane(i, kind) for i, kind in enumerate(
            (kinds.LVT_PERSPECTIVE, kinds.LVT_PERSPECTIVE, kinds.LVT_ORTHO_XY, kinds.LVT_ORTHO_XZ))]
        self.active_pane = self.panes[0]
        self.redraws = 0
        self.interchange = True     # the plugin with the parents of glTF materials is on
        self.variables = {"r.Substrate": 1}     # the console's
        self.material_changes = 0   # how often a material instance was told to follow a change
        self.soft_references = {}   # package -> packages that it names without loading them
        self.subsystems = {}
        self.menus = None

    def guarded(self, function, *args):
        """Call into a script; what it raises becomes an error in the log."""
        try:
            return function(*args)
        except Exception:
            self.log.append(("error", traceback.format_exc().rstrip()))

    def altered(self, what, actor, value):
        """What the editor makes of a label, folder or transform that a script asks for."""
        change = self.alter.get(what)
        return change(actor, value) if change else value

    def pane(self, key):
        """The pane of a config key; the active one for an empty key; None if there is none."""
        key = Name(key)
        if key.is_none():
            return self.active_pane
        return next((p for p in self.panes if p.key == key), None)


editor = EditorState()
