"""Undo: the steps that were done and undone, and the scope by which scripts make one."""
from ._editor import editor


class History:
    """Undo history. A step is [title, {id: [object, state]}, selection]: what undo swaps in."""

    def __init__(self):
        self.done = []
        self.undone = []
        self._open = None
        self._depth = 0

    def begin(self, title):
        if self._depth == 0:
            self._open = [str(title), {}, list(editor.selection)]
        self._depth += 1

    def end(self):
        self._depth -= 1
        if self._depth == 0:
            if self._open and self._open[1]:
                self.done.append(self._open)
                self.undone.clear()
            self._open = None

    def cancel(self):
        """Forget the open step; what was changed in it stays as it is."""
        self._open = None

    def note(self, obj, state=None):
        """Keep the object's present state (or `state`) in the open step, once per step."""
        if self._open is not None and id(obj) not in self._open[1]:
            self._open[1][id(obj)] = [obj, obj._state() if state is None else state]

    def held(self):
        """The objects that some step keeps alive."""
        for step in (*self.done, *self.undone, self._open or ("", {})):
            yield from (obj for obj, _ in step[1].values())

    def clear(self):
        self.done.clear()
        self.undone.clear()

    def undo(self):
        self._swap(self.done, self.undone)

    def redo(self):
        self._swap(self.undone, self.done)

    @staticmethod
    def _swap(source, target):
        if source:
            step = source.pop()
            selected = list(editor.selection)
            # The present states become those of the way back, so that what was changed outside
            # of any transaction since then comes back with redo.
            for record in reversed(step[1].values()):
                obj, state = record
                record[1] = obj._state()
                obj._restore(state)
            editor.selection[:] = [a for a in step[2] if a._valid]
            step[2] = selected
            target.append(step)


class ScopedEditorTransaction:
    """An undo step as a scope; one inside another is part of the outer one."""

    def __init__(self, desc):
        self._desc = str(desc)

    def __enter__(self):
        editor.history.begin(self._desc)
        return self

    def __exit__(self, *error):
        editor.history.end()
        return False

    def cancel(self):
        editor.history.cancel()
