"""Assets into files: static and skeletal meshes, and materials (on a plane of a metre), as GLB; static
meshes as FBX.

A mesh stands at its origin; its materials are called like its slots. A skeletal mesh takes its skin and
bones along, no sequences.
"""
import os

import numpy as np

from sim.formats import fbx, glb, images

from ._axes import moved, placed, swapped
from ._editor import editor
from ._enums import GLTFMaterialBakeMode, GLTFTextureImageFormat
from ._material_files import file_material
from ._materials import MaterialInterface
from ._meshes import TARGET, Mesh, SkeletalMesh, StaticMesh, box_section
from ._object import Object
from ._values import Struct, boolean, enum_of, integer, object_of, string, struct_of


class GLTFMaterialBakeSize(Struct):
    __slots__ = ()
    PROPS = {"x": (integer, 1024), "y": (integer, 1024), "auto_detect": (boolean, False)}


class GLTFExportOptions(Object):
    __slots__ = ()
    PROPS = {"bake_material_inputs": (enum_of(GLTFMaterialBakeMode), GLTFMaterialBakeMode.SIMPLE),
             "texture_image_format": (enum_of(GLTFTextureImageFormat), GLTFTextureImageFormat.JPEG),
             "export_source_model": (boolean, False), "export_vertex_colors": (boolean, False),
             "export_lights": (boolean, True), "export_cameras": (boolean, True),
             "default_material_bake_size": (struct_of(GLTFMaterialBakeSize), GLTFMaterialBakeSize())}

    def __init__(self):
        super().__init__("/Engine/Transient.GLTFExportOptions_0")


class GLTFExportMessages(Struct):
    __slots__ = ()


class _Writer(glb.Builder):
    """One file, by the user's options; `scale` is that of its unit to a centimetre."""

    def __init__(self, options, scale):
        super().__init__()
        self._scale = np.float32(scale)
        p = options._p
        self._colours = p["export_vertex_colors"]
        self._textured = (p["texture_image_format"] is not GLTFTextureImageFormat.NONE
                          and p["bake_material_inputs"] is not GLTFMaterialBakeMode.DISABLED)
        self._jpeg = p["texture_image_format"] is GLTFTextureImageFormat.JPEG
        self._size = p["default_material_bake_size"]
        self._textures = {}

    def texture(self, asset):
        if not self._textured or not asset._pixels().size:
            return None
        if asset not in self._textures:
            data, kind = images.encoded(asset._pixels(), self._size.x, self._size.y, self._jpeg)
            image = self.add("images", {"name": asset.get_name(), "bufferView": self.data(data),
                                        "mimeType": kind})
            self._textures[asset] = self.add("textures", {"source": image})
        return self._textures[asset]

    def primitive(self, section, material, name):
        positions = swapped(section["positions"]) * self._scale
        attributes = {"POSITION": self.array(positions, glb.VERTICES, bounds=True)}
        if len(section.get("normals", ())):
            normals = swapped(section["normals"]).astype(float)
            length = np.linalg.norm(normals, axis=1, keepdims=True)
            normals = np.where(length > 0, normals / np.where(length > 0, length, 1), (0, 1, 0))
            attributes["NORMAL"] = self.array(normals.astype(np.float32), glb.VERTICES)
        for i in range(8):
            if not len(section.get(f"uvs{i or ''}", ())):
                break       # sets are numbered without a gap
            attributes[f"TEXCOORD_{i}"] = self.array(section[f"uvs{i or ''}"], glb.VERTICES)
        if self._colours and len(section.get("colours", ())):
            attributes["COLOR_0"] = self.array(np.clip(section["colours"], 0, 1), glb.VERTICES)
        if len(section.get("joints", ())):
            attributes["JOINTS_0"] = self.array(section["joints"], glb.VERTICES)
            attributes["WEIGHTS_0"] = self.array(section["weights"], glb.VERTICES)
        targets = [{"POSITION": self.array(swapped(rows) * self._scale, glb.VERTICES, bounds=True)}
                   for key, rows in section.items() if key.startswith(TARGET)]
        return {"attributes": attributes, "indices": self.array(section["indices"], glb.INDICES),
                "material": self.add("materials", file_material(material, name, self.texture))} | (
            {"targets": targets} if targets else {})

    def mesh(self, name, sections, slots):
        """Sections without triangles are left out."""
        primitives = [self.primitive(section, *slots[i] if i < len(slots) else (None, "None"))
                      for i, section in enumerate(sections) if len(section["indices"])]
        targets = [key[len(TARGET):] for key in sections[0] if key.startswith(TARGET)]
        mesh = {"name": name, "primitives": primitives} | (
            {"extras": {"targetNames": targets}} if targets else {})
        return self.add("nodes", {"name": name, "mesh": self.add("meshes", mesh)})

    def skin(self, skeleton):
        """(the skin's index, the node that the bones hang on)."""
        names, parents = skeleton._p["bone_names"], skeleton._p["bone_parents"]
        first = len(self.document["nodes"])
        for name, row in zip(names, placed(skeleton._pose(), self._scale).tolist()):
            self.add("nodes", {"name": name, "translation": row[:3], "rotation": row[3:7],
                               "scale": row[7:]})
        for i, parent in enumerate(parents):
            if parent >= 0:
                self.document["nodes"][first + parent].setdefault("children", []).append(first + i)
        roots = [first + i for i, parent in enumerate(parents) if parent < 0]
        root = self.add("nodes", {"name": skeleton.get_name(), "children": roots})
        bind = moved(skeleton._bind(), self._scale).transpose(0, 2, 1).reshape(-1, 16)
        return self.add("skins", {"name": skeleton.get_name(), "inverseBindMatrices": self.array(bind),
                                  "joints": list(range(first, first + len(names)))}), root


def glb_of(asset, options, scale=0.01):
    """The bytes of a file; ValueError for what has no geometry or is no such asset."""
    writer = _Writer(options, scale)
    if isinstance(asset, MaterialInterface):
        name, slots, sections = "Plane", [(asset, asset.get_name())], [
            box_section((-50, -50, 0), (50, 50, 0))]
        sections = [{key: np.array(rows, np.uint32 if key == "indices" else np.float32).reshape(
            len(rows), -1) for key, rows in sections[0].items()}]
    elif isinstance(asset, Mesh):
        name, sections = asset.get_name(), asset._sections()
        rows = asset._p["materials" if isinstance(asset, SkeletalMesh) else "static_materials"]
        slots = [(slot.material_interface, str(slot.material_slot_name)) for slot in rows]
    else:
        sections = []
    if not any(len(section["indices"]) for section in sections):
        raise ValueError("there is nothing in it to export")
    roots = [writer.mesh(name, sections, slots)]
    skeleton = asset._p.get("skeleton")
    if skeleton and all(len(s.get("joints", ())) for s in sections if len(s["indices"])):
        writer.document["nodes"][0]["skin"], root = writer.skin(skeleton)
        roots.append(root)
    writer.document |= {"scene": 0, "scenes": [{"nodes": roots}]}
    return writer.bytes()


def _write(file, make):
    """Whether what `make()` gives is now in the file; if not, the log says why."""
    try:
        data = make()
        os.makedirs(os.path.dirname(file) or ".", exist_ok=True)
        with open(file, "wb") as out:
            out.write(data)
    except (OSError, ValueError) as error:
        editor.log.append(("error", f"LogExporter: Failed to export '{file}': {error}"))
        return False
    return True


class Exporter(Object):
    """Base of what writes assets into files."""
    __slots__ = ()

    @staticmethod
    def run_asset_export_task(task):
        """FBX, in centimetres, of a static mesh."""
        asset, file, options = task._p["object"], task._p["filename"], GLTFExportOptions()
        options._set("export_vertex_colors", True)
        options._set("texture_image_format", GLTFTextureImageFormat.NONE)

        def make():
            if not file.lower().endswith(".fbx") or not isinstance(asset, StaticMesh):
                raise ValueError("no exporter for it")
            return fbx.from_glb(glb_of(asset, options, 1.0))
        return _write(file, make)


class AssetExportTask(Object):
    __slots__ = ()
    PROPS = {"object": (object_of(Object), None), "filename": (string, ""), "automated": (boolean, False),
             "prompt": (boolean, True), "replace_identical": (boolean, False),
             "exporter": (object_of(Exporter), None), "options": (object_of(Object), None)}

    def __init__(self):
        super().__init__("/Engine/Transient.AssetExportTask_0")


class FbxExportOption(Object):
    __slots__ = ()
    PROPS = {"collision": (boolean, True), "level_of_detail": (boolean, True)}

    def __init__(self):
        super().__init__("/Engine/Transient.FbxExportOption_0")


class GLTFExporter(Exporter):
    __slots__ = ()

    @staticmethod
    def export_to_gltf(object, file_path, options, selected_actors):
        done = _write(file_path, lambda: glb_of(object, options or GLTFExportOptions()))
        return GLTFExportMessages() if done else None
