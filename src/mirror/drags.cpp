#include "mirror/drags.h"

#include <vector>

#include "link/xf.h"
#include "mirror/actors.h"
#include "mirror/info.h"
#include "mirror/mirrored.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds without a move after which a drag is over.
constexpr double QUIET = 0.35;

struct Drag {
  py::object actor;
  py::object start;  // transforms
  py::object end;
};

/// How many actors this one hangs below.
int depth_of(py::object actor) {
  constexpr int limit = 64;  // of what editors build, and of a chain that never ends
  int depth = 0;
  attempt([&] {
    while (depth < limit && exists(actor = call<"get_attach_parent_actor">(actor))) ++depth;
  });
  return depth;
}

/// Sorts so that each actor comes behind what it is attached to: a parent that moves takes its
/// children along, so they are set behind it.
template <class Item>
void parents_first(std::vector<Item> &items) {
  if (items.size() < 2) return;
  std::vector<std::pair<int, size_t>> order;
  for (const Item &item : items) order.emplace_back(depth_of(item.actor), order.size());
  if (std::is_sorted(order.begin(), order.end())) return;  // most hang below nothing
  std::sort(order.begin(), order.end());
  std::vector<Item> sorted;
  for (const auto &[depth, i] : order) sorted.push_back(std::move(items[i]));
  items = std::move(sorted);
}

/// The ids of the drags that are over. "touched" has the one that moved last at its end.
py::list finished(bool all) {
  const double now = perf_counter();
  py::list done;
  PyObject *aid = nullptr;
  PyObject *entry = nullptr;
  const py::dict touched = S_map(key::touched);
  for (Py_ssize_t at = 0; PyDict_Next(touched.ptr(), &at, &aid, &entry);) {
    const py::object held = to_py(py::handle(aid));
    if (!all && now - real(nth(to_py(py::handle(entry)), 1)) <= QUIET) break;
    append(done, held);
  }
  return done;
}

/// Takes the drags that are over out of "touched"; those whose actor has gone are forgotten.
std::vector<Drag> take_finished(bool all) {
  std::vector<Drag> drags;
  for (py::handle aid : finished(all)) {
    py::dict touched = S_map(key::touched);
    py::object entry = find(touched, aid);
    drop(touched, aid);
    py::object actor = _find_actor(aid);
    if (entry && exists(actor)) drags.push_back({actor, nth(entry, 0), {}});
  }
  parents_first(drags);
  return drags;
}

/// Records for undo where the actors stood when the drag began, and leaves them where they are:
/// first all go back, so that none is recorded where a parent's way back has put it.
void record_drags(std::vector<Drag> &drags) {
  FirstFailure failures;
  const auto for_each = [&](auto &&f) {
    std::erase_if(drags, [&](Drag &drag) { return !failures.attempt([&] { f(drag); }); });
  };
  for_each([](Drag &drag) { drag.end = call(drag.actor, "get_actor_transform"_n); });
  const std::vector<Drag> moved = drags;
  for_each([](Drag &drag) { set_transform(drag.actor, drag.start); });
  for_each([](Drag &drag) { call(drag.actor, "modify"_n); });
  // The user's move stands, with an undo step or without.
  for (const Drag &drag : moved) {
    failures.attempt([&] { set_transform(drag.actor, drag.end); });
  }
  failures.raise();
}

std::string title_of(const std::vector<Drag> &drags) {
  // A title isn't worth the undo step.
  const auto label = [&] { return text(call(drags[0].actor, "get_actor_label"_n)); };
  return "Verrin: move " + (drags.size() == 1 ? attempt(label, std::string("an actor"))
                                              : std::to_string(drags.size()) + " actors");
}

struct Move {
  py::object aid;
  py::object actor;
  py::object transform;
};

/// Notes the time of the move, and where the actor stands if its drag begins with it.
void note_start(const Move &move, py::handle now) {
  py::dict touched = S_map(key::touched);
  py::object entry = find(touched, move.aid);
  py::object start = entry ? nth(entry, 0) : call<"get_actor_transform">(move.actor);
  py::list updated(2);
  PyList_SET_ITEM(updated.ptr(), 0, start.release().ptr());
  PyList_SET_ITEM(updated.ptr(), 1, now.inc_ref().ptr());
  if (entry) drop(touched, move.aid);  // it goes to the end
  put(touched, move.aid, updated);
}

void carry_out(const Move &move) {
  set_transform(move.actor, move.transform);
  // A move of the editor's that a failed tick has left waiting is older, and would undo this one at
  // the peer.
  drop(S_map(key::xf_out), move.aid);
  py::object info = known_info(move.aid);
  if (!info) {
    _remember(move.aid, move.actor, _info(move.actor, move.aid, false, true));
    info = known_info(move.aid);
  }
  put(info, "xf"_n, _xf_of(move.actor));
}

/// Appends the move of that actor and notes where it starts, unless it is one that stays where it
/// is; false if there is no such actor.
bool prepare(std::vector<Move> &moves, py::handle aid, py::handle xf, py::handle now) {
  py::object actor = _find_actor(aid);
  if (actor.is_none()) return false;
  if (is_foliage_or_landscape(actor)) return true;
  Move move{to_py(aid), actor, _transform_from_xf(xf)};
  note_start(move, now);
  moves.push_back(std::move(move));
  return true;
}

}  // namespace

void set_transform(py::handle actor, py::handle transform) {
  call<"set_actor_transform">(actor, transform, false, true);
}

bool _apply_xf(py::handle aid, py::handle xf) {
  std::vector<Move> moves;
  if (!prepare(moves, aid, xf, to_py(perf_counter()))) return false;
  for (const Move &move : moves) carry_out(move);
  return true;
}

void _drag_settle(bool force) {
  if (!size(S_map(key::touched))) return;
  std::vector<Drag> drags = take_finished(force);
  if (drags.empty()) return;
  in_transaction(title_of(drags), [&] { record_drags(drags); });
}

void _h_xf(const py::dict &m) {
  py::list unknown;
  std::vector<Move> moves;
  const py::object now = to_py(perf_counter());
  FirstFailure failures;
  for (py::handle pair : as_list(given_or(m, "items"_n, py::list()))) {
    failures.attempt([&] {
      if (PyList_GET_SIZE(as_list(pair).ptr()) != 2) fail_type("a move is an [id, transform] pair");
      py::object aid = nth(pair, 0);
      if (!PyUnicode_Check(aid.ptr())) fail_type("an actor's id is a text");
      if (!prepare(moves, aid, nth(pair, 1), now)) append(unknown, aid);
    });
  }
  parents_first(moves);
  for (const Move &move : moves) {
    failures.attempt([&] { carry_out(move); });
  }
  if (!unknown.empty()) _send(message("unknown").set("ids"_n, unknown));
  _invalidate_viewports();
  failures.raise();
}

void _h_drag_end(const py::dict &) {
  _drag_settle(true);
}

void bind_drags(py::module_ &m) {
  def(m, "_apply_xf", &_apply_xf, py::arg("aid"), py::arg("xf"));
  def(m, "_drag_settle", &_drag_settle, py::arg("force") = false);
  bind_handler(m, "xf", &_h_xf, {.in_level = true});
  bind_handler(m, "drag_end", &_h_drag_end, {.in_level = true});
}

}  // namespace kestrix
