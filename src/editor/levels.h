// Level switching from Blender: what levels the project has, and opening one of them.
//
// A level is named by its package path: "/Game/Maps/Forest".
#pragma once

#include "link/host.h"

namespace kestrix {

/// Package path of the open level; "" if there is no world.
std::string _level_pkg();

/// Answers "levels": the project's levels, and the open one.
void _h_need_levels(const py::dict &m);

/// Opens the level "path" and answers "level_opened". Unsaved changes of the open level are never
/// lost silently: without "save" or "discard" the answer tells how many packages have some, and
/// nothing is changed. A load or save that raises is reported by the dispatcher in place of an
/// answer.
void _h_open_level(const py::dict &m);

void bind_levels(py::module_ &m);

}  // namespace kestrix
