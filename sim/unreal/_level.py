"""The open level, and levels as assets that are saved and loaded."""
import os

from ._assets import package_of
from ._editor import editor
from ._object import Object


class World(Object):
    __slots__ = ()


class Level:
    """All actors of the open level, by path, in the order of their making."""

    def __init__(self, path):
        package = package_of(path)
        self.path = f"{package}.{package.rsplit('/', 1)[-1]}"
        self.world = World(self.path)
        self.actors = {}
        self.unloaded = {}      # World Partition actors that are on disk only
        self.dirty = False
        self._next = {}         # class name -> number of the next actor name
        self._labels = {}       # default label -> how often it was given
        self._serial = 0

    def make(self, kind, class_name=None, name=None):
        """A new actor; its name is `name`, or a fresh one of its class."""
        class_name = class_name or kind.__name__
        if name is None:
            number = self._next.get(class_name, 0)
            while f"{self.path}:PersistentLevel.{class_name}_{number}" in self.unloaded:
                number += 1
            self._next[class_name] = number + 1
            name = f"{class_name}_{number}"
        actor = kind(self, name, class_name)
        self._serial += 1
        actor._serial = self._serial
        self.actors[actor._path] = actor
        return actor

    def default_label(self, base):
        """The base name, with a number behind it from the second actor on."""
        count = self._labels[base] = self._labels.get(base, 0) + 1
        return base if count == 1 else f"{base}{count}"

    def note_new(self, actor):
        """Record a new actor for undo: before, it did not exist."""
        p, _, label, folder = actor._state()
        editor.history.note(actor, (p, False, label, folder))
        self.dirty = True

    def destroy(self, actor):
        actor._modify()
        self.take(actor)

    def take(self, actor):
        """Out of the level; the object and its components are no longer valid."""
        self.actors.pop(actor._path, None)
        for obj in (actor, *actor._components):
            obj._valid = False
        if actor in editor.selection:
            editor.selection.remove(actor)

    def put(self, actor):
        """Back into the level, at its old place in the order."""
        for obj in (actor, *actor._components):
            obj._valid = True
        self.actors[actor._path] = actor
        self.actors = dict(sorted(self.actors.items(), key=lambda item: item[1]._serial))

    def copy_of(self, actor):
        """A new actor with everything that `actor` has, under a name of its own."""
        record = export(actor)
        return self._build(*record[:2], None, *record[3:])

    def _build(self, kind, class_name, name, state, parts):
        actor = self.make(kind, class_name, name)
        p, _, actor._label, actor._folder = state
        actor._p.update(p)
        for i, (part_kind, part_name, part_state) in enumerate(parts):
            if i >= len(actor._components):
                actor._add(part_kind, part_name)
            actor._components[i]._restore(part_state)
        return actor

    def load(self, records):
        for record in records:
            actor = self._build(*record)
            stem, _, number = record[2].rpartition("_")
            if number.isdigit():
                self._next[stem] = max(self._next.get(stem, 0), int(number) + 1)
            base = actor._label.rstrip("0123456789")
            self._labels[base] = self._labels.get(base, 0) + 1

    def save(self):
        package = package_of(self.path)
        records = [export(a) for a in (*self.actors.values(), *self.unloaded.values())]
        editor.levels[package] = records
        if package.startswith("/Game/"):
            file = f"{editor.project_dir}Content/{package[6:]}.umap"
            os.makedirs(os.path.dirname(file), exist_ok=True)
            with open(file, "w", encoding="utf-8") as out:
                out.writelines(f"{r[1]} {r[2]} {r[3][2]}\n" for r in records)
        self.dirty = False


def export(actor):
    """What is saved of an actor: class, class name, name, state, components."""
    p, valid, label, folder = actor._state()
    own = {k: v for k, v in p.items() if k in actor._schema}
    parts = [(type(c), c._path.rsplit(".", 1)[-1], c._state()) for c in actor._components]
    return (type(actor), actor._class_name, actor._path.rsplit(".", 1)[-1],
            (own, valid, label, folder), parts)


def close_level():
    """Drop the open level with its unsaved changes; no world stands afterwards."""
    level = editor.level
    editor.level = None
    editor.selection.clear()
    editor.history.done.clear()
    editor.history.undone.clear()
    if level:
        for actor in list(level.actors.values()):
            level.take(actor)
        level.world._valid = False


def open_level(path):
    """Open a saved level in place of the present one; false if there is none at the path."""
    package = package_of(path)
    if package not in editor.levels:
        return False
    close_level()
    level = Level(package)
    level.load(editor.levels[package])
    editor.level = level
    return True
