// Moves from the peer: a drag streams without undo records and becomes one undo step when it
// settles.
//
// State: "touched", id -> [transform at the start of the drag, perf_counter time of the latest
// move], the one that moved last at the end.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Puts an actor there, without sweep, with teleport, and without an undo record.
void set_transform(py::handle actor, py::handle transform);

/// Moves an actor without an undo record, and takes the transform that the editor made of it into
/// the mirror; false if there is no such actor. Landscapes and foliage stay where they are. Raises
/// for a malformed transform, and then nothing has changed.
bool _apply_xf(py::handle aid, py::handle xf);

/// Makes one undo step of the drags whose last move is more than 0.35 seconds old, or of all of
/// them: from where the actors stood to where they ended.
void _drag_settle(bool force);

/// Moves actors, parents before what is attached to them; answers "unknown" with the ids of those
/// that aren't there. A malformed item doesn't cost the others: it raises behind them.
void _h_xf(const py::dict &m);

/// The drag is over.
void _h_drag_end(const py::dict &m);

void bind_drags(py::module_ &m);

}  // namespace kestrix
