// Meshes that change in the editor after the peer has their entries: they are offered again, under
// a new key.
#pragma once

#include "link/host.h"

namespace kestrix {

/// Looks, every 2 seconds at most, which unsaved packages hold meshes that the peer has. A mesh
/// counts as changed when its package turns unsaved, and then whenever its shape (bounds, vertices,
/// triangles) changes. What the link or the peer has made is left out. `now`: perf_counter seconds.
void _dirty_meshes_tick(double now);

/// The editor's event: an asset was imported anew from its file. Never raises.
void _on_reimport(py::handle obj);

void bind_edited_meshes(py::module_ &m);

}  // namespace kestrix
