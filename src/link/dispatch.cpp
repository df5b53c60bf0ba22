#include "link/dispatch.h"

#include <array>
#include <vector>

#include "link/host.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds that one replay of held messages may take.
constexpr double REPLAY_BUDGET = 0.02;

// Refused until the peer has its copy of the level: it couldn't tell what it adds to or deletes
// from.
constexpr std::array ADDS{"spawn", "dup", "delete"};

// Handled even while everything else is held back.
constexpr std::array READ_ONLY{"need_mesh", "need_terrain", "need_mat",  "need_grass",
                               "asking",    "need_group",   "brush_get", "brush_set"};

// Of several messages of a type with the same value in the key field only the newest counts;
// without a key field, of all messages of the type.
struct LatestOnly {
  const char *type;
  const char *key;
};
constexpr std::array LATEST_ONLY{LatestOnly{"cam", nullptr},  LatestOnly{"exposure", nullptr},
                                 LatestOnly{"tex", "path"},   LatestOnly{"mat_params", "path"},
                                 LatestOnly{"coll", "asset"}, LatestOnly{"phys", "id"}};

// Messages of this type merge the field, newer values over older ones, instead of replacing.
constexpr const char *MERGED_TYPE = "mat_params";
constexpr const char *MERGED_FIELD = "params";

// No merging across a message of this type: it rebuilds what the parameters belong to.
constexpr const char *MERGE_BARRIER = "mat";

struct BusyText {
  const char *type;
  const char *text;
};
constexpr std::array BUSY{BusyText{"mesh", "importing a mesh"},
                          BusyText{"spawn", "adding an actor"},
                          BusyText{"mat", "building material"},
                          BusyText{"rig", "importing a rig"},
                          BusyText{"terrain_heights", "applying your sculpt"},
                          BusyText{"terrain_weights", "applying your paint"},
                          BusyText{"open_level", "opening a level"},
                          BusyText{"inst_src", "updating a scatter"},
                          BusyText{"set_mesh", "updating a mesh"},
                          BusyText{"dup", "duplicating actors"},
                          BusyText{"coll", "fitting collision"},
                          BusyText{"update", "downloading the update"}};

template <size_t N>
bool contains(const std::array<const char *, N> &types, std::string_view type) {
  return std::find(types.begin(), types.end(), type) != types.end();
}

template <size_t N>
py::set set_of(const std::array<const char *, N> &types) {
  py::set out;
  for (const char *type : types) out.add(to_py(type));
  return out;
}

template <class Row, size_t N>
const Row *row_of(const std::array<Row, N> &table, std::string_view type) {
  const auto row =
      std::find_if(table.begin(), table.end(), [&](const Row &r) { return r.type == type; });
  return row == table.end() ? nullptr : &*row;
}

/// The message's type, empty for what isn't an object: such a message fails when its turn comes.
std::string_view lenient_type(py::handle m) {
  return PyDict_Check(m.ptr()) ? type_of(m) : std::string_view();
}

/// The key of a LATEST_ONLY message, None where the type has only one; null for any other message,
/// and for one whose fields are of the wrong type: it goes its own way to the handler, which will
/// complain.
py::object latest_key(py::handle m) {
  const std::string_view type = lenient_type(m);
  const LatestOnly *row = row_of(LATEST_ONLY, type);
  if (!row) return {};
  if (type == MERGED_TYPE) {
    py::object values = given(m, to_py(MERGED_FIELD));
    if (values && !PyDict_Check(values.ptr())) return {};
  }
  py::object key = row->key ? given_or(m, to_py(row->key), nullptr) : py::none();
  return key.is_none() || PyUnicode_Check(key.ptr()) ? key : py::object();
}

/// Enters the message's merged field into `values`, over what is there.
void merge_into(const py::dict &values, py::handle m) {
  if (py::object newer = given(m, to_py(MERGED_FIELD))) {
    check(PyDict_Update(values.ptr(), newer.ptr()));
  }
}

/// A copy of the message with the merged field replaced.
py::dict with_merged(py::handle m, const py::dict &values) {
  py::dict copy = copy_of(m);
  put(copy, to_py(MERGED_FIELD), values);
  return copy;
}

/// Whether an "xf" message's items are all [id, transform] pairs, so that they can be merged.
bool is_pair_list(py::handle items) {
  if (!PyList_Check(items.ptr())) return false;
  for (py::handle pair : py::reinterpret_borrow<py::list>(items)) {
    if (!PyList_Check(pair.ptr()) || PyList_GET_SIZE(pair.ptr()) != 2 ||
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

/// Whether a message must wait until the peer has its copy of the level; tells the peer so.
bool refuse_early_add(std::string_view type, py::handle m) {
  if (!contains(ADDS, type) || S_flag(key::client_ready, true)) return false;
  _warn("refused " + std::string(type) + " from Blender before its level copy was synced");
  if (type != "delete") {
    _send(message("spawn_failed")
              .set("tmp"_n, given_or(m, "tmp"_n, nullptr))
              .set("msg"_n, "the link was still syncing - try again"));
  }
  return true;
}

/// What to tell the peer while this message is handled; empty for a quick one.
std::string busy_text(std::string_view type, py::handle m) {
  const BusyText *row = row_of(BUSY, type);
  if (!row) return {};
  std::string what = row->text;
  if (type == "mat") {
    py::object key = given(m, "key"_n);
    if (key && truth(key)) what += " " + text(key);
  }
  return what;
}

}  // namespace

void bind_handler(py::module_ &m, const char *type, Handler handler, const char *doc) {
  const std::string name = std::string("_h_") + type;
  m.def(name.c_str(), handler, py::arg("m"), doc);
  m.attr("HANDLERS")[type] = m.attr(name.c_str());
}

std::string_view type_of(py::handle m) {
  py::object type = find(as_map(m, "a message"), "t"_n);
  if (!type || !PyUnicode_Check(type.ptr())) return {};
  // A lone surrogate can't be told as UTF-8, and no type has one.
  return attempt([&] { return view(type); }, std::string_view());
}

py::list _coalesce(const py::list &msgs) {
  if (PyList_GET_SIZE(msgs.ptr()) < 2) return msgs;
  struct Group {
    size_t last;  // index of its newest message
    py::dict merged;
  };
  std::vector<Group> groups;
  py::dict group_at;          // (type, key, segment) -> index into groups
  std::vector<int> group_of;  // per message, -1 for none
  long long segment = 0;
  for (py::handle m : msgs) {
    const std::string_view type = lenient_type(m);
    if (type == MERGE_BARRIER) ++segment;
    int index = -1;
    if (py::object key = latest_key(m)) {
      const bool merges = type == MERGED_TYPE;
      py::object id = py::make_tuple(to_py(type), key, merges ? segment : 0);
      if (py::object seen = find(group_at, id)) {
        index = seen.cast<int>();
      } else {
        index = static_cast<int>(groups.size());
        put(group_at, id, index);
        groups.push_back({});
      }
      Group &group = groups[static_cast<size_t>(index)];
      group.last = group_of.size();
      if (merges) merge_into(group.merged, m);
    }
    group_of.push_back(index);
  }
  py::list out;
  for (size_t at = 0; at < group_of.size(); ++at) {
    py::object m = msgs[at];
    if (group_of[at] < 0) {
      append(out, m);
      continue;
    }
    const Group &group = groups[static_cast<size_t>(group_of[at])];
    if (group.last != at) continue;
    append(out, lenient_type(m) == MERGED_TYPE ? with_merged(m, group.merged) : m);
  }
  return out;
}

bool is_read_only(std::string_view type) {
  return contains(READ_ONLY, type);
}

void hold_back(const py::dict &m) {
  py::list pending = list_of(S(key::pending));
  py::dict held = m;
  if (py::object key = latest_key(m)) {
    const std::string_view type = type_of(m);
    const bool merges = type == MERGED_TYPE;
    Py_ssize_t after = -1;
    for (Py_ssize_t i = 0; merges && i < PyList_GET_SIZE(pending.ptr()); ++i) {
      if (lenient_type(PyList_GET_ITEM(pending.ptr(), i)) == MERGE_BARRIER) after = i;
    }
    py::list kept;
    py::dict values;
    bool found = false;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(pending.ptr()); ++i) {
      py::handle other = PyList_GET_ITEM(pending.ptr(), i);
      py::object other_key =
          i > after && lenient_type(other) == type ? latest_key(other) : py::object();
      if (!other_key || !equal(other_key, key)) {
        append(kept, other);
        continue;
      }
      found = true;
      if (merges) merge_into(values, other);
    }
    if (found && merges) {
      merge_into(values, m);
      held = with_merged(m, values);
    }
    pending = kept;
  }
  if (S(key::pending_world).is_none()) set_S(key::pending_world, S(key::world));
  append(pending, held);
  set_S(key::pending, pending);
}

void _replay_pending() {
  py::object world = S(key::pending_world);
  drop_S(key::pending_world);
  if (!world.is_none() && !equal(world, S(key::world))) {
    set_S(key::pending, py::list());
    _warn("dropped Blender changes sent while Unreal switched levels");
    return;
  }
  py::list out = compact_xf(list_of(S(key::pending)));
  const double end = perf_counter() + REPLAY_BUDGET;
  const Py_ssize_t count = PyList_GET_SIZE(out.ptr());
  for (Py_ssize_t i = 0; i < count; ++i) {
    // What waits is stored before each message, so that nothing is replayed twice or lost should
    // this one end the tick.
    const bool late = perf_counter() > end;
    set_S(key::pending, own(PyList_GetSlice(out.ptr(), late ? i : i + 1, count)));
    if (late) return;
    _handle(PyList_GET_ITEM(out.ptr(), i));
  }
  set_S(key::pending, py::list());
}

void _handle(py::handle m) {
  const std::string type(type_of(m));
  py::object handler = find(get(this_module(), "HANDLERS"_n), to_py(type));
  if (!handler || refuse_early_add(type, m)) return;
  const std::string busy = busy_text(type, m);
  if (!busy.empty()) _busy(busy.c_str());
  Finally done([&] {
    if (!busy.empty()) _busy(nullptr);
  });
  if (const auto failure = failure_of([&] { invoke(handler, m); })) {
    const std::string reason = failure->text();
    _warn(type + " failed: " + reason);
    set_S(key::last_error, failure->traceback());
    _send(message("error").set("msg"_n, type + ": " + reason));
  }
}

void _busy(const char *what) {
  py::object conn = live_conn();
  if (!conn || peer_version() < 6) return;
  py::object told = what ? to_py(what) : py::none();
  if (equal(told, S(key::busy_what))) return;
  send_to(conn, message("busy").set("what"_n, told));
  set_S(key::busy_what, told);
  flush(conn);
}

void bind_dispatch(py::module_ &m) {
  m.attr("HANDLERS") = py::dict();
  m.attr("ADDS") = set_of(ADDS);
  m.attr("READ_ONLY") = set_of(READ_ONLY);
  m.attr("MERGE_BARRIER") = py::set(py::make_tuple(MERGE_BARRIER));
  m.attr("MERGED") = py::dict(py::arg(MERGED_TYPE) = MERGED_FIELD);
  py::dict busy;
  for (const BusyText &row : BUSY) busy[row.type] = row.text;
  m.attr("BUSY") = busy;
  py::dict latest;
  for (const LatestOnly &row : LATEST_ONLY) {
    latest[row.type] = py::cpp_function(
        [field = row.key](py::handle message) {
          return field ? given_or(message, to_py(field), nullptr) : py::none();
        },
        py::arg("m"), "The key among whose messages only the newest counts.");
  }
  m.attr("LATEST_ONLY") = latest;
  m.def("_coalesce", &_coalesce, py::arg("msgs"), "What remains of one batch of messages.");
  m.def("_handle", &_handle, py::arg("m"), "Dispatch one message.");
  m.def(
      "_busy",
      [](py::handle what) { _busy(what.is_none() ? nullptr : std::string(view(what)).c_str()); },
      py::arg("what"), "Tell the peer what the editor is busy with; None when done.");
  m.def("_replay_pending", &_replay_pending, "Run held messages within a time budget.");
}

}  // namespace kestrix
