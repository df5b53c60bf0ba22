#include "editor/selection.h"

#include <cmath>
#include <limits>
#include <numbers>

#include "editor/toolbar.h"
#include "editor/window_focus.h"
#include "link/dispatch.h"
#include "link/xf.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

// Degrees: the viewport's angle where the editor can't tell, and the range that framing allows.
constexpr double DEFAULT_FOV = 90.0;
constexpr double MIN_FOV = 10.0;
constexpr double MAX_FOV = 150.0;
// A smaller thing is framed as if it had this radius, editor units.
constexpr double MIN_RADIUS = 50.0;
// How much farther away than the sphere around everything needs.
constexpr double MARGIN = 1.1;

struct Box {
  static constexpr double INF = std::numeric_limits<double>::infinity();
  Point low{INF, INF, INF};
  Point high{-INF, -INF, -INF};

  bool empty() const { return low[0] == INF; }

  /// Takes in the actor's bounds, unless they can't be had or aren't numbers to aim at.
  void take_in(py::handle actor) {
    attempt([&] {
      py::object bounds = call(actor, "get_actor_bounds"_n, false);
      const Point origin = point_of(nth(bounds, 0));
      const Point extent = point_of(nth(bounds, 1));
      for (size_t i = 0; i < 3; ++i) {
        if (!std::isfinite(origin[i]) || !std::isfinite(extent[i])) return;
      }
      for (size_t i = 0; i < 3; ++i) {
        low[i] = std::min(low[i], origin[i] - extent[i]);
        high[i] = std::max(high[i], origin[i] + extent[i]);
      }
    });
  }

  double radius() const {
    return 0.5 * std::hypot(high[0] - low[0], high[1] - low[1], high[2] - low[2]);
  }
};

/// The viewport's angle in degrees. An orthographic pane has none and gives 0.
double viewport_fov() {
  const double fov = attempt(
      [] {
        return real(call(subsystem("LevelEditorSubsystem"_n), "get_level_viewport_fov"_n, ""));
      },
      DEFAULT_FOV);
  return fov > 0.0 ? std::clamp(fov, MIN_FOV, MAX_FOV) : DEFAULT_FOV;
}

/// The id under which the peer knows the actor: a piece of a landscape goes as its landscape.
py::object linked_id(py::handle known, py::handle actor) {
  py::object aid = str(path_of(actor));
  if (find(known, aid) || !is_a(actor, "LandscapeProxy"_n) || is_a(actor, "Landscape"_n)) {
    return aid;
  }
  return attempt([&] { return str(path_of(call(actor, "get_landscape_actor"_n))); }, aid);
}

/// The ids of the selected actors that are linked, each once.
py::list selected_ids() {
  py::dict known = S_map(key::known);
  py::dict ids;
  each(selected_actors(), [&](const py::object &actor) {
    py::object aid = linked_id(known, actor);
    if (find(known, aid)) put(ids, aid, nullptr);
  });
  return list_of(ids);
}

void show_selected() {
  py::object conn = live_conn();
  if (!conn) return _warn("Show in Blender: Blender isn't connected");
  if (peer_version() < SHOW_VERSION) {
    return _warn("Show in Blender needs the Blender add-on 1.9.2 or later");
  }
  if (_in_pie()) return _warn("Show in Blender: Unreal is playing (PIE) - stop it first");
  const py::list ids = selected_ids();
  if (ids.empty()) {
    return _warn("Show in Blender: select actors that are linked to Blender first");
  }
  _allow_front(S(key::client_pid));
  send_to(conn, message("show").set("ids"_n, ids));
  flush(conn);
}

std::string question_text(py::handle what) {
  std::string word = text(what);
  if (word == "sync") return "which side wins";
  if (word == "level") return "which level to work on";
  return word;
}

}  // namespace

void _h_select(const py::dict &m) {
  py::dict found;  // path name -> actor: what is named twice counts once
  for (py::handle aid : as_list(given_or(m, "ids"_n, py::list()))) {
    py::object actor = _find_actor(aid);
    if (exists(actor)) put(found, str(path_of(actor)), actor);
  }
  const py::list actors = list_of(call(found, "values"_n));
  call(_eas(), "set_selected_level_actors"_n, actors);
  // The peer knows this selection, so the next scan has nothing to report.
  py::list ids = list_of(found);
  check(PyList_Sort(ids.ptr()));
  set_S(key::sel_last, ids);
  if (flag(m, "frame"_n) && !actors.empty()) _frame_actors(actors);
  if (flag(m, "focus"_n)) _to_front();
}

void _frame_actors(py::handle acts) {
  Box box;
  each(acts, [&](const py::object &actor) { box.take_in(actor); });
  if (box.empty()) return;
  py::object viewport = subsystem("UnrealEditorSubsystem"_n);
  py::object view = call(viewport, "get_level_viewport_camera_info"_n);
  if (!exists(view)) return;  // no pane has a camera
  py::object rotation = nth(view, 1);
  const Point forward = point_of(call(rotation, "get_forward_vector"_n));
  // A sphere of this radius just fits into a cone of that angle: distance = r / sin(angle / 2).
  const double half_angle = viewport_fov() / 2.0 * std::numbers::pi / 180.0;
  const double distance = std::max(box.radius(), MIN_RADIUS) / std::sin(half_angle) * MARGIN;
  const auto at = [&](size_t i) {
    return (box.low[i] + box.high[i]) / 2.0 - forward[i] * distance;
  };
  call(viewport, "set_level_viewport_camera_info"_n,
       invoke(unreal("Vector"_n), at(0), at(1), at(2)), rotation);
  _invalidate_viewports();
}

void show_in_blender() {
  if (const auto failure = failure_of(&show_selected)) {
    _warn("Show in Blender: " + failure->text());
  }
}

void _h_asking(const py::dict &m) {
  py::object what = given_or(m, "what"_n, nullptr);
  if (!truth(what)) what = py::none();
  if (!what.is_none() && !PyUnicode_Check(what.ptr())) fail_type("\"what\" must be a text");
  const py::object before = S(key::asking);
  set_S(key::asking, what);
  if (!what.is_none() && !equal(what, before)) {
    _log("Blender is waiting for your choice (" + question_text(what) +
         ") - answer it in Blender's Kestrix panel");
  }
  _toolbar_update();
}

void bind_selection(py::module_ &m) {
  bind_handler(m, "select", &_h_select, {.in_level = true});
  bind_handler(m, "asking", &_h_asking, {.read_only = true});
  def(m, "_frame_actors", &_frame_actors, py::arg("acts"));
  def(m, "show_in_blender", &show_in_blender);
}

}  // namespace kestrix
