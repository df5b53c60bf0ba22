#include "mirror/walk.h"

#include "link/xf.h"
#include "mirror/diff.h"
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
  if (const auto failure = failure_of([&] { put(S_map(key::xf_out), aid, xf); })) {
    put(info, "xf"_n, nullptr);  // the record says what the peer will hear of
    failure->raise();
  }
  if (!xf.is(old)) put(info, "xf"_n, xf);
}

void remember(Seen &seen, py::handle info) {
  seen.info_version = version_of(info);  // first: what changes the record meanwhile makes it stale
  seen.kind = item(info, "kind"_n).ptr();
  seen.xf = item(info, "xf"_n).ptr();
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
  py::object actor;
  py::object info;
  if (const auto version = version_of(entry); version != seen.entry_version) {
    actor = item(entry, "actor"_n);
    info = as_map(item(entry, "info"_n), "a mirrored actor's record");
    seen.actor = actor.ptr();
    seen.info = info.ptr();
    seen.entry = entry.ptr();
    seen.entry_version = version;
  } else {
    actor = py::reinterpret_borrow<py::object>(seen.actor);
    info = py::reinterpret_borrow<py::object>(seen.info);
  }
  if (!is_alive(library, actor)) return;
  const auto fresh = [&] { return version_of(info) == seen.info_version; };
  Draft draft;
  // An actor in the mirror keeps its kind: the class of an object doesn't change.
  read_info(draft, actor, fresh() ? to_py(py::handle(seen.kind)) : item(info, "kind"_n), props);
  const auto change =
      fresh() ? draft.change_since(seen.reading, settings(), "xf"_n) : Draft::Change::OTHER;
  if (change == Draft::Change::NONE) return;
  if (change == Draft::Change::NUMBERS && fresh()) {
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
  py::dict known = S_map(key::known);
  py::list ids;
  for (py::handle actor : selected) {
    py::object aid = str(path_of(actor));
    if (find(known, aid)) append(ids, aid);
  }
  check(PyList_Sort(ids.ptr()));
  if (equal(ids, S(key::sel_last))) return;
  set_S(key::sel_last, ids);
  _send(message("sel").set("ids"_n, ids));
}

void forget_unmirrored_kinds() {
  py::dict kinds = S_map(key::kinds);
  py::dict mirrored;
  each_entry(kinds, [&](const py::object &aid, const py::object &kind) {
    if (!kind.is_none()) put(mirrored, aid, kind);
  });
  set_S(key::kinds, mirrored);
}

/// Takes what isn't listed any more out of the mirror, and tells the peer.
void remove_unlisted(const py::dict &live) {
  py::dict known = S_map(key::known);
  py::list gone;
  each_entry(known, [&](const py::object &aid, const py::object &) {
    if (!find(live, aid)) append(gone, aid);
  });
  if (!gone.empty()) _send(message("remove").set("ids"_n, gone));
  for (py::handle aid : gone) {
    drop(known, aid);
    drop(S_map(key::xf_out), aid);
  }
}

/// Lists the level: what has gone, what is new, and the order of the next pass.
void list_level() {
  const long long pass = S_int(key::pass_n);
  if (pass % RECLASSIFY_PASSES == RECLASSIFY_PASSES - 1) forget_unmirrored_kinds();
  _scope_center();
  const py::dict live = _list_actors();
  remove_unlisted(live);
  py::dict known = S_map(key::known);
  each_entry(live, [&](const py::object &aid, const py::object &actor) {
    if (py::object entry = find(known, aid)) {
      if (!item(entry, "actor"_n).is(actor)) put(entry, "actor"_n, actor);
    } else if (const auto failure = failure_of([&] { _diff_actor(aid, actor, true); })) {
      _bad_actor(aid, failure->text());
    }
  });
  set_S(key::scan_ids, list_of(live));
  set_S(key::scan_i, 0);
  set_S(key::pass_n, pass + 1);
}

void walk(double end) {
  const py::list ids = S_list(key::scan_ids);
  const bool props = S_int(key::pass_n) % PROPS_PASSES == 0;
  py::dict known = S_map(key::known);
  py::object clock = get(module("time"_n), "perf_counter"_n);
  py::object library = system_library();
  // Taken out of its place: what the editor calls meanwhile may reset the scan, or walk itself.
  Course now = std::exchange(course(), {});
  follow(now, ids);
  std::vector<Seen> &seen = now.seen;
  auto index = static_cast<Py_ssize_t>(std::max(S_int(key::scan_i), 0LL));
  double quota = S_real(key::scan_quota);
  // Stored also when an actor fails, so that the next walk begins behind it.
  Finally store([&] {
    course() = course().ids ? Course() : std::move(now);  // after a walk within this one: neither
    set_S(key::scan_i, index);
    set_S(key::scan_quota, quota);
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

}  // namespace

void _scan_fast() {
  if (_in_pie()) return;  // begun since the last poll: a listing gives nothing, and logs an error
  const py::list selected = selected_actors();
  const auto count = static_cast<Py_ssize_t>(selected.size());
  for (py::handle actor : count <= FAST_MAX ? selected : py::list()) {
    if (is_a(actor, "InstancedFoliageActor"_n)) continue;
    py::object aid = str(path_of(actor));
    bool mirrored = static_cast<bool>(find(S_map(key::known), aid));
    if (!mirrored) {
      py::object kind = _kind(aid, actor);
      mirrored = !kind.is_none() && _in_scope(aid, actor, kind);
    }
    if (mirrored) _diff_actor(aid, actor, true);
  }
  if (S_flag(key::sel_sync) && count <= SELECTION_MAX) report_selection(selected);
}

void _scan_step(double dt) {
  const double end = perf_counter() + SCAN_BUDGET;
  const auto count = static_cast<double>(S_list(key::scan_ids).size());
  const double cycle = std::max(count / SCAN_RATE, CYCLE);
  const double quota =
      std::min(std::max(count, 1.0),
               S_real(key::scan_quota) + count * std::clamp(dt, 0.0, LONGEST_FRAME) / cycle);
  set_S(key::scan_quota, quota);
  if (static_cast<double>(S_int(key::scan_i)) < count) {
    if (quota >= 1.0) walk(end);
    return;
  }
  const double now = perf_counter();
  if (now - S_real(key::list_t) < cycle || _in_pie()) return;
  set_S(key::list_t, now);
  list_level();
}

void bind_walk(py::module_ &m) {
  m.attr("SCAN_BUDGET") = SCAN_BUDGET;
  m.attr("CYCLE") = CYCLE;
  m.attr("FAST_MAX") = FAST_MAX;
  m.def("_scan_fast", &_scan_fast, "Compare the selected actors; report the selection.");
  m.def("_scan_step", &_scan_step, py::arg("dt"), "Walk on through the level; dt in seconds.");
}

}  // namespace kestrix
