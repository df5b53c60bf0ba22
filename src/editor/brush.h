// The landscape brush: one set of values on both sides.
//
// Brush values are a map of the settings that could be read: "strength", "size", "falloff",
// "target" (numbers), "use_target", "without_moving" (booleans); or None when the landscape panel
// isn't there. State: "brush_seen" (the values that the peer has), "brush_t" (last look, seconds
// since the epoch).
#pragma once

#include "link/host.h"

namespace kestrix {

/// The landscape panel's settings object; None until the user has opened that mode.
py::object _landscape_ui();

/// The brush values, or None.
py::object _brush_read();

/// Answers "brush" with the values; "ok" is false without any.
void _h_brush_get(const py::dict &m);

/// Sets the values that the message has. One that can't be set is left as it was.
void _h_brush_set(const py::dict &m);

/// Tells a peer of version 7 or later what the user has changed, at most every 2 seconds.
void _brush_watch();

void bind_brush(py::module_ &m);

}  // namespace kestrix
