// What the peer has asked for, exported in portions that leave the editor its frames.
//
// "eq": {"geo", "rest": deques of (path, phase), "set": the pairs in either}. Phases: "geo" (a
// mesh's geometry, goes first), "full" (a mesh with its materials), "mat" (a material by itself).
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// The queue; made if there is none.
py::dict _eq();

/// Queues an export, unless the same one waits already.
void _eq_add(py::handle p, py::handle ph);

/// Drops the exports of whole meshes that wait; geometry and materials stay.
void drop_full_exports();

/// Exports for 8 ms at most, begun exports apart: geometry one after the other, or one heavy export
/// per 0.25 s, none while the user works in the editor or the connection has output waiting.
void _export_tick(py::handle c);

/// Queues meshes: their geometry, then the whole, or what the peer's options leave of that.
void _h_need_mesh(const py::dict &m);

/// Queues materials.
void _h_need_mat(const py::dict &m);

void bind_export_queue(py::module_ &m);

}  // namespace kestrix
