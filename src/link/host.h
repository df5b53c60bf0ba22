// Small questions to the editor that touch no actor: logging, subsystems, Play-In-Editor, world and
// project names.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// Writes a line to the editor's Output Log, for events.
void _log(const std::string &msg);

/// Writes a warning to the editor's Output Log, for what the user should notice.
void _warn(const std::string &msg);

/// The editor subsystem of that class.
py::object subsystem(Name editor_class);

/// The EditorActorSubsystem.
py::object _eas();

/// The Foliage Helper library beside this plugin, or None if it isn't installed.
py::object _foliage_lib();

/// True while Play-In-Editor runs; false if the editor can't tell.
bool _in_pie();

/// The open world's path name; empty if there is no world, that is, while a level loads.
std::string _world_name();

/// The project's name, "Project" if it can't be had.
std::string _project_name();

/// The path name of any editor object.
inline py::object path_of(py::handle object) {
  return call<"get_path_name">(object);
}

/// The path of an asset or another object, "" for none.
inline py::object path_or_empty(py::handle object) {
  return object && !object.is_none() ? str(path_of(object)) : to_py(""_n);
}

/// Whether an actor's own property or method exists and gives a live object: not None.
inline bool exists(py::handle object) {
  return object && !object.is_none();
}

void bind_host(py::module_ &m);

}  // namespace kestrix
