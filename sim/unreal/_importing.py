"""Files into assets: import tasks for GLB and PNG.

The file's metres, y up and right-handed, become centimetres, z up and left-handed: (x, y, z) is
(x, z, y) * 100 here. That mirrors, and so does the editor's handedness: the triangles keep their order.
"""
import os

from sim.formats import glb, png

from ._editor import editor
from ._materials import Material
from ._meshes import StaticMaterial, StaticMesh
from ._object import Object
from ._packages import find_asset
from ._textures import Texture2D
from ._values import array_of, boolean, string


def to_editor(rows):
    return rows[:, (0, 2, 1)]


def _safe(name):
    return "".join(c if c.isalnum() or c in "_-" else "_" for c in name)


class AssetImportTask(Object):
    __slots__ = ()
    PROPS = {"filename": (string, ""), "destination_path": (string, ""),
             "destination_name": (string, ""), "replace_existing": (boolean, False),
             "automated": (boolean, False), "save": (boolean, False),
             "imported_object_paths": (array_of(string), [])}

    def __init__(self):
        super().__init__("/Engine/Transient.AssetImportTask_0")


def _import_glb(data, folder, name):
    """A static mesh per mesh of the file, in its own space, and a material per material."""
    file = glb.read(data)
    meshes = []
    for mesh in file.items("meshes"):   # all is read before anything is made
        parts = [(part.get("material"), glb.triangles_of(file, part))
                 for part in mesh["primitives"]]
        meshes.append((mesh.get("name", "Mesh"), [p for p in parts if p[1] is not None]))
    names = [_safe(m.get("name", f"Material_{i}")) for i, m in enumerate(file.items("materials"))]
    materials = [find_asset(f"{folder}/{n}") or Material(f"{folder}/{n}") for n in names]
    made = []
    for mesh_name, parts in meshes:
        asset = f"{folder}/{name if name and len(meshes) == 1 else _safe(mesh_name)}"
        mesh = find_asset(asset) or StaticMesh(asset)
        sections = []
        for _, (positions, normals, uvs, indices) in parts:
            section = {"positions": to_editor(positions) * 100, "indices": indices}
            if normals is not None:
                section["normals"] = to_editor(normals)
            if uvs is not None:
                section["uvs"] = uvs
            sections.append(section)
        mesh._set_sections(sections)
        mesh._set("static_materials", [StaticMaterial(
            material_interface=None if at is None else materials[at],
            material_slot_name="None" if at is None else names[at]) for at, _ in parts])
        made.append(mesh)
    return made + materials


def _import_png(data, folder, name):
    texture = Texture2D(f"{folder}/{name}")
    texture._set_pixels(png.read(data))
    return [texture]


READERS = {".glb": _import_glb, ".png": _import_png}


class AssetTools(Object):
    __slots__ = ()

    def import_asset_tasks(self, import_tasks):
        """A file that can't be read costs only its task: an error in the log, nothing imported."""
        for task in import_tasks:
            file, folder = task._p["filename"], task._p["destination_path"].rstrip("/")
            stem, ending = os.path.splitext(os.path.basename(file))
            name = task._p["destination_name"] or _safe(stem)
            exists = find_asset(f"{folder}/{name}")
            made = []
            try:
                if ending.lower() not in READERS:
                    raise ValueError("no importer for this kind of file")
                if not exists or task._p["replace_existing"]:
                    with open(file, "rb") as opened:
                        made = READERS[ending.lower()](opened.read(), folder, name)
            except (OSError, ValueError) as error:
                editor.log.append(("error", f"LogInterchangeEngine: Failed to import '{file}': {error}"))
            for asset in made:
                asset._dirtied()
                if task._p["save"]:
                    asset._save()
            task._set("imported_object_paths", [a._path for a in made])


class AssetToolsHelpers:
    @staticmethod
    def get_asset_tools():
        return AssetTools("/Engine/Transient.AssetTools")
