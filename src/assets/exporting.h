// One asset into a file of the cache folder, at once, on the editor's main thread.
//
// The file's name carries the content key, so that what hasn't changed is exported once.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The glTF exporter's options, with materials baked small and textures as JPEG, or without both.
/// An option that this engine doesn't know is left as it is.
py::object _gltf_options(bool textures);

/// The mesh as a file; its full name. `phase`: "full", or "geo" for the geometry alone. GLB, or FBX
/// where the peer wants that or the engine has no glTF exporter, unless `glb_only`. What was
/// exported before is given again, its times renewed. RuntimeError if it can't be.
std::string _export_asset(const std::string &path, const std::string &phase = "full",
                          bool glb_only = false);

/// The export itself: into base + ".glb", else base + ".fbx". `path` names the asset in messages,
/// `t0` is when the work began, `err` says what failed before.
std::string _export_new(py::handle sm, const std::string &base, const std::string &phase,
                        bool fbx_first, bool glb_only, const std::string &path, double t0,
                        std::string err);

/// A material by itself as a GLB file; its full name. RuntimeError if it can't be.
std::string _export_material(const std::string &path);

void bind_exporting(py::module_ &m);

}  // namespace kestrix
