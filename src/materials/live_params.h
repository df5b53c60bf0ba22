// Changes of a material without a build: numbers and colours, a texture's pixels, and whether the
// materials that the peer remembers still exist.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Sets numbers and colours on an instance, unsaved; what it doesn't offer is passed over. No
/// answer.
void _h_mat_params(const py::dict &m);

/// Imports an image over a texture, which keeps its settings and stays unsaved. Always answers
/// "tex_done".
void _h_tex(const py::dict &m);

/// Answers "mat_known" with the names whose asset exists.
void _h_mat_known(const py::dict &m);

void bind_live_params(py::module_ &m);

}  // namespace kestrix
