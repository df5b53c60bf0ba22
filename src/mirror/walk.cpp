#include "mirror/walk.h"

#include "mirror/course.h"
#include "mirror/diff.h"
#include "mirror/info.h"
#include "mirror/level_list.h"
#include "python/clock.h"

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

/// An actor that has only moved.
void update_xf(py::handle aid, py::handle info, const Draft &draft) {
  const py::list xf = list_of_numbers(draft.xf());
  if (equal(xf, item(info, "xf"_n))) return;
  put(S_map(key::xf_out), aid, xf);
  put(info, "xf"_n, xf);
}

/// Compares an actor of the mirror with what was read of it the last time or, if the mirror's
/// record has changed since, with that. `library`: SystemLibrary. False for an actor that the
/// editor has given another path meanwhile: the level must be listed from nothing.
bool look_at(py::handle library, py::handle entry, py::handle aid, Seen &seen, bool props) {
  const py::object actor = item(entry, "actor"_n);
  const py::dict info = as_map(item(entry, "info"_n), "a mirrored actor's record");
  if (!is_alive(library, actor)) return true;
  if (props && !equal(str(path_of(actor)), aid)) return false;
  Draft draft;
  // An actor in the mirror keeps its kind: the class of an object doesn't change.
  read_info(draft, actor, item(info, "kind"_n), props);
  const auto change = version_of(info) == seen.record_version
                          ? draft.change_since(seen.reading, settings())
                          : Draft::Change::OTHER;
  if (change == Draft::Change::NONE) return true;
  if (change == Draft::Change::MOVED) {
    update_xf(aid, info, draft);
  } else {
    update_entry(entry, aid, draft);
  }
  const py::object now = item(entry, "info"_n);
  seen.reading = Reading(draft, now);
  seen.record_version = version_of(now);
  return true;
}

/// Whether Play runs, begun since the last poll perhaps: the editor's lists are empty then, and
/// that says nothing of the level. The next tick tells the peer.
bool noticed_play() {
  if (!_in_pie()) return false;
  set_S(key::slow_t, 0.0);
  return true;
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

/// Whether an actor is mirrored may be remembered with it: not where its folder or place decides.
bool judged_for_good(const py::dict &scope) {
  return real(given_or(scope, "radius"_n, 0.0)) <= 0.0 &&
         !truth(given_or(scope, "folders"_n, py::list())) &&
         !truth(given_or(scope, "exclude"_n, py::list()));
}

/// Whether the editor gives the actors that it gave the last time.
bool same_actors(const Course &course, const py::list &actors) {
  return std::equal(course.rows.begin(), course.rows.end(), actors.begin(), actors.end(),
                    [](const Listed &row, py::handle actor) { return row.actor.is(actor); });
}

/// The actors as they are now; of those that `before` has, only what isn't mirrored is judged
/// again, and that only `anew`.
Course listing_of(const py::list &actors, Course before, bool anew) {
  Course now;
  py::list ids;
  size_t at = 0;
  for (py::handle actor : actors) {
    Listed *row = before.find(actor, at);
    if (row && row->place >= 0) {
      const auto place = static_cast<size_t>(row->place);
      row->place = static_cast<Py_ssize_t>(ids.size());
      append(ids, nth(before.ids, static_cast<Py_ssize_t>(place)));
      now.seen.push_back(std::move(before.seen[place]));
      now.rows.push_back(std::move(*row));
    } else if (row && !anew) {
      now.rows.push_back(std::move(*row));
    } else {
      const Judged judged = judge(actor);
      const bool mirrored = static_cast<bool>(judged.aid);
      // What couldn't be judged is asked again the next time.
      if (!judged.failed) {
        now.rows.push_back({to_py(actor), mirrored ? static_cast<Py_ssize_t>(ids.size()) : -1});
      }
      if (!mirrored) continue;
      append(ids, judged.aid);
      now.seen.emplace_back();
    }
  }
  now.ids = ids;
  return now;
}

/// Brings the mirror to the listing: what has gone, what is new, what is another actor of a name.
/// False if one of them must be tried again.
bool follow(const py::list &ids, const std::vector<Listed> &rows) {
  py::dict live;
  for (const Listed &row : rows) {
    if (row.place >= 0) put(live, PyList_GET_ITEM(ids.ptr(), row.place), row.actor);
  }
  const py::dict known = S_map(key::known);
  for (py::handle aid : ids) {
    if (find(live, aid)) continue;  // else one that couldn't be judged, and stays as it is
    if (py::object entry = find(known, aid)) put(live, aid, item(entry, "actor"_n));
  }
  remove_unlisted(live);
  bool done = true;
  each_entry(live, [&](const py::object &aid, const py::object &actor) {
    if (py::object entry = find(known, aid)) {
      if (!item(entry, "actor"_n).is(actor)) put(entry, "actor"_n, actor);
    } else if (const auto failure = failure_of([&] { _diff_actor(aid, actor, true); })) {
      _bad_actor(aid, failure->text());
      done = false;
    }
  });
  return done;
}

/// Lists the level anew, and begins the next pass.
void list_level() {
  const long long pass = S_int(key::pass_n);
  const bool anew = pass % RECLASSIFY_PASSES == RECLASSIFY_PASSES - 1;
  if (anew) forget_unmirrored_kinds();
  _scope_center();
  const py::list actors = level_actors();
  const py::dict scope = S_map(key::scope);
  // Taken out of its place: what the editor calls meanwhile may list the level, too.
  Course now = std::exchange(course(), {});
  const bool usable = now.ids && now.ids.is(S(key::scan_ids)) && judged_for_good(scope) &&
                      version_of(scope) == now.scope_version &&
                      peer_version() == now.peer_version &&
                      as_list(now.ids).size() == now.seen.size();
  const bool same = usable && !anew && version_of(S_map(key::known)) == now.known_version &&
                    same_actors(now, actors);
  if (!same) {
    now = listing_of(actors, usable ? std::move(now) : Course(), anew);
    const py::list ids = as_list(now.ids);
    const bool done = follow(ids, now.rows);
    set_S(key::scan_ids, ids);
    now.known_version = done ? version_of(S_map(key::known)) : 0;
    now.scope_version = version_of(S_map(key::scope));
    now.peer_version = peer_version();
  }
  course() = std::move(now);
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
  if (!now.ids || !now.ids.is(ids)) {
    now = Course();
    now.ids = ids;
    now.seen.resize(ids.size());
  }
  auto index = std::max<Py_ssize_t>(0, static_cast<Py_ssize_t>(S_int(key::scan_i)));
  double quota = S_real(key::scan_quota);
  // Stored also when an actor fails, so that the next walk begins behind it.
  Finally store([&] {
    course() = course().ids ? Course() : std::move(now);  // after a walk within this one: neither
    set_S(key::scan_i, index);
    set_S(key::scan_quota, quota);
  });
  const auto more = [&] {
    return index < std::min(PyList_GET_SIZE(ids.ptr()), static_cast<Py_ssize_t>(now.seen.size()));
  };
  while (more() && quota >= 1.0 && real(invoke(clock)) < end) {
    quota -= 1.0;
    const auto at = static_cast<size_t>(index);
    py::object aid = nth(ids, index++);
    if (py::object entry = find(known, aid)) {
      naming(aid, [&] {
        if (!look_at(library, entry, aid, now.seen[at], props)) now.rows.clear();
      });
    }
  }
}

}  // namespace

void _scan_fast() {
  if (noticed_play()) return;
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
    if (mirrored) naming(aid, [&] { _diff_actor(aid, actor, true); });
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
  if (now - S_real(key::list_t) < cycle || noticed_play()) return;
  set_S(key::list_t, now);
  list_level();
}

void bind_walk(py::module_ &m) {
  m.attr("SCAN_BUDGET") = SCAN_BUDGET;
  m.attr("CYCLE") = CYCLE;
  m.attr("FAST_MAX") = FAST_MAX;
  def(m, "_scan_fast", &_scan_fast);
  def(m, "_scan_step", &_scan_step, py::arg("dt"));
}

}  // namespace kestrix
