"""Packages: assets as files under the project's Content folder.

A file is a zip: the asset's class, properties and metadata as JSON, its geometry or pixels as pieces of
bytes. An asset of a project that was saved before is loaded when somebody asks for it. Engine assets
have no files.
"""
import contextlib
import enum
import json
import os
import sys
import zipfile

from ._editor import editor
from ._object import Object, Package
from ._values import Name, Struct, Text, TopLevelAssetPath, boolean, name, struct_of


def package_of(path):
    return str(path).split(".", 1)[0]


def short_name(package):
    return package.rsplit("/", 1)[-1]


class Asset(Object):
    """An object with a package of its own. `_pieces` is its bulk: name -> bytes, never changed in
    place, so that undo keeps a reference."""
    __slots__ = ("_pieces", "_tags")

    def __init__(self, path):
        package = package_of(path)
        super().__init__(f"{package}.{short_name(package)}")
        self._pieces = {}
        self._tags = {}
        editor.assets[package] = self

    def _file(self):
        package = self._package()
        return file_of(package) if package.startswith("/Game/") else None

    def _dirtied(self):
        editor.dirty[self._package()] = self

    def _state(self):
        return dict(self._p), dict(self._pieces)

    def _restore(self, state):
        p, pieces = state
        self._p, self._pieces = dict(p), dict(pieces)
        self._dirtied()

    def _references(self):
        """The assets that it names."""
        return list(_assets_in([v for k, v in self._p.items() if k in self._schema]))

    def _take(self, other):
        """Become what another asset of the class is."""
        self._p, self._pieces, self._tags = dict(other._p), dict(other._pieces), dict(other._tags)
        self._dirtied()

    def _save(self):
        """False, and an error in the log, if the disk refuses."""
        file = self._file()
        saved = not file or written(file, self._write)
        if saved:
            editor.dirty.pop(self._package(), None)
        return saved

    def _values(self):
        """Its properties as plain JSON."""
        return {k: encoded(v) for k, v in self._p.items() if k in self._schema}

    def _fill(self, values):
        fill(self, values)

    def _write(self, file):
        head = {"class": type(self).__name__, "tags": self._tags,
                "references": sorted({a._package() for a in self._references()}),
                "props": self._values()}
        with zipfile.ZipFile(file, "w") as out:
            out.writestr(zipfile.ZipInfo("asset.json"), json.dumps(head))
            for key, piece in self._pieces.items():
                out.writestr(zipfile.ZipInfo(key), piece)

    def _load(self, file):
        """Take everything from the file, as it was saved."""
        with zipfile.ZipFile(file) as saved:
            self._pieces = {n: saved.read(n) for n in saved.namelist() if n != "asset.json"}
            head = json.loads(saved.read("asset.json"))
        self._tags = head["tags"]
        self._fill(head["props"])
        editor.dirty.pop(self._package(), None)

    def _delete(self):
        """Gone, whatever names it; False if the disk refuses."""
        file = self._file()
        try:
            if file and os.path.exists(file):
                os.remove(file)
        except OSError as error:
            editor.log.append(("error", f"LogFileManager: {file} was not deleted: {error}"))
            return False
        self._valid = False
        editor.assets.pop(self._package(), None)
        editor.dirty.pop(self._package(), None)
        return True


class AssetData(Struct):
    """What the registry knows of an asset without loading it."""
    __slots__ = ()
    PROPS = {"package_name": (name, Name()), "asset_name": (name, Name()),
             "asset_class_path": (struct_of(TopLevelAssetPath), TopLevelAssetPath())}


def external_package(level, actor):
    """The package of an actor that has a file of its own."""
    return f"/Game/__ExternalActors__{level.removeprefix('/Game')}/{actor}"


class AssetRegistryDependencyOptions(Struct):
    """What counts as a reference."""
    __slots__ = ()
    PROPS = {f"include_{kind}": (boolean, False) for kind in (
        "soft_package_references", "hard_package_references", "searchable_names",
        "soft_management_references", "hard_management_references")}

    def __init__(self, include_soft_package_references=False, include_hard_package_references=False,
                 include_searchable_names=False, include_soft_management_references=False,
                 include_hard_management_references=False):
        super().__init__(**{k: v for k, v in locals().items() if k in self._schema})


def written(file, write):
    """Have `write(name)` write a file beside the old one, and put it in its place. False, and an error
    in the log, if the disk refuses; then the old one stays as it is."""
    beside = file + ".tmp"
    try:
        os.makedirs(os.path.dirname(file), exist_ok=True)
        write(beside)
        os.replace(beside, file)
    except OSError as error:
        with contextlib.suppress(OSError):
            os.remove(beside)
        editor.log.append(("error", f"LogSavePackage: {file} was not saved: {error}"))
        return False
    return True


def file_of(package):
    return f"{editor.project_dir}Content/{package[6:]}.uasset"


def level_file(package):
    return f"{editor.project_dir}Content/{package[6:]}.umap"


def level_text(package):
    """What was saved of a level."""
    text = editor.levels[package]
    if text is None:
        with open(level_file(package), encoding="utf-8") as file:
            text = file.read()
    return text


def _head_of(package):
    with zipfile.ZipFile(file_of(package)) as saved:
        return json.loads(saved.read("asset.json"))


def find_packages():
    """Note the asset files of the project; None stands for one that isn't loaded."""
    content = f"{editor.project_dir}Content"
    for folder, _, files in os.walk(content):
        for file in files:
            if file.endswith(".uasset"):
                sub = os.path.relpath(os.path.join(folder, file[:-7]), content)
                editor.assets.setdefault("/Game/" + sub.replace(os.sep, "/"), None)


def find_asset(path):
    """The asset at an object or package path, loaded if it isn't yet; None if there is none."""
    package, _, short = str(path).partition(".")
    if package not in editor.assets and package.startswith("/InterchangeAssets/"):
        from ._gltf_parents import engine_material
        engine_material(package)
    if package not in editor.assets or short not in ("", short_name(package)):
        return None
    if editor.assets[package] is None:
        kind = getattr(sys.modules["unreal"], _head_of(package)["class"])
        made = kind(package)    # in its place before it is filled: assets may name each other
        made._load(file_of(package))
    return editor.assets[package]


def reload(asset):
    """Drop what wasn't saved."""
    asset._p = dict(asset._defaults)
    asset._load(asset._file())


def class_of(package):
    asset = editor.assets[package]
    return type(asset).__name__ if asset else _head_of(package)["class"]


def referencers(package, soft):
    """Packages that name this one on disk, sorted: assets, levels, actors with files of their own. Those
    that name it without loading it count if `soft`."""
    named = f'"{package}.{short_name(package)}"'
    found = {other for other in editor.assets if other.startswith("/Game/")
             and os.path.exists(file_of(other)) and package in _head_of(other)["references"]}
    for level, text in ((level, level_text(level)) for level in editor.levels):
        data = json.loads(text) if named in text else {"actors": ()}
        found |= {external_package(level, actor["name"]) if data["partitioned"] else level
                  for actor in data["actors"] if named in json.dumps(actor)}
    if soft:
        found |= {other for other, names in editor.soft_references.items() if package in names}
    return sorted(found - {package})


def _assets_in(value):
    if isinstance(value, Asset):
        yield value
    elif isinstance(value, Struct):
        yield from _assets_in(list(value._p.values()))
    elif isinstance(value, (list, tuple)):
        for item in value:
            yield from _assets_in(item)


# Values as plain JSON, or {type: content} for what JSON has no word for.

def encoded(value):
    if isinstance(value, Object):
        return {"Object": value._path}
    if isinstance(value, enum.Enum):
        return {type(value).__name__: value.name}
    if isinstance(value, (list, tuple)):
        return [encoded(v) for v in value]
    if isinstance(value, (Name, Text)):
        return {type(value).__name__: str(value)}
    if isinstance(value, Struct):
        return {type(value).__name__: {k: encoded(v) for k, v in value._p.items()}}
    if hasattr(value, "to_tuple"):
        return {type(value).__name__: encoded(value.to_tuple())}
    return value


def decoded(value):
    if isinstance(value, list):
        return [decoded(v) for v in value]
    if not isinstance(value, dict):
        return value
    (kind, content), = value.items()
    if kind == "Object":
        return find_asset(content)
    kind = getattr(sys.modules["unreal"], kind)
    if issubclass(kind, enum.Enum):
        return kind[content]
    if issubclass(kind, Struct):
        made = kind()
        fill(made, content)
        return made
    return kind(*decoded(content)) if isinstance(content, list) else kind(content)


def fill(obj, props):
    for key, value in props.items():
        obj._set(key, decoded(value))
