#include "lights_cameras/exposure.h"

#include <cmath>

#include "mirror/actors.h"

namespace kestrix {

namespace {

// Stops between a radiometric watt and 683 lumens, the peak luminous efficacy: the peer's view
// counts in watts, the editor in lumens.
const double EXPO_OFFSET = std::log2(683.0);

constexpr const char *LABEL = "Kestrix Exposure (Blender 1:1)";
constexpr const char *FOLDER = "Kestrix";
constexpr double PRIORITY = 1000.0;  // above whatever volumes the level has

py::object find_volume() {
  py::object found = py::none();
  each(level_actors(), [&](const py::object &actor) {
    if (!found.is_none() || !is_a(actor, "PostProcessVolume"_n)) return;
    if (_tags_of(actor).contains(EXPO_TAG)) found = actor;
  });
  return found;
}

/// A volume that was only half made would cover the whole level, or never be found again.
[[noreturn]] void take_back(py::handle volume, const Failure &failure) {
  attempt([&] { call(_eas(), "destroy_actor"_n, volume); });
  failure.raise();
}

py::object make_volume() {
  py::object volume =
      call(_eas(), "spawn_actor_from_class"_n, unreal("PostProcessVolume"_n),
           invoke(unreal("Vector"_n), 0, 0, 0), invoke(unreal("Rotator"_n), 0, 0, 0));
  if (!exists(volume)) fail("could not add the exposure volume");
  const auto failure = failure_of([&] {
    call(volume, "set_actor_label"_n, LABEL);
    attempt([&] { call(volume, "set_folder_path"_n, FOLDER); });
    py::list tags;
    append(tags, to_py(EXPO_TAG));
    _set_tags(volume, tags);
    set_prop(volume, "unbound"_n, true);
    set_prop(volume, "priority"_n, PRIORITY);
  });
  if (failure) take_back(volume, *failure);
  return volume;
}

/// Sets a post-process setting together with the switch that makes it count.
template <class T>
void override_setting(py::handle settings, Name override_switch, Name name, const T &value) {
  set_prop(settings, override_switch, true);
  set_prop(settings, name, value);
}

void fix_exposure(py::handle volume, double bias) {
  py::object settings = prop(volume, "settings"_n);  // a copy, to be written back
  override_setting(settings, "override_auto_exposure_method"_n, "auto_exposure_method"_n,
                   get(unreal("AutoExposureMethod"_n), "AEM_MANUAL"_n));
  override_setting(settings, "override_auto_exposure_apply_physical_camera_exposure"_n,
                   "auto_exposure_apply_physical_camera_exposure"_n, false);
  set_prop(settings, "override_auto_exposure_bias"_n, true);
  set_real(settings, "auto_exposure_bias"_n, bias);
  set_prop(volume, "settings"_n, settings);
}

}  // namespace

py::object _expo_volume(bool make) {
  py::object volume = find_volume();
  return volume.is_none() && make ? make_volume() : volume;
}

void _h_exposure(const py::dict &m) {
  const bool on = flag(m, "on"_n);
  bool found = false;
  in_transaction("Verrin: exposure", [&] {
    // Read before a volume is made: a bad number must leave nothing behind.
    const double bias = on ? number_given(m, "comp"_n).value_or(-EXPO_OFFSET) : 0.0;
    const bool is_new = on && find_volume().is_none();
    py::object volume = _expo_volume(on);
    found = exists(volume);
    if (!found) return;
    const auto failure = failure_of([&] {
      call(volume, "modify"_n);
      if (on) fix_exposure(volume, bias);
      set_prop(volume, "enabled"_n, on);
    });
    if (failure && is_new) take_back(volume, *failure);
    if (failure) failure->raise();
  });
  if (found) _invalidate_viewports();
}

void bind_exposure(py::module_ &m) {
  m.attr("EXPO_TAG") = EXPO_TAG;
  m.attr("EXPO_OFFSET") = EXPO_OFFSET;
  m.def("_expo_volume", &_expo_volume, py::arg("make"),
        "The exposure volume; None if there is none and it isn't to be made.");
  bind_handler(m, "exposure", &_h_exposure, {.in_level = true, .latest = ""},
               "Switch the exposure volume on or off.");
}

}  // namespace kestrix
