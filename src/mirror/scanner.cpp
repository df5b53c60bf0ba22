#include "mirror/scanner.h"

#include "assets/catalogue.h"
#include "lights_cameras/viewport_camera.h"
#include "link/xf.h"
#include "mirror/info.h"
#include "mirror/level_list.h"
#include "python/clock.h"
#include "python/prefetch.h"

namespace kestrix {

namespace {

// Seconds that one scan step may spend.
constexpr double SCAN_BUDGET = 0.004;
// Shortest time for one full pass, seconds.
constexpr double CYCLE = 0.5;
// Actors per second that the walk looks at in a large level.
constexpr double SCAN_RATE = 1000.0;
// A longer frame buys no more scanning than this, seconds.
constexpr double LONGEST_FRAME = 0.25;
// Most selected actors that the fast scan compares, and reports.
constexpr Py_ssize_t FAST_MAX = 64;
constexpr Py_ssize_t SELECTION_MAX = 2000;
// Every how many listings the actors that aren't mirrored are classified anew, and on every how
// many passes settings are read.
constexpr long long RECLASSIFY_PASSES = 10;
constexpr long long PROPS_PASSES = 4;

/// The fields of a mirror's record that a draft may lack: what never changes, and settings().
std::span<const Name> not_read() {
  static const std::array fields{"id"_n, "kind"_n, "light"_n, "cam"_n, "text"_n};
  return fields;
}

/// The fields that are read on some passes only.
std::span<const Name> settings() {
  return not_read().subspan(2);
}

Record message(const char *type) {
  return Record().set("t"_n, type);
}

Record message_about(const char *type, py::handle aid) {
  return message(type).set("id"_n, aid);
}

/// What differs between two records in this field, a missing one counting as an empty list.
bool list_differs(py::handle now, py::handle before, Name field) {
  py::object a = given(now, field);
  py::object b = given(before, field);
  if (!a || !b) return (a && truth(a)) || (b && truth(b));
  return !equal(a, b);
}

bool differs(py::handle now, py::handle before, Name field) {
  return !equal(item(now, field), item(before, field));
}

void send_new(py::handle aid, py::handle actor) {
  py::dict info = _info(actor, aid, true, true);
  if (item(info, "kind"_n).is_none()) return;
  py::list infos;
  append(infos, info);
  _send_assets(_info_assets(infos));
  _send(message("add").set("actor"_n, info));
  _remember(aid, actor, info);
}

/// "props" if the record has the field and it differs.
void diff_props(py::handle aid, py::handle now, py::handle before, Name field) {
  py::object value = find(now, field);
  if (!value) return;
  py::object old = find(before, field);
  if (!old || !equal(value, old)) _send(message_about("props", aid).set(field, value));
}

void diff_mesh(py::handle aid, py::handle now, py::handle before) {
  py::object asset = item(now, "asset"_n);
  py::object old = find(before, "asset"_n);
  if (!old || !equal(asset, old)) {
    py::list paths;
    append(paths, asset);
    _send_assets(paths);
    _send(message_about("set_mesh", aid).set("asset"_n, asset));
  }
  if (list_differs(now, before, "mats"_n)) {
    _send(message_about("mats", aid).set("mats"_n, given_or(now, "mats"_n, py::list())));
  }
}

void diff_kind_fields(py::handle aid, py::handle now, py::handle before) {
  py::object kind = item(now, "kind"_n);
  if (is_kind(kind, "mesh")) {
    diff_mesh(aid, now, before);
  } else if (is_kind(kind, "light")) {
    diff_props(aid, now, before, "light"_n);
  } else if (is_kind(kind, "camera")) {
    diff_props(aid, now, before, "cam"_n);
  } else if (is_kind(kind, "text")) {
    diff_props(aid, now, before, "text"_n);
  }
}

/// Sends "xf" pairs later, all else at once, and keeps settings that weren't read. If what the kind
/// adds can't be sent, the rest is, and `now` keeps the old values, so that the next look at the
/// actor tries again.
std::optional<Failure> send_changes(py::handle aid, const py::dict &now, py::handle before) {
  if (differs(now, before, "xf"_n)) put(S_map("xf_out"_n), aid, item(now, "xf"_n));
  auto failure = failure_of([&] { diff_kind_fields(aid, now, before); });
  if (failure) {
    for (const Name field : {"asset"_n, "mats"_n, "light"_n, "cam"_n, "text"_n}) {
      drop(now, field);
      if (py::object old = find(before, field)) put(now, field, old);
    }
  }
  for (const Name field : settings()) {
    py::object kept = find(before, field);
    if (kept && !find(now, field)) put(now, field, kept);
  }
  if (differs(now, before, "label"_n) || differs(now, before, "folder"_n)) {
    _send(message_about("rename", aid)
              .set("label"_n, item(now, "label"_n))
              .set("folder"_n, item(now, "folder"_n)));
  }
  if (list_differs(now, before, "tags"_n)) {
    _send(message_about("tags", aid).set("tags"_n, given_or(now, "tags"_n, py::list())));
  }
  return failure;
}

/// Sends what differs from the mirror's record of the actor, and keeps the new record.
void update_entry(py::handle entry, py::handle aid, const Draft &draft) {
  py::object before = item(entry, "info"_n);
  if (draft.same_as(before, not_read())) return;
  const py::dict now = record_of(aid, item(before, "kind"_n), draft);
  const auto failure = send_changes(aid, now, before);
  put(entry, "info"_n, now);
  if (failure) failure->raise();
}

/// What the walk has read of one actor: good as long as the mirror's record of it is in the state
/// that it was compared with.
struct Seen {
  PyObject *entry = nullptr;  // where it was: for announce() only
  std::uint64_t entry_version = 0;
  PyObject *actor = nullptr;  // of the entry in that state, borrowed
  PyObject *info = nullptr;
  std::uint64_t info_version = 0;
  PyObject *kind = nullptr;  // of its record in that state, borrowed
  PyObject *xf = nullptr;
  Reading reading;
};

/// Where the walk is: the actors in its order, and what it has read of each.
struct Course {
  py::object ids;  // the list "scan_ids"; null before the first walk
  std::vector<Seen> seen;
};

/// Kept for good: at the process's end there is no interpreter left to release what it holds.
Course &course() {
  static auto *const course = new Course;
  return *course;
}

/// Takes over a new order. What was read of an actor that stands elsewhere now is forgotten: moves
/// are written into the record's list, which doesn't count as a change of the record, so that only
/// one reading may be compared with it.
void follow(Course &course, const py::list &ids) {
  std::vector<Seen> &seen = course.seen;
  if (course.ids.is(ids) && seen.size() == ids.size()) return;
  seen.resize(ids.size());
  const py::list before = course.ids ? as_list(course.ids) : py::list();
  for (size_t i = 0; i < std::min(seen.size(), ids.size()); ++i) {
    if (i >= before.size() || !equal(ids[i], before[i])) seen[i] = Seen();
  }
  course.ids = ids;
}

/// An actor that has only moved.
void update_xf(py::handle aid, py::handle info, py::handle old, const Draft &draft) {
  Draft::Numbers room;
  const py::object xf = changed_xf(old, draft.rounded_at("xf"_n, room));
  if (!xf) return;
  put(S_map("xf_out"_n), aid, xf);
  if (!xf.is(old)) put(info, "xf"_n, xf);
}

void remember(Seen &seen, py::handle info) {
  seen.kind = item(info, "kind"_n).ptr();
  seen.xf = item(info, "xf"_n).ptr();
  seen.info_version = version_of(info);
}

/// Has what look_at needs of an actor come into the cache, while the one before is looked at.
void announce(py::handle aid, const Seen &seen) {
  prefetch(aid.ptr());
  prefetch(seen.entry);
  prefetch(seen.info);
  seen.reading.announce();
}

/// Compares an actor of the mirror with what was read of it the last time or, if the mirror's
/// record has changed since, with that. `library`: SystemLibrary.
void look_at(py::handle library, py::handle entry, py::handle aid, Seen &seen, bool props) {
  if (version_of(entry) != seen.entry_version) {
    const py::object actor = item(entry, "actor"_n);
    const py::dict info = as_map(item(entry, "info"_n), "a mirrored actor's record");
    seen.actor = actor.ptr();
    seen.info = info.ptr();
    seen.entry = entry.ptr();
    seen.entry_version = version_of(entry);
  }
  const auto actor = py::reinterpret_borrow<py::object>(seen.actor);
  const auto info = py::reinterpret_borrow<py::object>(seen.info);
  if (!is_alive(library, actor)) return;
  const auto fresh = [&] { return version_of(info) == seen.info_version; };
  Draft draft;
  // An actor in the mirror keeps its kind: the class of an object doesn't change.
  read_info(draft, actor, fresh() ? to_py(py::handle(seen.kind)) : item(info, "kind"_n), props);
  const auto change =
      fresh() ? draft.change_since(seen.reading, settings(), "xf"_n) : Draft::Change::OTHER;
  if (change == Draft::Change::NONE) return;
  if (change == Draft::Change::NUMBERS) {
    update_xf(aid, info, seen.xf, draft);
    seen.reading.update(draft);
    if (!fresh()) remember(seen, info);
    return;
  }
  update_entry(entry, aid, draft);
  seen.reading = Reading(draft);
  remember(seen, item(entry, "info"_n));
}

void report_selection(const py::list &selected) {
  py::dict known = S_map("known"_n);
  py::list ids;
  for (py::handle actor : selected) {
    py::object aid = str(path_of(actor));
    if (find(known, aid)) append(ids, aid);
  }
  check(PyList_Sort(ids.ptr()));
  if (equal(ids, S("sel_last"_n))) return;
  set_S("sel_last"_n, ids);
  _send(message("sel").set("ids"_n, ids));
}

void forget_unmirrored_kinds() {
  py::dict kinds = S_map("kinds"_n);
  py::dict mirrored;
  each_entry(kinds, [&](const py::object &aid, const py::object &kind) {
    if (!kind.is_none()) put(mirrored, aid, kind);
  });
  set_S("kinds"_n, mirrored);
}

/// Takes what isn't listed any more out of the mirror, and tells the peer.
void remove_unlisted(const py::dict &live) {
  py::dict known = S_map("known"_n);
  py::list gone;
  each_entry(known, [&](const py::object &aid, const py::object &) {
    if (!find(live, aid)) append(gone, aid);
  });
  for (py::handle aid : gone) {
    drop(known, aid);
    drop(S_map("xf_out"_n), aid);
  }
  if (!gone.empty()) _send(message("remove").set("ids"_n, gone));
}

/// Lists the level: what has gone, what is new, and the order of the next pass.
void list_level() {
  const long long pass = S_int("pass_n"_n);
  if (pass % RECLASSIFY_PASSES == RECLASSIFY_PASSES - 1) forget_unmirrored_kinds();
  _scope_center();
  const py::dict live = _list_actors();
  remove_unlisted(live);
  py::dict known = S_map("known"_n);
  each_entry(live, [&](const py::object &aid, const py::object &actor) {
    if (py::object entry = find(known, aid)) {
      if (!item(entry, "actor"_n).is(actor)) put(entry, "actor"_n, actor);
    } else if (const auto failure = failure_of([&] { _diff_actor(aid, actor, true); })) {
      _bad_actor(aid, failure->text());
    }
  });
  set_S("scan_ids"_n, list_of(live));
  set_S("scan_i"_n, 0);
  set_S("pass_n"_n, pass + 1);
}

void walk(double end) {
  const py::list ids = as_list(S("scan_ids"_n));
  const bool props = S_int("pass_n"_n) % PROPS_PASSES == 0;
  py::dict known = S_map("known"_n);
  py::object clock = get(module("time"_n), "perf_counter"_n);
  py::object library = system_library();
  // Taken out of its place: what the editor calls meanwhile may reset the scan, or walk itself.
  Course now = std::exchange(course(), {});
  follow(now, ids);
  std::vector<Seen> &seen = now.seen;
  auto index = static_cast<Py_ssize_t>(S_int("scan_i"_n));
  double quota = S_real("scan_quota"_n);
  // Stored also when an actor fails, so that the next walk begins behind it.
  Finally store([&] {
    course() = course().ids ? Course() : std::move(now);  // after a walk within this one: neither
    set_S("scan_i"_n, index);
    set_S("scan_quota"_n, quota);
  });
  const auto more = [&] {
    return index < std::min(PyList_GET_SIZE(ids.ptr()), static_cast<Py_ssize_t>(seen.size()));
  };
  while (more() && quota >= 1.0 && real(invoke(clock)) < end) {
    quota -= 1.0;
    py::object aid = nth(ids, index++);
    if (more()) {
      announce(PyList_GET_ITEM(ids.ptr(), index), seen[static_cast<size_t>(index)]);
    }
    if (py::object entry = find(known, aid)) {
      look_at(library, entry, aid, seen[static_cast<size_t>(index - 1)], props);
    }
  }
}

/// "200 mesh, 8 light"
std::string counts_by_kind(const py::list &infos) {
  py::dict counts;
  for (py::handle info : infos) {
    py::object kind = str(item(info, "kind"_n));
    put(counts, kind, integer(given_or(counts, kind, 0)) + 1);
  }
  py::list kinds = list_of(counts);
  check(PyList_Sort(kinds.ptr()));
  std::string out;
  for (py::handle kind : kinds) {
    out += (out.empty() ? "" : ", ") + text(item(counts, kind)) + " " + text(kind);
  }
  return out.empty() ? "nothing" : out;
}

/// Full records of these actors, remembered in the mirror; those that can't be described are
/// reported.
py::list describe(const py::dict &actors) {
  py::list infos;
  each_entry(actors, [&](const py::object &aid, const py::object &actor) {
    const auto failure = failure_of([&] {
      py::dict info = _info(actor, aid, true, true);
      _remember(aid, actor, info);
      append(infos, info);
    });
    if (failure) _bad_actor(aid, failure->text());
  });
  return infos;
}

/// Adds "gone" to a snapshot, if the peer has said which ids it has.
void add_gone(Record &snapshot, const py::dict &actors) {
  py::object have = S("client_have"_n);
  drop(S(), "client_have"_n);
  if (have.is_none()) return;
  const auto failure = failure_of([&] { snapshot.set("gone"_n, _gone_ids(have, actors)); });
  if (failure) _warn("which linked actors are gone: " + failure->text());
}

}  // namespace

void _reset_scan_state() {
  S_map("assets"_n);
  for (const Name key : {"known"_n, "touched"_n, "kinds"_n, "scope"_n, "grass"_n}) {
    set_S(key, py::dict());
  }
  for (const Name key : {"scan_ids"_n, "pending"_n}) set_S(key, py::list());
  for (const Name key : {"paused"_n, "cam_send"_n, "sel_sync"_n}) set_S(key, false);
  for (const Name key : {"eq"_n, "cam_last"_n, "cam_probe"_n, "sel_last"_n}) set_S(key, nullptr);
  set_S("scan_i"_n, 0);
  set_S("world"_n, "");
  set_S("fast_t"_n, 0.0);
  set_S("grass_noted"_n, py::set());
  course() = Course();
}

void _send_assets(py::handle paths) {
  py::set wanted;
  each(paths, [&](const py::object &path) {
    if (truth(path)) wanted.add(path);
  });
  py::list sorted = list_of(wanted);
  check(PyList_Sort(sorted.ptr()));
  py::set sent = S_set("sent_assets"_n);
  py::list entries;
  for (py::handle path : sorted) {
    if (!sent.contains(path)) append(entries, _asset_entry(path));
  }
  if (entries.empty()) return;
  _send(message("assets").set("items"_n, entries));
  // Marked only now: after a failure above the peer has heard of none of them.
  for (py::handle entry : entries) sent.add(item(entry, "path"_n));
}

void _scope_center() {
  py::dict scope = S_map("scope"_n);
  if (real(given_or(scope, "radius"_n, 0.0)) <= 0.0) return;
  // Without a camera, or on an engine that can't tell, the radius limits nothing.
  py::object camera = attempt([] { return _cam_state(py::none()); }, py::object(py::none()));
  if (!truth(camera)) {
    put(scope, "center"_n, nullptr);
  } else {
    put(scope, "center"_n, own(PySequence_GetSlice(camera.ptr(), 0, 3)));
  }
}

void _remember(py::handle aid, py::handle a, py::handle inf) {
  py::dict info = copy_of(inf);
  drop(info, "comps"_n);
  put(S_map("known"_n), aid, Record().set("actor"_n, a).set("info"_n, info));
}

py::list _gone_ids(py::handle have, py::handle actors) {
  std::string world = text(S("world"_n));
  if (S("world"_n).is_none() || world.empty()) world = _world_name();
  const std::string_view package = package_of(world);
  py::list missing;
  each(have, [&](const py::object &aid) {
    if (PyUnicode_Check(aid.ptr()) && !find(actors, aid) && package_of(text(aid)) == package &&
        _find_actor(aid).is_none()) {
      append(missing, aid);
    }
  });
  if (missing.empty()) return missing;
  const py::set on_disk = attempt(
      [] {
        py::set paths;
        each(call(unreal("WorldPartitionBlueprintLibrary"_n), "get_actor_descs"_n),
             [&](const py::object &desc) { paths.add(str(prop(desc, "actor_path"_n))); });
        return paths;
      },
      py::set());
  py::list gone;
  for (py::handle aid : missing) {
    if (!on_disk.contains(aid)) append(gone, aid);
  }
  return gone;
}

void _snapshot() {
  const std::string world = _world_name();
  set_S("known"_n, py::dict());
  set_S("world"_n, world);
  set_S("sent_assets"_n, py::set());
  set_S("grass"_n, py::dict());
  set_S("xf_out"_n, py::dict());  // of a tick that failed: older than what goes out now
  _scope_center();
  const py::dict actors = _list_actors();
  const py::list infos = describe(actors);
  set_S("scan_ids"_n, list_of(actors));
  set_S("scan_i"_n, 0);
  _send_assets(_info_assets(infos));
  const std::string level(short_name_of(world));
  Record snapshot =
      message("snapshot").set("level"_n, level).set("world"_n, world).set("actors"_n, infos);
  add_gone(snapshot, actors);
  _send(snapshot);
  _log("snapshot: " + counts_by_kind(infos) + ", " + std::to_string(S_set("sent_assets"_n).size()) +
       " meshes (" + level + ")");
}

void _diff_actor(py::handle aid, py::handle a, bool props) {
  py::object entry = find(S_map("known"_n), aid);
  if (!entry) return send_new(aid, a);
  Draft draft;
  read_info(draft, a, item(item(entry, "info"_n), "kind"_n), props);
  put(entry, "actor"_n, a);
  update_entry(entry, aid, draft);
}

void _scan_fast() {
  const py::list selected = list_of(call(_eas(), "get_selected_level_actors"_n));
  const auto count = static_cast<Py_ssize_t>(selected.size());
  for (py::handle actor : count <= FAST_MAX ? selected : py::list()) {
    if (is_a(actor, "InstancedFoliageActor"_n)) continue;
    py::object aid = str(path_of(actor));
    bool mirrored = static_cast<bool>(find(S_map("known"_n), aid));
    if (!mirrored) {
      py::object kind = _kind(aid, actor);
      mirrored = !kind.is_none() && _in_scope(aid, actor, kind);
    }
    if (mirrored) _diff_actor(aid, actor, true);
  }
  if (S_flag("sel_sync"_n) && count <= SELECTION_MAX) report_selection(selected);
}

void _scan_step(double dt) {
  const double end = perf_counter() + SCAN_BUDGET;
  const auto count = static_cast<double>(py::len(S("scan_ids"_n)));
  const double cycle = std::max(count / SCAN_RATE, CYCLE);
  const double quota =
      std::min(std::max(count, 1.0),
               S_real("scan_quota"_n) + count * std::clamp(dt, 0.0, LONGEST_FRAME) / cycle);
  set_S("scan_quota"_n, quota);
  if (static_cast<double>(S_int("scan_i"_n)) < count) {
    if (quota >= 1.0) walk(end);
    return;
  }
  const double now = perf_counter();
  if (now - S_real("list_t"_n) < cycle) return;
  set_S("list_t"_n, now);
  list_level();
}

void bind_scanner(py::module_ &m) {
  m.attr("SCAN_BUDGET") = SCAN_BUDGET;
  m.attr("CYCLE") = CYCLE;
  m.attr("FAST_MAX") = FAST_MAX;
  m.def("_reset_scan_state", &_reset_scan_state, "Set the mirror's state to its first values.");
  m.def("_send_assets", &_send_assets, py::arg("paths"),
        "Send the asset entries that the peer hasn't had since the last snapshot.");
  m.def("_scope_center", &_scope_center, "Bring the scope's centre to the viewport camera.");
  m.def("_remember", &_remember, py::arg("aid"), py::arg("a"), py::arg("inf"),
        "Store a record in the mirror.");
  m.def("_gone_ids", &_gone_ids, py::arg("have"), py::arg("actors"),
        "Those of the ids that are gone for good.");
  m.def("_snapshot", &_snapshot, "Send the whole level.");
  m.def("_diff_actor", &_diff_actor, py::arg("aid"), py::arg("a"), py::arg("props") = true,
        "Send what differs between an actor and its record.");
  m.def("_scan_fast", &_scan_fast, "Compare the selected actors; report the selection.");
  m.def("_scan_step", &_scan_step, py::arg("dt"), "Walk on through the level; dt in seconds.");
}

}  // namespace kestrix
