#include "link/host.h"

namespace kestrix {

// A line that can't be logged must not take down what it reports on.
void _log(const std::string &msg) {
  attempt([&] { invoke(unreal("log"_n), "[Verrin] " + msg); });
}

void _warn(const std::string &msg) {
  attempt([&] { invoke(unreal("log_warning"_n), "[Verrin] " + msg); });
}

py::object subsystem(Name editor_class) {
  return invoke(unreal("get_editor_subsystem"_n), unreal(editor_class));
}

py::object _eas() {
  return subsystem("EditorActorSubsystem"_n);
}

py::list level_actors() {
  return list_of(call(_eas(), "get_all_level_actors"_n));
}

py::list selected_actors() {
  return list_of(call(_eas(), "get_selected_level_actors"_n));
}

void note_lacking(Name method, const char *so) {
  add(S_set(key::lacking), to_py(method));
  _warn("this engine is too old for " + text(to_py(method)) + "; " + so);
}

py::object _foliage_lib() {
  py::module_ editor = py::reinterpret_borrow<py::module_>(module("unreal"_n));
  py::object library = get_if(editor, "KestrixFoliageLibrary"_n);
  if (!exists(library)) library = get_if(editor, "OndrelFoliageLibrary"_n);
  return library ? library : py::none();
}

bool _in_pie() {
  bool playing = false;
  if (attempt([&] {
        playing = truth(call(subsystem("LevelEditorSubsystem"_n), "is_in_play_in_editor"_n));
      })) {
    return playing;
  }
  return attempt(
      [] { return truth(call(unreal("EditorLevelLibrary"_n), "get_pie_worlds"_n, false)); }, false);
}

std::string _world_name() {
  py::object world = call(subsystem("UnrealEditorSubsystem"_n), "get_editor_world"_n);
  return exists(world) ? text(path_of(world)) : std::string();
}

std::string _project_name() {
  return attempt([] { return text(call(unreal("SystemLibrary"_n), "get_game_name"_n)); },
                 std::string("Project"));
}

void bind_host(py::module_ &m) {
  def(
      m, "_log", [](py::handle msg) { _log(text(msg)); }, py::arg("msg"));
  def(
      m, "_warn", [](py::handle msg) { _warn(text(msg)); }, py::arg("msg"));
  def(m, "_eas", &_eas);
  def(m, "_foliage_lib", &_foliage_lib);
  def(m, "_in_pie", &_in_pie);
  def(m, "_world_name", &_world_name);
  def(m, "_project_name", &_project_name);
}

}  // namespace kestrix
