// Finding changes: the scan step walks all mirrored actors at a paced rate within a time budget,
// the fast scan looks at the selection.
#pragma once

#include "mirror/mirrored.h"

namespace kestrix {

/// Compares the selected actors, and reports the selection if the peer wants it.
void _scan_fast();

/// Walks on through the level within SCAN_BUDGET, or lists it anew. `dt`: seconds since the last
/// tick.
void _scan_step(double dt);

void bind_walk(py::module_ &m);

}  // namespace kestrix
