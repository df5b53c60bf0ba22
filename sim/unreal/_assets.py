"""Assets: objects with a package file under the project's Content folder."""
import os

from ._editor import editor
from ._math import Box, Vector
from ._object import Object
from ._values import (Name, Struct, TopLevelAssetPath, array_of, copied, name, object_of,
                      struct_of)


def package_of(path):
    return str(path).split(".", 1)[0]


class Asset(Object):
    """Saved as a .uasset file when it lies under /Game; engine assets have no file."""
    __slots__ = ()

    def __init__(self, path):
        package = package_of(path)
        super().__init__(f"{package}.{package.rsplit('/', 1)[-1]}")
        editor.assets[package] = self

    def _package(self):
        return package_of(self._path)

    def _file(self):
        package = self._package()
        if not package.startswith("/Game/"):
            return None
        return f"{editor.project_dir}Content/{package[6:]}.uasset"

    def _dirtied(self):
        editor.dirty[self._package()] = self

    def _describe(self):
        return repr(self._p)

    def _save(self):
        file = self._file()
        if file:
            os.makedirs(os.path.dirname(file), exist_ok=True)
            with open(file, "w", encoding="utf-8") as out:
                out.write(f"{type(self).__name__} {self._path}\n{self._describe()}\n")
        editor.dirty.pop(self._package(), None)

    def _delete(self):
        self._valid = False
        editor.assets.pop(self._package(), None)
        editor.dirty.pop(self._package(), None)
        file = self._file()
        if file and os.path.exists(file):
            os.remove(file)


class MaterialInterface(Asset):
    __slots__ = ()


class Material(MaterialInterface):
    __slots__ = ()


class MaterialInstance(MaterialInterface):
    __slots__ = ()
    PROPS = {"parent": (object_of(MaterialInterface), None)}


class MaterialInstanceConstant(MaterialInstance):
    __slots__ = ()


class StaticMaterial(Struct):
    """One material slot of a static mesh."""
    __slots__ = ()
    PROPS = {"material_interface": (object_of(MaterialInterface), None),
             "material_slot_name": (name, Name())}


class SkeletalMaterial(Struct):
    """One material slot of a skeletal mesh."""
    __slots__ = ()
    PROPS = dict(StaticMaterial.PROPS)


class StaticMesh(Asset):
    __slots__ = ("_box", "_counts")
    PROPS = {"static_materials": (array_of(struct_of(StaticMaterial)), [])}

    def __init__(self, path):
        super().__init__(path)
        self._box = Box(Vector(-50.0, -50.0, -50.0), Vector(50.0, 50.0, 50.0))
        self._counts = (24, 12)

    def _state(self):
        return dict(self._p), self._box, self._counts

    def _restore(self, state):
        p, self._box, self._counts = state
        self._p = dict(p)
        self._dirtied()

    def _describe(self):
        return f"{self._box} {self._counts} {self._p}"

    def get_bounding_box(self):
        self._check()
        return copied(Box(self._box.min, self._box.max))

    def get_num_vertices(self, lod_index):
        self._check()
        return self._counts[0]

    def get_num_triangles(self, lod_index):
        self._check()
        return self._counts[1]

    def get_material(self, material_index):
        self._check()
        return self._slot_material(material_index)

    def _slot_material(self, index):
        slots = self._p["static_materials"]
        return slots[index].material_interface if 0 <= index < len(slots) else None


class SkeletalMesh(Asset):
    __slots__ = ("_box",)
    PROPS = {"materials": (array_of(struct_of(SkeletalMaterial)), [])}

    def __init__(self, path):
        super().__init__(path)
        self._box = Box(Vector(-50.0, -50.0, 0.0), Vector(50.0, 50.0, 180.0))


class Package(Object):
    """A package file, loaded; its name is its path."""
    __slots__ = ()

    def get_name(self):
        return self._path


class AssetData(Struct):
    """What the registry knows of an asset without loading it."""
    __slots__ = ()
    PROPS = {"package_name": (name, Name()), "asset_name": (name, Name()),
             "asset_class_path": (struct_of(TopLevelAssetPath), TopLevelAssetPath())}


def add_engine_assets():
    """The engine's own content, as far as levels use it."""
    grey = Material("/Engine/BasicShapes/BasicShapeMaterial")
    slot = StaticMaterial(material_interface=grey, material_slot_name="BasicShapeMaterial")
    for shape, z in (("Cube", 50.0), ("Sphere", 50.0), ("Cylinder", 50.0), ("Cone", 50.0),
                     ("Plane", 0.0)):
        mesh = StaticMesh(f"/Engine/BasicShapes/{shape}")
        mesh._box = Box(Vector(-50.0, -50.0, -z), Vector(50.0, 50.0, z))
        mesh._p["static_materials"] = [slot]


def find_asset(path):
    """The asset at an object or package path, or None."""
    package, _, short = str(path).partition(".")
    asset = editor.assets.get(package)
    return asset if asset and short in ("", package.rsplit("/", 1)[-1]) else None
