// Old exchange files go from the cache folder when the link starts.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// Removes the files that nobody has written, or fetched anew, for PRUNE_DAYS. What can't be
/// removed stays without a word; folders stay, and so do the files of landscapes and grass.
void _prune_cache();

void bind_cache_pruning(py::module_ &m);

}  // namespace kestrix
