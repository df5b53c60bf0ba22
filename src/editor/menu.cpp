#include "editor/menu.h"

#include <span>

#include "editor/selection.h"
#include "editor/toolbar.h"
#include "editor/window_focus.h"
#include "session/server.h"

namespace kestrix {

namespace {

constexpr const char *TOOLS_MENU = "LevelEditor.MainMenu.Tools";
constexpr const char *LINK_MENU = "LevelEditor.MainMenu.Tools.Ondrel";
constexpr const char *ACTOR_MENU = "LevelEditor.ActorContextMenu";
constexpr const char *SHOW_COMMAND = "import kestrix as L; L.show_in_blender()";

struct Entry {
  const char *name;
  const char *label;
  const char *tip;
  const char *command;
};

struct Section {
  const char *name;
  const char *label;
  std::span<const Entry> entries;
};

constexpr Entry EVERYDAY[] = {{"Show", "Show Selected in Blender",
                               "Select and frame the selected linked actors in Blender's 3D view "
                               "and bring Blender to the front",
                               SHOW_COMMAND}};
constexpr Entry SERVER[] = {
    {"Start", "Start Link Server",
     "Listen for the Blender add-on on port 9920 (9921-9925 when another editor has it); starts by "
     "itself with the editor",
     "import kestrix as L; L.start()"},
    {"Stop", "Stop Link Server", "Disconnect Blender and stop listening",
     "import kestrix as L; L.stop()"}};
constexpr Entry OUTPUT[] = {{"Status", "Print Status",
                             "Write the link state, linked actors, PIE pause, tick cost and unused "
                             "material copies to the Output Log",
                             "import kestrix as L; L.status()"}};
constexpr Section SECTIONS[] = {{"Everyday", "Everyday", EVERYDAY},
                                {"Server", "Link Server", SERVER},
                                {"Output", "Status (Output Log)", OUTPUT}};
constexpr Entry CONTEXT_ENTRY{
    "OndrelShow", "Show in Blender",
    "Select and frame these actors in Blender's 3D view and bring Blender to the front",
    SHOW_COMMAND};

void add_entry(py::handle menu, const char *section, const Entry &entry) {
  call(menu, "add_menu_entry"_n, section,
       menu_entry(entry.name, "MENU_ENTRY"_n, entry.label, entry.tip, entry.command));
}

void add_submenu(py::handle menus, py::handle tools) {
  py::object menu =
      call(menus, "register_menu"_n, LINK_MENU, "", get(unreal("MultiBoxType"_n), "MENU"_n), false);
  call(tools, "add_sub_menu"_n, LINK_SECTION, LINK_SECTION, LINK_SECTION, "Kestrix",
       "Two-way live link with Blender's 'Kestrix' panel: meshes, lights, cameras, Blueprints, "
       "text, landscapes, foliage, grass, materials and rigs. The link server starts with the "
       "editor; connect from Blender.");
  // A section that earlier releases had; the menu may still hold it after a reload.
  attempt([&] { call(menus, "remove_section"_n, LINK_MENU, "Link"); });
  for (const Section &section : SECTIONS) {
    attempt([&] { call(menu, "add_section"_n, section.name, section.label); });
    for (const Entry &entry : section.entries) add_entry(menu, section.name, entry);
  }
}

void click() {
  if (S(key::server).is_none()) {
    start(py::none());
    return;
  }
  py::object conn = live_conn();
  if (!conn || peer_version() < SHOW_VERSION) {
    status();
    return;
  }
  if (!S_flag(key::asking) && !_in_pie() && !selected_actors().empty()) {
    return show_in_blender();
  }
  _allow_front(S(key::client_pid));
  send_to(conn, message("show").set("ids"_n, py::list()));
  flush(conn);
}

}  // namespace

void register_menu() {
  const auto failure = failure_of([] {
    py::object menus = menu_registry();
    if (!menus) return;
    py::object tools = call(menus, "find_menu"_n, TOOLS_MENU);
    if (!exists(tools)) return;
    add_submenu(menus, tools);
    py::object actor_menu = call(menus, "find_menu"_n, ACTOR_MENU);
    if (exists(actor_menu)) add_entry(actor_menu, LINK_SECTION, CONTEXT_ENTRY);
    _toolbar_update(true);
    call(menus, "refresh_all_widgets"_n);
  });
  if (failure) _warn("menu: " + failure->text());
}

void toolbar_click() {
  if (const auto failure = failure_of(&click)) _warn("toolbar: " + failure->text());
}

void bind_menu(py::module_ &m) {
  def(m, "register_menu", &register_menu);
  def(m, "toolbar_click", &toolbar_click);
}

}  // namespace kestrix
