// Materials on slots: of a mesh that the link has made, or of an actor.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// The slot of that name, or whose material has it, else `index`; None if the mesh has neither.
py::object _slot_index(py::handle sm, py::handle name, py::handle index);

/// Assigns the materials of "slots", what differs alone: to the mesh "asset" under LINK_ROOT, or to
/// the actor "id", in one undo step. No answer.
void _h_assign(const py::dict &m);

void bind_assignment(py::module_ &m);

}  // namespace kestrix
