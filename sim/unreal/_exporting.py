"""Assets into files: a static mesh as GLB, with the material slots' names."""
import os

from sim.formats import glb

from ._enums import GLTFMaterialBakeMode, GLTFTextureImageFormat
from ._meshes import StaticMesh
from ._object import Object
from ._importing import to_editor
from ._values import Struct, boolean, enum_of, integer, struct_of


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


def glb_of(mesh):
    """The bytes of a file with the mesh at its origin: the editor's axes turned back, in metres."""
    builder, primitives, materials = glb.Builder(), [], []
    slots = mesh._p["static_materials"]
    for at, section in enumerate(mesh._sections()):
        attributes = {"POSITION": builder.add(to_editor(section["positions"]) / 100, bounds=True)}
        if "normals" in section:
            attributes["NORMAL"] = builder.add(to_editor(section["normals"]))
        if "uvs" in section:
            attributes["TEXCOORD_0"] = builder.add(section["uvs"])
        primitive = {"attributes": attributes, "indices": builder.add(section["indices"][:, 0])}
        if at < len(slots):
            primitive["material"] = len(materials)
            materials.append({"name": str(slots[at].material_slot_name)})
        primitives.append(primitive)
    name = mesh.get_name()
    builder.document |= {"scene": 0, "scenes": [{"nodes": [0]}], "nodes": [{"name": name, "mesh": 0}],
                         "meshes": [{"name": name, "primitives": primitives}]}
    if materials:
        builder.document["materials"] = materials
    return builder.bytes()


class Exporter(Object):
    """Base of what writes assets into files."""
    __slots__ = ()


class GLTFExporter(Exporter):
    __slots__ = ()

    @staticmethod
    def export_to_gltf(object, file_path, options, selected_actors):
        if not isinstance(object, StaticMesh) or not object._sections():
            return None
        try:
            os.makedirs(os.path.dirname(file_path) or ".", exist_ok=True)
            with open(file_path, "wb") as out:
                out.write(glb_of(object))
        except OSError:
            return None
        return GLTFExportMessages()
