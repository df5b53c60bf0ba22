// The level as it was last listed, and what the walk has read of each mirrored actor.
//
// What an actor takes to be judged (its path, its kind, the scope) costs the editor a dozen calls,
// so that a listing asks it only of actors that the last one didn't have.
#pragma once

#include <unordered_map>
#include <vector>

#include "mirror/draft.h"

namespace kestrix {

/// What was read of an actor: good as long as the mirror's record of it is in that version, which
/// no other state of any record has.
struct Seen {
  std::uint64_t record_version = 0;
  Reading reading;
};

struct Listed {
  py::object actor;
  Py_ssize_t place;  // among the ids; -1 for what isn't mirrored
};

struct Course {
  std::vector<Listed> rows;  // in the editor's order
  py::object ids;            // the list "scan_ids"; null before the first listing
  std::vector<Seen> seen;    // one per id
  std::uint64_t known_version = 0;
  std::uint64_t scope_version = 0;
  long long peer_version = 0;

  /// The row of that actor, null if it has none; usually it stands at `at`, which moves behind it.
  Listed *find(py::handle actor, size_t &at);
  std::unordered_map<PyObject *, size_t> index;  // of find(), made when it is needed
};

/// Kept for good: at the process's end there is no interpreter left to release what it holds.
Course &course();

}  // namespace kestrix
