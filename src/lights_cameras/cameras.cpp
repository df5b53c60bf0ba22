#include "lights_cameras/cameras.h"

#include <cmath>
#include <numbers>

namespace kestrix {

namespace {

// Width in millimetres of the sensor that a record without one means: full frame.
constexpr double FULL_FRAME = 36.0;

py::object cine_component(py::handle actor) {
  return call(actor, "get_cine_camera_component"_n);
}

py::object camera_component(py::handle actor) {
  py::object component = call(actor, "get_component_by_class"_n, unreal("CameraComponent"_n));
  if (!exists(component)) fail("the camera has no camera component");
  return component;
}

constexpr std::uint8_t DECIMALS = 4;

/// Horizontal field of view in degrees of a lens; both lengths in the same unit.
double field_of_view(double sensor_width, double focal) {
  if (focal == 0.0) {
    fail("a focal length of 0 has no field of view", PyExc_ZeroDivisionError);
  }
  return 2.0 * std::atan(sensor_width / 2.0 / focal) * (180.0 / std::numbers::pi);
}

void apply_lens(py::handle component, py::handle p) {
  const auto focal = number_given(p, "focal"_n);
  const auto width = number_given(p, "sw"_n);
  const auto height = number_given(p, "sh"_n);
  call(component, "modify"_n);
  if (width || height) {
    // What a script reads may still be the component's own.
    py::object filmback = call(prop(component, "filmback"_n), "copy"_n);
    if (width) set_real(filmback, "sensor_width"_n, *width);
    if (height) set_real(filmback, "sensor_height"_n, *height);
    set_prop(component, "filmback"_n, filmback);
  }
  if (focal) set_real(component, "current_focal_length"_n, *focal);
}

void apply_angle(py::handle component, py::handle p) {
  auto fov = number_given(p, "fov"_n);
  if (!fov) {
    const auto focal = number_given(p, "focal"_n);
    if (!focal) return;
    fov = field_of_view(number_given(p, "sw"_n).value_or(FULL_FRAME), *focal);
  }
  call(component, "modify"_n);
  set_real(component, "field_of_view"_n, *fov);
}

}  // namespace

void read_camera(Draft &draft, py::handle actor) {
  const auto set = [&](Name field, py::handle obj, Name property) {
    draft.set(field, real(prop(obj, property)), DECIMALS);
  };
  if (!is_a(actor, "CineCameraActor"_n)) {
    return set("fov"_n, camera_component(actor), "field_of_view"_n);
  }
  py::object component = cine_component(actor);
  py::object filmback = prop(component, "filmback"_n);
  set("focal"_n, component, "current_focal_length"_n);
  set("sw"_n, filmback, "sensor_width"_n);
  set("sh"_n, filmback, "sensor_height"_n);
}

py::dict _camera_props(py::handle actor) {
  Draft draft;
  read_camera(draft, actor);
  return draft.to_record();
}

void _apply_camera(py::handle actor, py::handle p) {
  const py::dict record = as_map(p, "a camera record");
  if (is_a(actor, "CineCameraActor"_n)) {
    apply_lens(cine_component(actor), record);
  } else {
    apply_angle(camera_component(actor), record);
  }
}

void bind_cameras(py::module_ &m) {
  def(m, "_camera_props", &_camera_props, py::arg("actor"));
  def(m, "_apply_camera", &_apply_camera, py::arg("actor"), py::arg("p"));
}

}  // namespace kestrix
