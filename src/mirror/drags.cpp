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
  py::object start;  // transform
};

/// Takes the drags that are over out of "touched"; those whose actor has gone are forgotten.
std::vector<Drag> take_finished(bool all) {
  const double now = perf_counter();
  py::dict touched = S_map(key::touched);
  py::list done;
  each_entry(touched, [&](const py::object &aid, const py::object &entry) {
    if (all || now - real(nth(entry, 1)) > QUIET) append(done, aid);
  });
  std::vector<Drag> drags;
  for (py::handle aid : done) {
    py::object start = nth(item(touched, aid), 0);
    drop(touched, aid);
    py::object actor = _find_actor(aid);
    if (!actor.is_none()) drags.push_back({actor, start});
  }
  return drags;
}

/// Records for undo where the actor stood when the drag began, and leaves it where it is.
void record_drag(const Drag &drag) {
  py::object end = call(drag.actor, "get_actor_transform"_n);
  set_transform(drag.actor, drag.start);
  const auto failure = failure_of([&] { call(drag.actor, "modify"_n); });
  set_transform(drag.actor, end);  // the user's move stands, with an undo step or without
  if (failure) failure->raise();
}

std::string title_of(const std::vector<Drag> &drags) {
  // A title isn't worth the undo step.
  const auto label = [&] { return text(call(drags[0].actor, "get_actor_label"_n)); };
  return "Verrin: move " + (drags.size() == 1 ? attempt(label, std::string("an actor"))
                                              : std::to_string(drags.size()) + " actors");
}

void note_start(py::handle aid, py::handle actor) {
  py::dict touched = S_map(key::touched);
  py::object entry = find(touched, aid);
  py::object start = entry ? nth(entry, 0) : call(actor, "get_actor_transform"_n);
  py::list updated;
  append(updated, start);
  append(updated, to_py(perf_counter()));
  put(touched, aid, updated);
}

}  // namespace

void set_transform(py::handle actor, py::handle transform) {
  call(actor, "set_actor_transform"_n, transform, false, true);
}

bool _apply_xf(py::handle aid, py::handle xf) {
  py::object actor = _find_actor(aid);
  if (actor.is_none()) return false;
  if (is_foliage_or_landscape(actor)) return true;
  py::object transform = _transform_from_xf(xf);
  note_start(aid, actor);
  set_transform(actor, transform);
  // A move of the editor's that a failed tick has left waiting is older, and would undo this one at
  // the peer.
  drop(S_map(key::xf_out), aid);
  py::dict known = S_map(key::known);
  if (!find(known, aid)) _remember(aid, actor, _info(actor, aid, false, true));
  put(item(item(known, aid), "info"_n), "xf"_n, _xf_of(actor));
  return true;
}

void _drag_settle(bool force) {
  if (!size(S_map(key::touched))) return;
  const std::vector<Drag> drags = take_finished(force);
  if (drags.empty()) return;
  std::optional<Failure> first;
  in_transaction(title_of(drags), [&] {
    for (const Drag &drag : drags) {
      auto failure = failure_of([&] { record_drag(drag); });
      if (failure && !first) first = std::move(failure);
    }
  });
  if (first) first->raise();
}

void _h_xf(const py::dict &m) {
  py::list unknown;
  std::optional<Failure> first;
  for (py::handle pair : as_list(given_or(m, "items"_n, py::list()))) {
    auto failure = failure_of([&] {
      if (PyList_GET_SIZE(as_list(pair).ptr()) != 2) fail_type("a move is an [id, transform] pair");
      py::object aid = nth(pair, 0);
      if (!PyUnicode_Check(aid.ptr())) fail_type("an actor's id is a text");
      if (!_apply_xf(aid, nth(pair, 1))) append(unknown, aid);
    });
    if (failure && !first) first = std::move(failure);
  }
  if (!unknown.empty()) _send(message("unknown").set("ids"_n, unknown));
  _invalidate_viewports();
  if (first) first->raise();
}

void _h_drag_end(const py::dict &) {
  _drag_settle(true);
}

void bind_drags(py::module_ &m) {
  m.def("_apply_xf", &_apply_xf, py::arg("aid"), py::arg("xf"),
        "Move an actor without an undo record; False if there is no such actor.");
  m.def("_drag_settle", &_drag_settle, py::arg("force") = false,
        "One undo step of the drags that are over, or of all.");
  bind_handler(m, "xf", &_h_xf, {.in_level = true}, "Move actors.");
  bind_handler(m, "drag_end", &_h_drag_end, {.in_level = true}, "The drag is over.");
}

}  // namespace kestrix
