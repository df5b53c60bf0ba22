"""Play in the editor: its state, and the scripting calls that are refused meanwhile."""
import functools

from ._editor import editor


def start():
    editor.playing = True


def stop():
    editor.playing = False


def refused_in_play(empty):
    """Decorates a scripting call that only logs an error during Play and gives `empty()`."""
    def decorate(call):
        @functools.wraps(call)
        def guarded(*args, **kwargs):
            if editor.playing:
                editor.log.append(("error", "The Editor is currently in a play mode."))
                return empty()
            return call(*args, **kwargs)
        return guarded
    return decorate


def nothing():
    return None
