// What the editor's importer leaves stale when it imports a material's GLB file over a former one.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The JSON of a GLB file, None if the file is no GLB. OSError or ValueError if it can't be read.
py::object _glb_json(const std::string &path);

/// Sets parent, overrides, factors and the five chief textures of an imported instance as the GLB
/// file has them for the material of its name, else for its first. Less than a build: nothing is
/// cleared first, extensions stay as the importer made them. `texs`: the imported textures.
void _apply_gltf_params(py::handle mi, const std::string &glb_path, const py::list &texs);

void bind_importer_repair(py::module_ &m);

}  // namespace kestrix
