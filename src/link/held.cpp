#include "link/held.h"

#include <vector>

#include "link/host.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds that one replay of held messages may take.
constexpr double REPLAY_BUDGET = 0.02;
// So many waiting messages are coalesced after each batch; more of them only when they have doubled
// since, so that it costs each message the same however many wait.
constexpr size_t FEW = 256;

/// The message's type, empty for what isn't an object: such a message fails when its turn comes.
std::string_view lenient_type(py::handle m) {
  return PyDict_Check(m.ptr()) ? type_of(m) : std::string_view();
}

/// msgs[begin:], a list of our own: messages that somebody put in "pending" may run any code when
/// they are asked for a field.
py::list rest_of(const py::list &msgs, Py_ssize_t begin) {
  return as_list(own(PyList_GetSlice(msgs.ptr(), begin, PyList_GET_SIZE(msgs.ptr()))));
}

/// The key of a message of which only the newest counts, None where the type has only one; null for
/// any other message, and for one whose fields are of the wrong type.
py::object latest_key(const Traits &traits, py::handle m) {
  if (!traits.latest) return {};
  if (traits.merges) {
    py::object values = given(m, to_py(traits.merges));
    if (values && !PyDict_CheckExact(values.ptr())) return {};
  }
  if (!*traits.latest) return py::none();
  py::object key = given_or(m, to_py(traits.latest), nullptr);
  return key.is_none() || PyUnicode_CheckExact(key.ptr()) ? key : py::object();
}

/// The messages that still count. `fill`: one that merges with no other gets its merged field even
/// if that is missing.
py::list newest_of(const py::list &all, bool fill) {
  const py::list msgs = rest_of(all, 0);
  struct Group {
    const char *field;  // that its messages merge; null if the newest replaces the others
    size_t last = 0;    // index of its newest message
    int count = 0;
    py::dict merged{};
  };
  std::vector<Group> groups;
  py::dict group_at;          // (type, key, segment) -> index into groups
  std::vector<int> group_of;  // per message, -1 for none
  long long segment = 0;
  for (py::handle m : msgs) {
    const std::string_view type = lenient_type(m);
    const Traits &traits = traits_of(type);
    if (traits.barrier) ++segment;
    int index = -1;
    if (py::object key = latest_key(traits, m)) {
      py::object id = py::make_tuple(to_py(type), key, traits.merges ? segment : 0);
      if (py::object seen = find(group_at, id)) {
        index = seen.cast<int>();
      } else {
        index = static_cast<int>(groups.size());
        put(group_at, id, index);
        groups.push_back({traits.merges});
      }
      Group &group = groups[static_cast<size_t>(index)];
      group.last = group_of.size();
      ++group.count;
      py::object newer = group.field ? given(m, to_py(group.field)) : py::object();
      if (newer) check(PyDict_Update(group.merged.ptr(), newer.ptr()));
    }
    group_of.push_back(index);
  }
  py::list out;
  for (size_t at = 0; at < group_of.size(); ++at) {
    py::object m = msgs[at];
    if (group_of[at] >= 0) {
      const Group &group = groups[static_cast<size_t>(group_of[at])];
      if (group.last != at) continue;
      if (group.field && (fill || group.count > 1)) {
        m = copy_of(m);
        put(m, to_py(group.field), group.merged);
      }
    }
    append(out, m);
  }
  return out;
}

/// Whether an "xf" message's items are all [id, transform] pairs, so that they can be merged.
bool is_pair_list(py::handle items) {
  if (!PyList_CheckExact(items.ptr())) return false;
  for (py::handle pair : py::reinterpret_borrow<py::list>(items)) {
    if (!PyList_CheckExact(pair.ptr()) || PyList_GET_SIZE(pair.ptr()) != 2 ||
        !PyUnicode_CheckExact(PyList_GET_ITEM(pair.ptr(), 0))) {
      return false;
    }
  }
  return true;
}

/// All "xf" messages of the list as one, with the newest transform of each actor, at the place of
/// the last of them. A malformed one stays as it is, for its handler to report.
py::list compact_xf(const py::list &pending) {
  py::dict newest;
  py::list out;
  Py_ssize_t at = -1;
  for (py::handle m : pending) {
    py::object items = lenient_type(m) == "xf" ? given_or(m, "items"_n, py::list()) : py::none();
    if (!is_pair_list(items)) {
      append(out, m);
      continue;
    }
    for (py::handle pair : items) {
      put(newest, PyList_GET_ITEM(pair.ptr(), 0), py::handle(PyList_GET_ITEM(pair.ptr(), 1)));
    }
    at = PyList_GET_SIZE(out.ptr());
  }
  if (at >= 0) {
    py::dict merged = message("xf").set("items"_n, pairs_of(newest));
    check(PyList_Insert(out.ptr(), at, merged.ptr()));
  }
  return out;
}

/// The list "pending" itself.
py::list waiting() {
  py::object pending = S(key::pending);
  if (PyList_CheckExact(pending.ptr())) return py::reinterpret_borrow<py::list>(pending);
  py::list made = list_of(pending);
  set_S(key::pending, made);
  return made;
}

void hold_back(const py::dict &m) {
  py::list pending = waiting();
  if (S(key::pending_world).is_none()) {
    set_S(key::pending_world, S(key::world));
    drop_S(key::pending_next);
  }
  append(pending, m);
  set_S(key::pending_new, S_int(key::pending_new) + 1);
}

/// After a batch was held back.
void coalesce_some() {
  const py::list pending = waiting();
  if (pending.size() <= FEW) {
    set_S(key::pending, newest_of(pending, false));
  } else if (S_int(key::pending_new) * 2 > static_cast<long long>(pending.size())) {
    set_S(key::pending, compact_xf(newest_of(pending, false)));
    set_S(key::pending_new, 0);
  }
}

/// Before a replay.
py::list coalesce_all() {
  if (S_int(key::pending_new, 1) > 0) {
    set_S(key::pending, compact_xf(newest_of(waiting(), false)));
    set_S(key::pending_new, 0);
  }
  return waiting();
}

/// Nothing waits any more.
void end_of_queue() {
  set_S(key::pending, py::list());
  drop_S(key::pending_new);
  drop_S(key::pending_world);
  drop_S(key::pending_next);
}

void warn_of_drop() {
  _warn("dropped Blender changes sent while Unreal switched levels");
}

/// Drops what was meant for a level that isn't open any more.
void drop_level_edits() {
  py::list kept;
  bool dropped = false;
  for (py::handle m : rest_of(waiting(), 0)) {
    const std::string_view type = lenient_type(m);
    if (!traits_of(type).in_level) {
      append(kept, m);
      continue;
    }
    dropped = true;
    refuse_add(type, m, "Unreal switched levels - try again");
  }
  if (!dropped) return;
  set_S(key::pending, kept);
  warn_of_drop();
}

/// Drops what waits, or those of it that mind, if it was meant for another level than the present
/// one. "pending_next": the level that is open but not mirrored yet, for which this has been done.
void drop_for_other_level() {
  py::object world = S(key::world);
  py::object meant = S(key::pending_world);
  if (!meant.is_none() && !equal(meant, world)) {
    if (!equal(world, S(key::pending_next))) {
      end_of_queue();
      return warn_of_drop();
    }
    set_S(key::pending_world, world);
    meant = world;
  }
  if (meant.is_none() || !truth(meant)) return;
  const std::string open = _world_name();
  if (equal(meant, to_py(open))) return;
  drop_level_edits();
  set_S(key::pending_next, open);
}

/// Handles what waits until the time is up; false if it ended because this isn't the peer's queue
/// any more: a handler has let another peer in, or replayed the queue itself.
bool replay(const py::list &pending) {
  const double end = perf_counter() + REPLAY_BUDGET;
  const py::object conn = S(key::conn);
  const auto ours = [&] { return S(key::conn).is(conn) && S(key::pending).is(pending); };
  Py_ssize_t done = 0;
  Finally keep_the_rest([&] {
    if (!S(key::pending).is(pending)) return;
    set_S(key::pending, rest_of(pending, done));
  });
  while (done < PyList_GET_SIZE(pending.ptr()) && perf_counter() <= end) {
    // Out of the list before it is handled, so that nothing is replayed twice however this ends.
    const py::object m = pending[static_cast<size_t>(done)];
    pending[static_cast<size_t>(done++)] = py::none();
    if (!m.is_none()) _handle(m);
    if (!ours()) return false;
  }
  return true;
}

}  // namespace

py::list _coalesce(const py::list &msgs) {
  return msgs.size() < 2 ? msgs : newest_of(msgs, true);
}

void dispatch(const py::list &msgs, py::handle conn, bool hold) {
  for (py::handle m : msgs) {
    if (!S(key::conn).is(conn)) return;
    if (hold && !traits_of(type_of(m)).read_only) {
      hold_back(as_map(m, "a message"));
    } else {
      _handle(m);
    }
  }
  if (hold && !msgs.empty()) coalesce_some();
}

void _replay_pending() {
  drop_for_other_level();
  const py::object world = S(key::world);
  if (!replay(coalesce_all())) return;
  if (waiting().empty()) return end_of_queue();
  // A handler may have sent the level anew, and that another one.
  if (equal(S(key::world), world)) return;
  if (truth(world)) drop_level_edits();
  set_S(key::pending_world, S(key::world));
}

void bind_held(py::module_ &m) {
  def(m, "_coalesce", &_coalesce, py::arg("msgs"));
  def(m, "_replay_pending", &_replay_pending);
}

}  // namespace kestrix
