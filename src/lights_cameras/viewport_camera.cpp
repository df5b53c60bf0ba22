#include "lights_cameras/viewport_camera.h"

#include "link/xf.h"

namespace kestrix {

namespace {

// Degrees; what the editor shows unless told otherwise.
constexpr double DEFAULT_FOV = 90.0;

void append_rounded(py::list &out, py::handle vector, int decimals) {
  for (const Name axis : {"x"_n, "y"_n, "z"_n}) {
    append(out, to_py(_r(real(vector, axis), decimals)));
  }
}

}  // namespace

py::object _les() {
  return subsystem("LevelEditorSubsystem"_n);
}

py::object _cam_key() {
  py::object key = S("cam_key"_n);
  if (!truth(key)) {
    key = call(_les(), "get_active_viewport_config_key"_n);
    set_S("cam_key"_n, key);
  }
  return key;
}

py::object _cam_state(py::handle key) {
  py::object pane = truth(key) ? to_py(key) : _cam_key();
  py::object view = call(_les(), "get_level_viewport_camera_info"_n, pane);
  if (!truth(view)) return py::none();
  py::object rotation = nth(view, 1);
  py::object math = unreal("MathLibrary"_n);
  py::list state;
  append_rounded(state, nth(view, 0), 3);
  append_rounded(state, call(math, "get_forward_vector"_n, rotation), 6);
  append_rounded(state, call(math, "get_up_vector"_n, rotation), 6);
  py::object fov = call(_les(), "get_level_viewport_fov"_n, pane);
  append(state, to_py(_r(truth(fov) ? real(fov) : DEFAULT_FOV, 3)));
  return state;
}

void bind_viewport_camera(py::module_ &m) {
  m.def("_les", &_les, "The LevelEditorSubsystem.");
  m.def("_cam_key", &_cam_key, "The followed viewport pane's key.");
  m.def("_cam_state", &_cam_state, py::arg("key") = py::none(), "The camera state of a pane.");
}

}  // namespace kestrix
