#include "editor/brush.h"

#include <cmath>

#include "link/dispatch.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Peers below this version don't know an unasked "brush".
constexpr long long REPORT_VERSION = 7;
// Seconds between looks at the brush.
constexpr double LOOK_INTERVAL = 2.0;

struct Setting {
  Name key;       // on the wire
  Name property;  // of the settings object
  bool is_flag;   // or else a number
};

const std::array<Setting, 6> &settings() {
  static const std::array<Setting, 6> table{
      Setting{"strength"_n, "PaintToolStrength"_n, false},
      Setting{"size"_n, "PaintBrushRadius"_n, false},
      Setting{"falloff"_n, "PaintBrushFalloff"_n, false},
      Setting{"use_target"_n, "bUseWeightTargetValue"_n, true},
      Setting{"target"_n, "WeightTargetValue"_n, false},
      Setting{"without_moving"_n, "bApplyWithoutMovingPaint"_n, true}};
  return table;
}

/// The value in the setting's type. Raises for what isn't one; NaN and infinity would go into the
/// editor's settings for good.
py::object converted(const Setting &setting, py::handle value) {
  if (setting.is_flag) return py::bool_(truth(value));
  const double number = real(value);
  if (!std::isfinite(number)) fail("a brush setting must be a finite number");
  return to_py(number);
}

void send_brush(py::handle values) {
  Record report = message("brush").set("ok"_n, !values.is_none());
  if (!values.is_none()) check(PyDict_Update(report.ptr(), values.ptr()));
  _send(report);
}

}  // namespace

py::object _landscape_ui() {
  return attempt(
      [] { return invoke(unreal("find_object"_n), nullptr, "/Engine/Transient.UISettings"); },
      py::object(py::none()));
}

py::object _brush_read() {
  py::object ui = _landscape_ui();
  if (ui.is_none()) return ui;
  py::dict values;
  for (const Setting &setting : settings()) {
    attempt([&] { put(values, setting.key, converted(setting, prop(ui, setting.property))); });
  }
  return size(values) ? py::object(values) : py::none();
}

void _h_brush_get(const py::dict &) {
  py::object values = _brush_read();
  set_S(key::brush_seen, values);
  send_brush(values);
}

void _h_brush_set(const py::dict &m) {
  py::object ui = _landscape_ui();
  if (ui.is_none()) return;
  for (const Setting &setting : settings()) {
    py::object value = given(m, setting.key);
    if (!value) continue;
    attempt([&] { set_prop(ui, setting.property, converted(setting, value)); });
  }
  // As the editor took them: it may clamp, and it keeps 32 bits.
  set_S(key::brush_seen, _brush_read());
}

void _brush_watch() {
  if (!live_conn() || peer_version() < REPORT_VERSION) return;
  const double now = wall_clock();
  if (now - S_real(key::brush_t) < LOOK_INTERVAL) return;
  set_S(key::brush_t, now);
  py::object values = _brush_read();
  if (values.is_none() || equal(values, S(key::brush_seen))) return;
  set_S(key::brush_seen, values);
  send_brush(values);
}

void bind_brush(py::module_ &m) {
  py::list rows;
  for (const Setting &setting : settings()) {
    py::handle type(reinterpret_cast<PyObject *>(setting.is_flag ? &PyBool_Type : &PyFloat_Type));
    append(rows, py::make_tuple(to_py(setting.key), to_py(setting.property), type));
  }
  m.attr("_BRUSH_PROPS") = py::tuple(rows);
  def(m, "_landscape_ui", &_landscape_ui);
  def(m, "_brush_read", &_brush_read);
  bind_handler(m, "brush_get", &_h_brush_get, {.read_only = true});
  bind_handler(m, "brush_set", &_h_brush_set, {.read_only = true});
  def(m, "_brush_watch", &_brush_watch);
}

}  // namespace kestrix
