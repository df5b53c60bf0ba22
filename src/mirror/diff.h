// What has changed of one actor since the peer was told of it.
#pragma once

#include "mirror/draft.h"
#include "mirror/mirrored.h"

namespace kestrix {

/// The fields that are read on some passes only: "light", "cam", "text".
std::span<const Name> settings();

/// Runs f; a failure says which actor it was.
template <class F>
void naming(py::handle aid, F &&f) {
  try {
    f();
  } catch (py::error_already_set &error) {
    if (!error.matches(PyExc_Exception)) throw;
    const std::string reason = text(aid) + ": " + Failure(error).text();
    py::raise_from(error, PyExc_RuntimeError, reason.c_str());
    throw py::error_already_set();
  }
}

/// Sends what differs from the mirror's entry of the actor, and keeps the new record.
void update_entry(py::handle entry, py::handle aid, const Draft &draft);

/// Compares an actor with its record and sends what differs; an actor that the mirror doesn't have
/// is sent whole. `props`: read light, camera and text settings too.
void _diff_actor(py::handle aid, py::handle a, bool props);

void bind_diff(py::module_ &m);

}  // namespace kestrix
