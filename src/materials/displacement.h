// Height maps on materials. Only taking one off is here so far.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The parent of all instances with a height map, which the link makes itself.
const std::string &displacement_master();

/// Takes a former height map off the instance: its parent, the scaling override, the texture, and
/// with `cleanup` the textures in the material's folder for heights. Gives the list of height
/// textures in use.
py::list _apply_displacement(py::handle mi, py::handle disp, const std::string &base, bool cleanup);

/// Whether the instance stands on the displacement master.
bool _on_disp_master(py::handle mi);

void bind_displacement(py::module_ &m);

}  // namespace kestrix
