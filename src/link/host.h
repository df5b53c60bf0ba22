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

/// The actors of the level, or the selected ones. None, as from an editor that refuses to list, is
/// an empty listing.
py::list level_actors();
py::list selected_actors();

/// Notes, and says in the log, that the engine lacks what only newer ones have, and what comes of
/// it.
void note_lacking(Name method, const char *so = "what needs it is off");

/// object.method(args...), or None where the engine is too old to have the method. That is told in
/// the log once; from then on the method isn't tried any more.
template <class... Args>
py::object call_if_there(py::handle object, Name method, const Args &...args) {
  if (S_set(key::lacking).contains(to_py(method))) return py::none();
  if (py::object result = try_call(object, method, args...)) return result;
  py::error_already_set error;
  if (!error.matches(PyExc_AttributeError) || get_if(object, method)) throw error;
  note_lacking(method);
  return py::none();
}

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
