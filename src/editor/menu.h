// The link's place in the editor's menus, and what a click on its toolbar button does.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// Builds the submenu under Tools, the actor context menu's entry and the toolbar button. Does
/// nothing in an editor without those menus; a failure is a warning in the log.
void register_menu();

/// Does what is most useful in the link's state: starts the server, writes the status to the log,
/// shows the selected actors in Blender or asks it to come forward. Raises nothing.
void toolbar_click();

void bind_menu(py::module_ &m);

}  // namespace kestrix
