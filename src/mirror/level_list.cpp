#include "mirror/level_list.h"

#include <cmath>
#include <limits>

#include "landscape/layout.h"
#include "lights_cameras/viewport_camera.h"
#include "link/xf.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds for which a landscape's bounds are good.
constexpr double LAND_BOX_AGE = 5.0;
// Text actors are for peers from this version on.
constexpr long long TEXT_VERSION = 4;

Point point_in(py::handle list) {
  return {real(nth(list, 0)), real(nth(list, 1)), real(nth(list, 2))};
}

/// Whether the folder is one of these, or lies below one.
bool in_folders(std::string_view folder, py::handle folders) {
  for (py::handle entry : list_of(folders)) {
    const std::string_view parent = view(entry);
    if (folder == parent || (folder.starts_with(parent) && folder[parent.size()] == '/'))
      return true;
  }
  return false;
}

bool folder_fits(py::handle actor, py::handle scope) {
  py::object only = given_or(scope, "folders"_n, py::list());
  py::object exclude = given_or(scope, "exclude"_n, py::list());
  if (!truth(only) && !truth(exclude)) return true;
  py::object folder = _folder_of(actor);
  if (truth(only) && !in_folders(view(folder), only)) return false;
  return !in_folders(view(folder), exclude);
}

/// Squared distance from the camera to a landscape's box, or to any other actor's location.
double distance2(py::handle aid, py::handle actor, py::handle kind, const Point &camera) {
  Point low = {};
  Point high = {};
  if (is_kind(kind, "terrain")) {
    py::tuple box = _land_box(aid, actor);
    low = point_in(box[0]);
    high = point_in(box[1]);
  } else {
    low = high = point_of(call(actor, "get_actor_location"_n));
  }
  double sum = 0.0;
  for (size_t i = 0; i < 3; ++i) {
    const double d = std::max({camera[i] - high[i], low[i] - camera[i], 0.0});
    sum += d * d;
  }
  return sum;
}

}  // namespace

bool _in_scope(py::handle aid, py::handle actor, py::handle k) {
  py::dict scope = S_map(key::scope);
  if (!size(scope)) return !is_kind(k, "text") || peer_version() >= TEXT_VERSION;
  py::object wanted = find(given_or(scope, "kinds"_n, py::dict()), k);
  if (wanted && !truth(wanted)) return false;
  if (is_kind(k, "text") && peer_version() < TEXT_VERSION) return false;
  if (!folder_fits(actor, scope)) return false;
  py::object center = given(scope, "center"_n);
  const double radius = real(given_or(scope, "radius"_n, 0.0));
  if (radius <= 0.0 || !center) return true;
  return distance2(aid, actor, k, point_in(center)) <= radius * radius;
}

void _scope_center() {
  py::dict scope = S_map(key::scope);
  if (real(given_or(scope, "radius"_n, 0.0)) <= 0.0) return;
  // Without a camera, or on an engine that can't tell, the radius limits nothing.
  py::object camera = attempt([] { return _cam_state(py::none()); }, py::object(py::none()));
  if (!truth(camera)) {
    put(scope, "center"_n, nullptr);
  } else {
    put(scope, "center"_n, own(PySequence_GetSlice(camera.ptr(), 0, 3)));
  }
}

py::tuple _land_box(py::handle aid, py::handle land) {
  const double now = perf_counter();
  py::dict boxes = S_map(key::land_box);
  if (py::object cached = find(boxes, aid); cached && now - real(nth(cached, 0)) < LAND_BOX_AGE) {
    return py::make_tuple(nth(cached, 1), nth(cached, 2));
  }
  constexpr double infinity = std::numeric_limits<double>::infinity();
  Point low = {infinity, infinity, infinity};
  Point high = {-infinity, -infinity, -infinity};
  for (py::handle part : _land_parts(land)) {
    py::object bounds = call(part, "get_actor_bounds"_n, false);
    const Point origin = point_of(nth(bounds, 0));
    const Point extent = point_of(nth(bounds, 1));
    if (extent[0] <= 0 && extent[1] <= 0) continue;
    for (size_t i = 0; i < 3; ++i) {
      low[i] = std::min(low[i], origin[i] - extent[i]);
      high[i] = std::max(high[i], origin[i] + extent[i]);
    }
  }
  if (std::isinf(low[0])) low = high = point_of(call(land, "get_actor_location"_n));
  py::tuple box = py::make_tuple(list_of_numbers(low), list_of_numbers(high));
  put(boxes, aid, py::make_tuple(now, box[0], box[1]));
  return box;
}

Judged judge(py::handle actor) {
  Judged judged;
  py::object aid;
  const auto failure = failure_of([&] {
    aid = str(path_of(actor));
    py::object kind = _kind(aid, actor);
    if (!kind.is_none() && _in_scope(aid, actor, kind)) judged.aid = aid;
  });
  if (!failure) return judged;
  judged.failed = true;
  if (aid && find(S_map(key::known), aid)) {
    judged.aid = aid;
  } else {
    _bad_actor(aid ? aid : to_py("an actor without a path"), failure->text());
  }
  return judged;
}

py::dict _list_actors() {
  py::dict actors;
  each(level_actors(), [&](const py::object &actor) {
    if (const Judged judged = judge(actor); judged.aid) put(actors, judged.aid, actor);
  });
  return actors;
}

void bind_level_list(py::module_ &m) {
  def(m, "_in_scope", &_in_scope, py::arg("aid"), py::arg("actor"), py::arg("k").none(true));
  def(m, "_scope_center", &_scope_center);
  def(m, "_land_box", &_land_box, py::arg("aid"), py::arg("land"));
  def(m, "_list_actors", &_list_actors);
}

}  // namespace kestrix
