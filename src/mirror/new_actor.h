// A new actor: added without disturbing the user, and taken away again if it can't be finished.
#pragma once

#include "link/host.h"

namespace kestrix {

/// Runs f and puts the user's selection back behind it, however it ends: the editor selects what it
/// adds.
void keep_selection(const std::function<void()> &f);

/// Adds an actor by a method of the EditorActorSubsystem ("spawn_actor_from_class" or "..._object")
/// at a Vector, not rotated. RuntimeError with the text `failure` if the editor adds none.
py::object add_actor(Name method, py::handle source, py::handle location, const char *failure);

/// A copy of an actor, in its place. RuntimeError "duplicate failed" if the editor makes none.
py::object copy_actor(py::handle source);

/// Takes the actor out of the mirror and the level, as far as the editor lets it.
void take_away(py::handle actor);

/// Runs what finishes a new actor; if that raises, the actor is taken away and the error goes on.
template <class F>
void finish_or_take_away(py::handle actor, F &&finish) {
  const auto failure = failure_of(std::forward<F>(finish));
  if (!failure) return;
  take_away(actor);
  failure->raise();
}

}  // namespace kestrix
