// The one loop: what the link does after every Slate tick of the editor.
//
// A tick is skipped while another one runs, while the editor can't be touched, and for a second
// Slate tick in one engine frame. Whatever fails is counted and reported, never raised into the
// editor.
#pragma once

#include "session/server.h"

namespace kestrix {

/// The editor's post-tick callback; `dt`: seconds since the last tick.
void _tick(py::handle dt);
/// One round of the link's work, in order; `dt`: seconds since the last tick.
void _step(double dt);
/// Whether this tick must be skipped.
bool _editor_busy();

void bind_tick(py::module_ &m);

}  // namespace kestrix
