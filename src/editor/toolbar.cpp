#include "editor/toolbar.h"

#include "link/wire.h"

namespace kestrix {

namespace {

constexpr const char *TOOLBAR = "LevelEditor.LevelEditorToolBar.User";
constexpr const char *BUTTON = "OndrelStatus";

void build_button(const ButtonText &shown, bool force) {
  py::object menus = menu_registry();
  if (!menus) return;
  py::object toolbar = call(menus, "find_menu"_n, TOOLBAR);
  if (!exists(toolbar)) return;
  attempt([&] { call(menus, "remove_entry"_n, TOOLBAR, LINK_SECTION, BUTTON); });
  py::object button = menu_entry(BUTTON, "TOOL_BAR_BUTTON"_n, shown.label, shown.tip,
                                 "import kestrix as L; L.toolbar_click()");
  call(button, "set_icon"_n, "CoreStyle", "Icons.Link");
  attempt([&] { set_prop(button, "style_name_override"_n, "CalloutToolbar"); });
  call(toolbar, "add_menu_entry"_n, LINK_SECTION, button);
  if (!force) call(menus, "refresh_all_widgets"_n);
}

}  // namespace

py::object menu_registry() {
  py::object registry = get_if(module("unreal"_n), "ToolMenus"_n);
  if (!exists(registry)) return {};
  py::object menus = call(registry, "get"_n);
  return exists(menus) ? menus : py::object();
}

py::object menu_entry(const char *name, Name type, const std::string &label, const std::string &tip,
                      const char *command) {
  py::object entry = unreal("ToolMenuEntry"_n)(
      py::arg("name") = name, py::arg("type") = get(unreal("MultiBlockType"_n), type));
  call(entry, "set_label"_n, label);
  call(entry, "set_tool_tip"_n, tip);
  call(entry, "set_string_command"_n, get(unreal("ToolMenuStringCommandType"_n), "PYTHON"_n), "",
       command);
  return entry;
}

ButtonText _toolbar_state() {
  if (S(key::server).is_none()) {
    return {"Blender: off", "The link server is stopped - Tools > Kestrix > Start Link Server"};
  }
  if (!live_conn()) {
    return {"Blender: not connected", "Waiting for Blender on port " + text(S(key::port)) +
                                          " - click Connect in Blender's Kestrix panel"};
  }
  if (S_flag(key::asking)) {
    return {"Blender: choose in Blender",
            "Blender asks which side wins (or which level to work on) - click to go there"};
  }
  if (S_flag(key::paused)) {
    return {"Blender: paused (Play)",
            "The link waits while Unreal plays; Blender's changes apply when Play ends"};
  }
  return {"Blender: linked", "Linked to Blender (" + std::to_string(size(S_map(key::known))) +
                                 " actors). Click: show the selected actors in Blender"};
}

void _toolbar_update(bool force) {
  const ButtonText shown = _toolbar_state();
  py::object label = to_py(shown.label);
  if (!force && equal(label, S(key::tb_label))) return;
  set_S(key::tb_label, label);
  if (const auto failure = failure_of([&] { build_button(shown, force); })) {
    _warn("toolbar: " + failure->text());
  }
}

void bind_toolbar(py::module_ &m) {
  def(m, "_toolbar_state", [] {
    const ButtonText shown = _toolbar_state();
    return py::make_tuple(shown.label, shown.tip);
  });
  def(m, "_toolbar_update", &_toolbar_update, py::arg("force") = false);
}

}  // namespace kestrix
