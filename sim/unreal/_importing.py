"""Files into assets: import tasks for GLB, FBX and images.

A GLB file's assets lie in a folder named like the file, below the destination, one for each kind in it:
a static mesh for each of its meshes, or for one with a skin a skeletal mesh, a skeleton and a sequence for
each action; a material instance and a texture for each of its. Object names keep letters, digits, _ and -;
slots keep the file's names. Meshes come in their own space: nodes that place them are left out, but for
bones. Missing normals are made smooth, so that the vertices stay as they are. Without a skin, morph
targets are left out.

All meshes of an FBX file, placed by their nodes, become one static mesh called like the file, straight in
the destination, with a slot for each material.
"""
import collections
import dataclasses
import os

import numpy as np

from sim.formats import fbx, gltf, images
from sim.formats.places import below

from ._animation import AnimSequence, Skeleton
from ._axes import moved, placed, swapped, turned
from ._editor import editor
from ._enums import TextureCompressionSettings
from ._material_files import COLOURS, parameters_of, set_parameters
from ._materials import MaterialInstanceConstant
from ._meshes import TARGET, SkeletalMaterial, SkeletalMesh, StaticMaterial, StaticMesh
from ._object import Object, type_of
from ._packages import Asset, find_asset
from ._play import nothing, refused_in_play
from ._textures import Texture2D
from ._values import array_of, boolean, string

SCALE = 100.0
MOST = 1 << 24      # vertices of an FBX file, all its copies counted
LONGEST = 150       # bytes of a name: it becomes a file's


def _safe(name):
    safe = "".join(c if c.isalnum() or c in "_-" else "_" for c in name)
    return safe.encode()[:LONGEST].decode(errors="ignore")


def _stem(file):
    return os.path.splitext(os.path.basename(file))[0]


class AssetImportTask(Object):
    __slots__ = ()
    PROPS = {"filename": (string, ""), "destination_path": (string, ""),
             "destination_name": (string, ""), "replace_existing": (boolean, False),
             "automated": (boolean, False), "save": (boolean, False),
             "imported_object_paths": (array_of(string), [])}

    def __init__(self):
        super().__init__("/Engine/Transient.AssetImportTask_0")


SUBFOLDERS = {StaticMesh: "/StaticMeshes", SkeletalMesh: "/SkeletalMeshes", Skeleton: "/SkeletalMeshes",
              AnimSequence: "/Animations", MaterialInstanceConstant: "/Materials", Texture2D: "/Textures"}


class Shelf:
    """Where the assets of one file go: each has its name, with a number behind it where an asset of
    another kind or of the same file is in the way. `made` are those to be filled: new ones, and old
    ones if `replace`."""

    def __init__(self, folder, replace, sorted_by_kind=False):
        self.folder, self.replace, self.made = folder, replace, []
        self._subfolders = SUBFOLDERS if sorted_by_kind else {}
        self._numbers = collections.Counter()

    def put(self, kind, name):
        safe, folder = _safe(name), self.folder + self._subfolders.get(kind, "")
        while True:
            number = self._numbers[safe.lower(), folder]
            self._numbers[safe.lower(), folder] += 1
            path = f"{folder}/{safe}" + (f"_{number}" if number else "")
            asset = find_asset(path)
            if asset is None or type(asset) is kind:
                break
        if asset is None or self.replace:
            asset = asset or kind(path)
            self.made.append(asset)
        return asset


def _warn(file, what):
    editor.log.append(("warning", f"LogInterchangeEngine: '{file}': {what}"))


def smooth_normals(positions, indices):
    """A unit normal a vertex, in the editor's axes: the mean of its triangles', by their areas."""
    corners = indices.reshape(-1, 3)
    a, b, c = (positions[corners[:, i]].astype(float) for i in range(3))
    normals = np.zeros((len(positions), 3))
    for i in range(3):
        np.add.at(normals, corners[:, i], np.cross(c - a, b - a))
    length = np.linalg.norm(normals, axis=1, keepdims=True)
    return np.where(length > 0, normals / np.where(length > 0, length, 1), (0, 0, 1))


def _section(part, target_names):
    arrays = dict(part.arrays)
    arrays["positions"] = swapped(arrays["positions"]).astype(np.float32) * np.float32(SCALE)
    arrays["normals"] = (swapped(arrays["normals"]) if "normals" in arrays
                         else smooth_normals(arrays["positions"], arrays["indices"]))
    return arrays | {TARGET + name: swapped(moves) * SCALE
                     for name, moves in zip(target_names, part.targets)}


def _baked(part, matrix):
    """The part where its node puts it; a mirror turns the triangles."""
    arrays, turn = dict(part.arrays), matrix[:3, :3]
    arrays["positions"] = (arrays["positions"] @ turn.T + matrix[:3, 3]).astype(np.float32)
    mirrored = np.linalg.det(turn) < 0
    if mirrored:
        arrays["indices"] = arrays["indices"].reshape(-1, 3)[:, ::-1].reshape(-1)
    if "normals" in arrays:
        normals = arrays["normals"] @ np.linalg.pinv(turn)
        length = np.linalg.norm(normals, axis=1, keepdims=True)
        arrays["normals"] = normals / np.where(length > 0, length, 1)
    return gltf.Part(part.material, arrays, [])


def _fill_mesh(mesh, source, materials, names, skeleton):
    key, slot_of = (("materials", SkeletalMaterial) if skeleton else ("static_materials", StaticMaterial))
    kept = {str(slot.material_slot_name): slot.material_interface for slot in mesh._p[key]}
    slots = []
    for part in source.parts:
        name = "None" if part.material is None else names[part.material]
        material = None if part.material is None else materials[part.material]
        slots.append(slot_of(material_interface=kept.get(name) or material, material_slot_name=name))
        if skeleton:
            slots[-1]._set("imported_material_slot_name", name)
    mesh._set_sections([_section(p, source.target_names if skeleton else ()) for p in source.parts])
    mesh._set(key, slots)
    if skeleton:
        mesh._set("skeleton", skeleton)


def _tracks(animation, skin, meshes):
    """(first time, last time, tracks) of what an animation moves of a skin, in the editor's axes."""
    joints, tracks = {node: i for i, node in enumerate(skin.nodes)}, {}
    targets = {node: mesh.target_names for mesh in meshes for node in mesh.nodes}
    for (node, path), (times, rows) in animation.tracks.items():
        if path == "weights" and len(targets.get(node, ())) == rows.shape[1]:
            tracks |= {(name, "weight"): (times, rows[:, i]) for i, name in enumerate(targets[node])}
        elif node in joints and path != "weights":
            hung = skin.hung[joints[node]]
            rows = rows if hung is None else below(hung, path, rows)
            rows = turned(rows) if path == "rotation" else swapped(rows)
            tracks[skin.names[joints[node]], path] = times, rows * (SCALE if path == "translation" else 1)
    ends = [times[at] for times, _ in tracks.values() for at in (0, -1)]
    return (min(ends), max(ends), tracks) if tracks else (0.0, 0.0, {})


def _read_images(file, content):
    """The pixels of each image; None, and a warning, for those that can't be read."""
    found = []
    for name, data, kind in content.images:
        pixels = None
        try:
            if data is None:
                raise ValueError("it isn't in the file")
            if kind != images.kind_of(data):
                raise ValueError(f"it isn't of the kind {kind}")
            pixels = images.read(data)
        except ValueError as error:
            _warn(file, f"image '{name}' is left out: {error}")
        found.append(pixels)
    return found


def _import_glb(file, data, folder, name, replace):
    shelf = Shelf(f"{folder}/{_safe(_stem(file))}", replace, sorted_by_kind=True)
    return _import_content(file, gltf.read(data), shelf, name)


def import_over(asset, file):
    """Has a GLB file replace an asset, its other assets beside it; those made. ValueError or OSError if it
    can't be read."""
    folder, _, name = asset._package().rpartition("/")
    with open(file, "rb") as opened:
        return _import_content(file, gltf.read(opened.read()), Shelf(folder, True), name)


def _import_fbx(file, data, folder, name, replace):
    content = gltf.read(fbx.to_glb(data))
    whole, known = gltf.Mesh(name or _stem(file), [], []), {}
    if sum(len(p.arrays["positions"]) * len(m.nodes) for m in content.meshes for p in m.parts) > MOST:
        raise ValueError(f"more than {MOST} vertices")
    for mesh in content.meshes:
        for matrix in (gltf.world(content, node, known) for node in mesh.nodes):
            whole.parts += [_baked(part, matrix) for part in mesh.parts]
    content = dataclasses.replace(content, meshes=[whole], skins=[], animations=[])
    return _import_content(file, content, Shelf(folder, replace), name)


def _read_materials(content):
    """The parameters of each material, and the indices of the images that they use."""
    try:
        given = [parameters_of(m, content.textures, content.samplers) for m in content.materials]
        used = {i for _, sources, _ in given for i in sources.values() if i is not None}
        if not all(0 <= i < len(content.images) for i in used):
            raise ValueError("a texture's image isn't there")
    except (TypeError, KeyError, AttributeError, IndexError) as error:
        raise ValueError(f"a material has a value of the wrong kind ({error!r})") from error
    return given, used


def _put_sequences(file, content, sources, skeletons, shelf):
    """(sequence, skeleton, length, tracks) of each action, one for each skeleton that it moves."""
    found = []
    for animation in content.animations:
        done = len(found)
        for skin, skeleton in skeletons.items():
            first, last, tracks = _tracks(animation, content.skins[skin],
                                          [m for m in sources if m.skin == skin])
            if tracks:
                found.append((shelf.put(AnimSequence, animation.name), skeleton, last - first,
                              {key: (times - first, rows) for key, (times, rows) in tracks.items()}))
        if len(found) == done:
            _warn(file, f"the animation '{animation.name}' is left out: it moves no bone")
    return found


def _import_content(file, content, shelf, name):
    """The assets made, meshes first. All of the file has been read and names are given before the first
    is filled."""
    given, used = _read_materials(content)
    pixels = _read_images(file, content)
    sources = [mesh for mesh in content.meshes if mesh.parts]
    if not sources and not content.materials:
        _warn(file, "there is nothing in it to import")
    meshes = [shelf.put(StaticMesh if mesh.skin is None else SkeletalMesh,
                        name if name and len(sources) == 1 else mesh.name) for mesh in sources]
    skeletons = {}
    for mesh, source in zip(meshes, sources):
        if source.skin is not None and source.skin not in skeletons:
            skeletons[source.skin] = shelf.put(Skeleton, mesh.get_name() + "_Skeleton")
        elif source.skin is None and source.target_names:
            _warn(file, f"the morph targets of '{source.name}' are left out: it has no skin")
    sequences = _put_sequences(file, content, sources, skeletons, shelf)
    names = [m["name"] for m in content.materials]
    materials = [shelf.put(MaterialInstanceConstant, n) for n in names]
    textures = [None if rows is None else shelf.put(Texture2D, image[0])
                for image, rows in zip(content.images, pixels)]

    fresh = set(map(id, shelf.made))
    colours = {index for _, found, _ in given for key, index in found.items() if key in COLOURS}
    normals = {index for _, found, _ in given for key, index in found.items() if "Normal" in key}
    for i, texture in enumerate(textures):
        if id(texture) in fresh:
            texture._set_pixels(pixels[i])
            texture._set("srgb", (i in colours or i not in used) and i not in normals)
            texture._set("compression_settings", TextureCompressionSettings.TC_NORMALMAP if i in normals
                         else TextureCompressionSettings.TC_DEFAULT)
    for instance, document, (values, found, word) in zip(materials, content.materials, given):
        if id(instance) in fresh:
            set_parameters(instance, instance._p["parent"] is None, document, word, values,
                           {key: textures[i] for key, i in found.items() if i is not None and textures[i]})
    for index, skeleton in skeletons.items():
        skin = content.skins[index]
        if id(skeleton) in fresh:
            skeleton._set_bones(skin.names, skin.parents, placed(skin.pose, SCALE),
                                moved(skin.inverse_bind, SCALE))
    for sequence, skeleton, length, tracks in sequences:
        if id(sequence) in fresh:
            sequence._set_tracks(skeleton, length, tracks)
    for mesh, source in zip(meshes, sources):
        if id(mesh) in fresh:
            _fill_mesh(mesh, source, materials, names, skeletons.get(source.skin))
    return shelf.made


def _import_image(file, data, folder, name, replace):
    pixels = images.read(data)
    shelf = Shelf(folder, replace)
    shelf.put(Texture2D, name or _stem(file))
    for made in shelf.made:
        made._set_pixels(pixels)
        made._set("srgb", pixels.shape[-1] > 1)     # its guess, whatever was set before
    return shelf.made


READERS = {".glb": _import_glb, ".fbx": _import_fbx, ".png": _import_image, ".jpg": _import_image,
           ".jpeg": _import_image}


class AssetTools(Object):
    __slots__ = ()

    def import_asset_tasks(self, import_tasks):
        """A file that can't be read costs only its task: an error in the log, nothing imported."""
        for task in import_tasks:
            file, folder = task._p["filename"], task._p["destination_path"].rstrip("/")
            ending = os.path.splitext(file)[1].lower()
            made = []
            try:
                if ending not in READERS:
                    raise ValueError("no importer for this kind of file")
                with open(file, "rb") as opened:
                    made = READERS[ending](file, opened.read(), folder, task._p["destination_name"],
                                           task._p["replace_existing"])
            except (OSError, ValueError) as error:
                editor.log.append(("error", f"LogInterchangeEngine: Failed to import '{file}': {error}"))
            for asset in made if task._p["save"] else ():
                asset._save()
            task._set("imported_object_paths", [a._path for a in made])


    @refused_in_play(nothing)
    def create_asset(self, asset_name, package_path, asset_class, factory, calling_context=""):
        """A new asset, unsaved; None, and an error in the log, where there is one or can be none."""
        path = f"{str(package_path).rstrip('/')}/{asset_name}"
        kind = type_of(asset_class)
        if find_asset(path) is not None or not issubclass(kind, Asset):
            editor.log.append(("error", f"LogAssetTools: {path} could not be created"))
            return None
        asset = kind(path)
        asset._dirtied()
        return asset


class AssetToolsHelpers:
    @staticmethod
    def get_asset_tools():
        return AssetTools("/Engine/Transient.AssetTools")
