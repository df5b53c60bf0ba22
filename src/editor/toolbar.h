// The link's button in the level editor's toolbar: the link's state at a glance.
//
// State: "tb_label" (the label that the button shows). What a click does is in menu.h; the button
// stands below the server and the handlers, which all update it.
#pragma once

#include "link/host.h"

namespace kestrix {

/// Section of the link's entries in the editor's own menus and toolbar.
constexpr const char *LINK_SECTION = "Ondrel";

/// The editor's menu registry; null in an editor that runs without menus.
py::object menu_registry();

/// A menu entry or button that runs a Python command. `type`: a member of MultiBlockType.
py::object menu_entry(const char *name, Name type, const std::string &label, const std::string &tip,
                      const char *command);

/// What a button shows: its label, and the tip under the mouse.
struct ButtonText {
  std::string label;
  std::string tip;
};

/// What the button shows in the link's present state.
ButtonText _toolbar_state();

/// Rebuilds the button if its label has changed, or in any case if `force`; only then does it touch
/// the editor. With `force` the caller redraws.
void _toolbar_update(bool force = false);

void bind_toolbar(py::module_ &m);

}  // namespace kestrix
