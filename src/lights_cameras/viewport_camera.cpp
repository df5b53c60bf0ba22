#include "lights_cameras/viewport_camera.h"

#include <cmath>
#include "link/dispatch.h"

#include "link/xf.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

// Degrees; what the editor shows unless told otherwise.
constexpr double DEFAULT_FOV = 90.0;
// What the peer may set; beyond, the view is of no use.
constexpr double NARROWEST_FOV = 5.0;
constexpr double WIDEST_FOV = 170.0;

// Differences up to these don't show.
constexpr double LOCATION_STEP = 0.05;  // editor units
constexpr double VECTOR_STEP = 2e-05;
constexpr double FOV_STEP = 0.01;  // degrees

constexpr Py_ssize_t FORWARD = 3, UP = 6, FOV = 9, STATE_SIZE = 10;

double step_at(Py_ssize_t i) {
  return i < FORWARD ? LOCATION_STEP : i < FOV ? VECTOR_STEP : FOV_STEP;
}

void append_rounded(py::list &out, py::handle vector, int decimals) {
  for (const Name axis : {"x"_n, "y"_n, "z"_n}) {
    append(out, to_py(_r(real(vector, axis), decimals)));
  }
}

py::object active_pane() {
  return call(_les(), "get_active_viewport_config_key"_n);
}

/// Whether a key names a pane: with no pane active the editor gives the empty name.
bool is_pane(py::handle key) {
  return truth(key) && text(key) != "None";
}

/// Location and rotation of a pane's camera, or nothing: engines up to 5.5 don't tell by pane.
py::object camera_info(py::handle key) {
  return call_if_there(_les(), "get_level_viewport_camera_info"_n, key);
}

/// Keeps the state as known to both sides and sends it.
void send_state(py::handle state, bool snap) {
  set_S(key::cam_last, state);
  Record m;
  m.set("t"_n, "cam").set("c"_n, state);
  if (snap) m.set("snap"_n, true);
  _send(m);
}

}  // namespace

py::object _les() {
  return subsystem("LevelEditorSubsystem"_n);
}

py::object _cam_key() {
  py::object key = S(key::cam_key);
  if (!is_pane(key)) {
    key = active_pane();
    set_S(key::cam_key, key);
  }
  return key;
}

py::object _cam_state(py::handle key) {
  py::object pane = is_pane(key) ? to_py(key) : _cam_key();
  py::object view = camera_info(pane);
  if (!truth(view)) return py::none();
  py::object rotation = nth(view, 1);
  py::object math = unreal("MathLibrary"_n);
  py::list state;
  append_rounded(state, nth(view, 0), 3);
  append_rounded(state, call(math, "get_forward_vector"_n, rotation), 6);
  append_rounded(state, call(math, "get_up_vector"_n, rotation), 6);
  py::object fov = call_if_there(_les(), "get_level_viewport_fov"_n, pane);
  append(state, to_py(_r(truth(fov) ? real(fov) : DEFAULT_FOV, 3)));
  return state;
}

bool _cam_equal(py::handle a, py::handle b) {
  if (!exists(a) || !exists(b)) return false;
  for (Py_ssize_t i = 0; i < STATE_SIZE; ++i) {
    if (std::abs(real(nth(a, i)) - real(nth(b, i))) > step_at(i)) return false;
  }
  return true;
}

void _on_cam_moved(py::handle /*loc*/, py::handle /*rot*/, py::handle vtype, py::handle /*index*/) {
  attempt([&] {
    if (!equal(vtype, get(unreal("LevelViewportType"_n), "LVT_PERSPECTIVE"_n))) return;
    set_S(key::cam_key, active_pane());
  });
}

void _cam_pick_pane() {
  py::object active;
  if (!attempt([&] { active = active_pane(); })) return;
  if (equal(active, S(key::cam_key))) {
    set_S(key::cam_probe, nullptr);
    return;
  }
  py::object info = camera_info(active);
  if (!truth(info)) return;
  py::object rotation = nth(info, 1);
  py::tuple sample =
      py::make_tuple(_r(real(rotation, "pitch"_n), 3), _r(real(rotation, "yaw"_n), 3), str(active));
  py::object before = S(key::cam_probe);
  set_S(key::cam_probe, sample);
  if (before.is_none() || !equal(nth(before, 2), sample[2]) || equal(before, sample)) return;
  set_S(key::cam_key, active);
  set_S(key::cam_last, nullptr);
}

void _cam_tick() {
  py::object state = _cam_state(py::none());
  if (!state.is_none() && !_cam_equal(state, S(key::cam_last))) send_state(state, false);
}

void _h_cam(const py::dict &m) {
  const py::list c = as_list(item(m, "c"_n));
  // All is read before the view changes, so that a bad message changes nothing.
  py::object location = vector_at(c);
  py::object rotation =
      call(unreal("MathLibrary"_n), "make_rot_from_xz"_n, vector_at(c, FORWARD), vector_at(c, UP));
  py::object given_fov = PyList_GET_SIZE(c.ptr()) > FOV ? nth(c, FOV) : py::none();
  const double fov = given_fov.is_none() ? 0.0 : number(given_fov, "field of view");
  py::object key = _cam_key();
  call_if_there(_les(), "set_level_viewport_camera_info"_n, location, rotation, key);
  if (fov != 0.0) {
    const double clamped = std::clamp(fov, NARROWEST_FOV, WIDEST_FOV);
    call_if_there(_les(), "set_level_viewport_fov"_n, clamped, key);
  }
  set_S(key::cam_last, _cam_state(key));
  _invalidate_viewports();
}

void _h_cam_mode(const py::dict &m) {
  set_S(key::cam_send, flag(m, "send"_n));
  set_S(key::cam_last, nullptr);
}

void _h_cam_get(const py::dict & /*m*/) {
  py::object state = _cam_state(py::none());
  if (!state.is_none()) send_state(state, true);
}

void bind_viewport_camera(py::module_ &m) {
  def(m, "_les", &_les);
  def(m, "_cam_key", &_cam_key);
  def(m, "_cam_state", &_cam_state, py::arg("key") = py::none());
  def(m, "_cam_equal", &_cam_equal, py::arg("a"), py::arg("b"));
  def(m, "_on_cam_moved", &_on_cam_moved, py::arg("loc"), py::arg("rot"), py::arg("vtype"),
      py::arg("index"));
  def(m, "_cam_pick_pane", &_cam_pick_pane);
  def(m, "_cam_tick", &_cam_tick);
  bind_handler(m, "cam", &_h_cam, {.latest = ""});
  bind_handler(m, "cam_mode", &_h_cam_mode);
  bind_handler(m, "cam_get", &_h_cam_get);
}

}  // namespace kestrix
