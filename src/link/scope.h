// The peer's scope: which actors it wants mirrored.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// Default cap of grass instances per export.
constexpr long long GRASS_MAX = 200000;

/// The stored scope map of a "scope" message's fields: "kinds" (kind to boolean), "folders" and
/// "exclude" (lists of folders without slashes at their ends), "radius" (editor units, 0.0 for no
/// limit) and "grass_max". TypeError or ValueError for fields that can't be read so, RuntimeError
/// for a radius that isn't finite.
py::dict _parse_scope(py::handle m);

/// The part of a scope that decides which actors are mirrored.
py::dict _scope_core(py::handle sc);

void bind_scope(py::module_ &m);

}  // namespace kestrix
