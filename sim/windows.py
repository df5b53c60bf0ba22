"""A small Windows desktop for tests: top-level windows, the foreground, the last input.

    desktop = Desktop()
    mine = desktop.add(os.getpid(), (0, 0, 1920, 1080))
    with desktop.installed():               # ctypes.windll, WinDLL and WINFUNCTYPE are ours
        ...
    assert desktop.foreground is mine

The caller is always this process. As on the real desktop, it may bring a window to the front, or
grant that right, only while one of its windows is in front or after it was granted the right
(`desktop.granted.add(os.getpid())`, as the other program would). What it grants is in `granted`.
"""
import contextlib
import ctypes
import dataclasses
import os
from unittest import mock

GW_OWNER = 4
SW_RESTORE = 9


@dataclasses.dataclass(eq=False)
class Window:
    handle: int
    pid: int
    rect: tuple                 # left, top, right, bottom in pixels
    owner: "Window" = None
    visible: bool = True
    minimised: bool = False


class _Function:
    """A library function; takes the attributes that callers of native code set.

    As with ctypes, a plain integer is passed as 32 bits unless `argtypes` says otherwise.
    """
    argtypes = restype = None

    def __init__(self, call):
        self._call = call

    def __call__(self, *args):
        if self.argtypes is None:
            args = [ctypes.c_int(arg).value if isinstance(arg, int) else arg for arg in args]
        return self._call(*args)


class _Library:
    def __init__(self, **calls):
        for name, call in calls.items():
            setattr(self, name, _Function(call))


def _int(value):
    """A handle or number, given plain, as a ctypes value, or null."""
    return getattr(value, "value", value) or 0


def _target(pointer):
    """What an out-parameter points to, from byref() or pointer()."""
    return pointer._obj if hasattr(pointer, "_obj") else pointer.contents


class Desktop:
    def __init__(self):
        self.windows = []           # from front to back
        self.foreground = None
        self.granted = set()        # process ids that may take the foreground
        self.tick_count = 100_000   # milliseconds
        self.last_input = 0         # tick count of the last key or mouse event
        self.user32 = _Library(**{name: getattr(self, "_" + name) for name in (
            "EnumWindows", "GetWindowThreadProcessId", "IsWindowVisible", "GetWindow",
            "GetWindowRect", "IsIconic", "ShowWindow", "SetForegroundWindow",
            "AllowSetForegroundWindow", "GetForegroundWindow", "GetLastInputInfo")})
        self.kernel32 = _Library(GetTickCount=lambda: self.tick_count & 0xFFFFFFFF,
                                 GetCurrentProcessId=os.getpid)

    def add(self, pid, rect, **options):
        """A new window behind all others; the first one of all comes to the front."""
        window = Window(0x10000 + len(self.windows) * 2, pid, rect, **options)
        self.windows.append(window)
        self.foreground = self.foreground or window
        return window

    @contextlib.contextmanager
    def installed(self):
        """Put this desktop in place of that of `ctypes`."""
        with mock.patch.multiple(ctypes, create=True, windll=self, WINFUNCTYPE=ctypes.CFUNCTYPE,
                                 WinDLL=self._library):
            yield self

    def _library(self, name, *args, **kwargs):
        return getattr(self, name.lower().removesuffix(".dll"))

    def _find(self, handle):
        return next((w for w in self.windows if w.handle == _int(handle)), None)

    def _may(self):
        return os.getpid() in self.granted or (
            self.foreground is not None and self.foreground.pid == os.getpid())

    def _EnumWindows(self, callback, parameter):
        return int(all(callback(w.handle, parameter) for w in list(self.windows)))

    def _GetWindowThreadProcessId(self, handle, out):
        window = self._find(handle)
        if window is None:
            return 0
        _target(out).value = window.pid
        return window.pid * 4  # some thread of it

    def _IsWindowVisible(self, handle):
        window = self._find(handle)
        return int(window is not None and window.visible)

    def _GetWindow(self, handle, relation):
        window = self._find(handle)
        owned = window is not None and _int(relation) == GW_OWNER and window.owner
        return window.owner.handle if owned else None

    def _GetWindowRect(self, handle, out):
        window = self._find(handle)
        if window is None:
            return 0
        rect = _target(out)
        rect.left, rect.top, rect.right, rect.bottom = window.rect
        return 1

    def _IsIconic(self, handle):
        window = self._find(handle)
        return int(window is not None and window.minimised)

    def _ShowWindow(self, handle, command):
        window = self._find(handle)
        if window is None:
            return 0
        if _int(command) == SW_RESTORE:
            window.minimised = False
        return int(window.visible)

    def _SetForegroundWindow(self, handle):
        window = self._find(handle)
        if window is None or not self._may():
            return 0
        self.granted.discard(os.getpid())
        self.foreground = window
        return 1

    def _AllowSetForegroundWindow(self, pid):
        if not self._may():
            return 0
        self.granted.add(_int(pid))
        return 1

    def _GetForegroundWindow(self):
        return self.foreground.handle if self.foreground else None

    def _GetLastInputInfo(self, out):
        info = _target(out)
        if info.cbSize != ctypes.sizeof(info):
            return 0
        info.dwTime = self.last_input & 0xFFFFFFFF
        return 1
