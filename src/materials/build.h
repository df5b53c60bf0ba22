// Materials from the peer's glTF files: by the editor's importer (GLB) or by the link itself (.gltf
// with image files), answered with the instance that the peer can assign.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// The folder of all material assets that the link makes, one folder below it for each material.
const std::string &material_root();

/// Whether the project renders with Substrate; true where the editor can't tell.
bool _substrate();

/// Imports a material's GLB file; gives (material, its textures). RuntimeError if there is none in
/// it, OSError if the file can't be copied.
py::tuple _glb_material(const py::dict &m, const std::string &base);

/// Builds a material of a .gltf file; gives (instance, its textures). RuntimeError if there is none
/// in it or the engine's parents are missing, OSError or ValueError if the file can't be read.
py::tuple _gltf_files_material(const py::dict &m, const std::string &base);

/// Answers "mat_done"; a failure is answered too, and raised.
void _h_mat(const py::dict &m);

void bind_material_build(py::module_ &m);

}  // namespace kestrix
