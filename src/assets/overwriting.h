// Edits of meshes that the project owned before: never imported over. The asset is backed up once,
// the file becomes a temporary asset, and its geometry goes into LOD 0 of the asset, which stays
// unsaved until the user decides.
#pragma once

#include "link/host.h"

namespace kestrix {

/// Puts the file's geometry into the static mesh at `asset`; gives the mesh. RuntimeError if there
/// is none, and as _import_file. From the first try on the asset isn't offered back to the peer.
py::object _overwrite_asset(py::handle fn, py::handle asset);

/// The same, but for what is offered back.
py::object _overwrite_asset_now(py::handle fn, py::handle asset);

void bind_overwriting(py::module_ &m);

}  // namespace kestrix
