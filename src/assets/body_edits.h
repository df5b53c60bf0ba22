// What the peer changes of collision and physics.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Collision of one of the link's own meshes; answered by its entry.
void _h_coll(const py::dict &m);

/// Physics of an actor, as one undo step.
void _h_phys(const py::dict &m);

void bind_body_edits(py::module_ &m);

}  // namespace kestrix
