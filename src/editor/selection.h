// Selection across the link: selecting and framing what the peer names, showing the editor's
// selection in Blender, and the question that Blender asks its user.
//
// State: "asking" (what Blender is asking, None for nothing).
#pragma once

#include "link/host.h"

namespace kestrix {

/// Peers below this version don't know "show".
constexpr long long SHOW_VERSION = 6;

/// Selects exactly the actors of "ids" that exist; with "frame" also moves the view to them, with
/// "focus" brings the editor forward. TypeError if "ids" isn't a list.
void _h_select(const py::dict &m);

/// Backs the level viewport's camera away, in the direction in which it looks, until all these
/// actors are in view; actors without bounds don't count.
void _frame_actors(py::handle acts);

/// Asks Blender to select and frame the selected actors and to come forward. A warning in the log
/// says why it can't; raises nothing.
void show_in_blender();

/// Stores what Blender is asking its user, and says so in the log and on the toolbar.
void _h_asking(const py::dict &m);

void bind_selection(py::module_ &m);

}  // namespace kestrix
