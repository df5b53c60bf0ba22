"""The open level with its sublevels, and levels as files (JSON in .umap) that are saved and loaded."""
import json
import os
import sys

from ._editor import editor
from ._object import Object
from ._packages import decoded, encoded, fill, level_file, level_text, package_of, written
from ._values import Name


class World(Object):
    __slots__ = ()


class Level:
    """All actors of the open level, by path, in the order of their making."""

    def __init__(self, path):
        self.path = object_path(path)
        self.world = World(self.path)
        self.current = self.path    # the level or sublevel that new actors go to
        self.sublevels = []
        self.partitioned = False    # by World Partition
        self.actors = {}
        self.unloaded = {}      # World Partition actors that are on disk only
        self.dirty = set()      # paths of levels with unsaved changes
        self._next = {}         # class name -> number of the next actor name
        self._freed = {}        # class name -> path of the last that was taken out
        self._labels = {}       # default label -> how often it was given
        self._serial = 0

    def make(self, kind, class_name=None, name=None, home=None):
        """A new actor; its name is `name`, or one of its class that no actor has any more."""
        class_name = class_name or kind.__name__
        home = home or self.current
        if name is None:
            name = self._free_name(class_name, home)
        actor = kind(self, name, class_name, home)
        self._serial += 1
        actor._serial = self._serial
        self.actors[actor._path] = actor
        return actor

    def _free_name(self, class_name, home):
        freed = self._freed.pop(class_name, "")
        if (freed.startswith(f"{home}:") and freed not in self.actors
                and freed not in self.unloaded
                and all(o._path != freed for o in editor.history.held())):
            return freed.rsplit(".", 1)[-1]
        number = self._next.get(class_name, 0)
        while f"{home}:PersistentLevel.{class_name}_{number}" in self.unloaded:
            number += 1
        self._next[class_name] = number + 1
        return f"{class_name}_{number}"

    def default_label(self, base):
        """The base name, with a number behind it from the second actor on."""
        count = self._labels[base] = self._labels.get(base, 0) + 1
        return base if count == 1 else f"{base}{count}"

    def note_new(self, actor):
        """Record a new actor for undo: before, it did not exist."""
        p, _, *rest = actor._state()
        editor.history.note(actor, (p, False, *rest))
        actor._dirtied()

    def destroy(self, actor):
        """Take an actor out; what hangs on it stays where it is."""
        actor._modify()
        for child in list(actor._children):
            world = child._root._world()
            child._modify()
            child._attach(None)
            child._root._place_in_world(world)
        self.take(actor)

    def take(self, actor):
        """Out of the level; the object and its components answer until they are collected."""
        self.actors.pop(actor._path, None)
        self._freed[actor._class_name] = actor._path
        for obj in (actor, *actor._components):
            obj._valid = False
            obj._lingers = True
        actor._attach(None)
        editor.garbage.add(actor)
        if actor in editor.selection:
            editor.selection.remove(actor)

    def put(self, actor):
        """Back into the level, at its old place in the order."""
        for obj in (actor, *actor._components):
            obj._valid = True
            obj._lingers = False
        self.actors[actor._path] = actor
        self.actors = dict(sorted(self.actors.items(), key=lambda item: item[1]._serial))

    def copy_of(self, actor):
        """A new actor with everything that `actor` has, under a name of its own."""
        copy = self.make(type(actor), actor._class_name, None, actor._home)
        copy._p.update((k, actor._p[k]) for k in actor._schema)
        copy._label, copy._folder = actor._label, actor._folder
        copy._attach(actor._parent)
        for i, part in enumerate(actor._components):
            if i >= len(copy._components):
                copy._add(type(part), part.get_name())
            copy._components[i]._restore(part._state())
        return copy

    def load(self, path):
        """Add the actors of a saved level or sublevel."""
        data = json.loads(level_text(package_of(path)))
        home = object_path(path)
        unreal = sys.modules["unreal"]
        for record in data["actors"]:
            actor = self.make(getattr(unreal, record["class"]), record["class_name"],
                              record["name"], home)
            actor._label, actor._folder = record["label"], Name(record["folder"])
            fill(actor, record["props"])
            for i, part in enumerate(record["components"]):
                if i >= len(actor._components):
                    actor._add(getattr(unreal, part["class"]), part["name"])
                component = actor._components[i]
                fill(component, part["props"])
                if "box" in part:
                    component._box = decoded(part["box"])
                    component._changed("relative_location")
            stem, _, number = record["name"].rpartition("_")
            if number.isdigit():
                self._next[stem] = max(self._next.get(stem, 0), int(number) + 1)
            base = actor._label.rstrip("0123456789")
            self._labels[base] = self._labels.get(base, 0) + 1
        for record in data["actors"]:
            actor = self.actors[f"{home}:PersistentLevel.{record['name']}"]
            actor._attach(self.actors.get(record["parent"]))
        return data

    def save(self):
        """False if the disk refuses one of its files; that level stays dirty."""
        self.dirty = {home for home in (self.path, *self.sublevels) if not self._save(home)}
        return not self.dirty

    def _save(self, home):
        records = [_record(a) for a in (*self.actors.values(), *self.unloaded.values())
                   if a._home == home]
        return _write(package_of(home), {
            "partitioned": self.partitioned, "actors": records,
            "sublevels": self.sublevels if home == self.path else []})

    def add_sublevel(self, path):
        """Load a saved level into this one, or add an empty one that there is no file of."""
        home = object_path(path)
        self.sublevels.append(home)
        if package_of(path) in editor.levels:
            self.load(path)
        self.dirty.add(self.path)
        return home

    def remove_sublevel(self, path):
        home = object_path(path)
        self.sublevels.remove(home)
        self.current = self.path
        editor.history.clear()
        for actor in [a for a in self.actors.values() if a._home == home]:
            self.take(actor)
        collect_garbage()


def object_path(path):
    package = package_of(path)
    return f"{package}.{package.rsplit('/', 1)[-1]}"


def collect_garbage():
    """Destroyed actors that no undo step holds no longer answer."""
    held = {id(obj) for obj in editor.history.held()}
    for actor in list(editor.garbage):
        if id(actor) not in held:
            editor.garbage.discard(actor)
            for obj in (actor, *actor._components):
                obj._lingers = False


# Levels as files.

def _record(actor):
    def saved(obj):
        return {k: encoded(v) for k, v in obj._p.items() if k in obj._schema}

    def part(c):
        record = {"class": type(c).__name__, "name": c.get_name(), "props": saved(c)}
        return record | ({"box": encoded(c._box)} if hasattr(c, "_box") else {})
    return {"class": type(actor).__name__, "class_name": actor._class_name,
            "name": actor._path.rsplit(".", 1)[-1], "label": actor._label,
            "folder": str(actor._folder), "parent": actor._parent and actor._parent._path,
            "props": saved(actor), "components": [part(c) for c in actor._components]}


def _write(package, data):
    text = json.dumps(data)
    on_disk = package.startswith("/Game/")

    def write(file):
        with open(file, "w", encoding="utf-8") as out:
            out.write(text)
    if on_disk and not written(level_file(package), write):
        return False
    editor.levels[package] = None if on_disk else text
    return True


def find_levels():
    """Note the level files of the project."""
    content = f"{editor.project_dir}Content"
    for folder, _, files in os.walk(content):
        for file in files:
            if file.endswith(".umap"):
                sub = os.path.relpath(os.path.join(folder, file[:-5]), content)
                editor.levels["/Game/" + sub.replace(os.sep, "/")] = None


def close_level():
    """Drop the open level with its unsaved changes; no world stands afterwards."""
    level = editor.level
    editor.level = None
    editor.selection.clear()
    editor.history.clear()
    if level:
        for actor in list(level.actors.values()):
            level.take(actor)
        level.world._valid = False
    collect_garbage()


def open_level(path):
    """Open a saved level in place of the present one; false if there is none at the path."""
    package = package_of(path)
    if package not in editor.levels:
        return False
    close_level()
    level = Level(package)
    data = level.load(package)
    level.partitioned = data["partitioned"]
    level.sublevels = data["sublevels"]
    for sub in level.sublevels:
        level.load(sub)
    editor.level = level
    return True
