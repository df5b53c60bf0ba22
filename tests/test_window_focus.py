"""Windows and the foreground, on a desktop in place of that of ctypes."""
import ctypes
import os

import pytest

from sim.windows import Desktop

ME, BLENDER = os.getpid(), os.getpid() + 1
SMALL, LARGE, HUGE = (0, 0, 800, 600), (100, 100, 1920, 1080), (0, 0, 3000, 3000)


def broken(*args):
    raise OSError("injected")


@pytest.fixture
def desktop():
    with Desktop().installed() as desktop:
        yield desktop


def test_the_main_window_is_the_largest_visible_one_without_an_owner(K, desktop, monkeypatch):
    small, large, twin = (desktop.add(ME, rect) for rect in (SMALL, LARGE, LARGE))
    desktop.add(ME, HUGE, owner=large)                      # a dialog
    desktop.add(ME, HUGE, visible=False)
    desktop.add(BLENDER, HUGE)
    assert K._win_of(ME) == large.handle and K._win_of(BLENDER + 1) == 0
    # Handles are as wide as pointers: cut to 32 bits this one would be the small window's.
    large.handle, twin.rect = small.handle + (1 << 32), SMALL
    assert K._win_of(ME) == large.handle
    for function in ("GetWindowRect", "IsWindowVisible"):   # one can't be looked at
        works = getattr(desktop.user32, function)
        with monkeypatch.context() as patch:
            patch.setattr(desktop.user32, function, lambda hwnd, *out: (
                broken() if hwnd.value == large.handle else works(hwnd, *out)))
            assert K._win_of(ME) == small.handle
    large.rect = small.rect = twin.rect = (5, 5, 5, 5)
    assert K._win_of(ME) == 0


def test_the_foreground_is_granted_taken_and_told(K, desktop):
    editor, blender = desktop.add(ME, LARGE, minimised=True), desktop.add(BLENDER, LARGE)
    assert K._foreground()
    for nobody in (None, 0):
        K._allow_front(nobody)
        assert desktop.granted == set()
    K._allow_front(BLENDER)
    assert desktop.granted == {BLENDER}
    desktop.foreground = blender
    K._to_front()                       # not granted: Windows refuses
    assert desktop.foreground is blender and not K._foreground()
    desktop.granted.add(ME)
    K._to_front()
    assert desktop.foreground is editor and not editor.minimised
    desktop.foreground = None
    assert not K._foreground()


def test_no_window_operation_ever_fails(K, desktop, monkeypatch):
    desktop.add(ME, LARGE, minimised=True)
    names = [name for name in vars(desktop.user32) if name != "GetLastInputInfo"]
    for name in [None, *names]:
        with monkeypatch.context() as patch:
            if name:
                patch.setattr(desktop.user32, name, broken)
            else:
                patch.delattr(ctypes, "windll")             # another system
            K._to_front()
            K._allow_front(BLENDER)
            assert K._win_cb(5, 0) is True
            if name in (None, "EnumWindows", "GetWindowThreadProcessId", "GetWindowRect"):
                assert K._win_of(ME) == 0
            if name in (None, "GetForegroundWindow", "GetWindowThreadProcessId"):
                assert K._foreground() is False
    K._allow_front("no process")
