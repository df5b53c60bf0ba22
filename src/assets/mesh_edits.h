// A mesh that comes from the peer as a file.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Answers "mesh_done", behind the asset's entry; a failure is answered too, and raised.
void _h_mesh(const py::dict &m);

/// The work of it: no answer to a failure.
void _h_mesh_now(const py::dict &m);

void bind_mesh_edits(py::module_ &m);

}  // namespace kestrix
