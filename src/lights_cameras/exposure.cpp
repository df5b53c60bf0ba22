#include "lights_cameras/exposure.h"

#include <cmath>

#include "mirror/actors.h"
#include "mirror/new_actor.h"

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

py::object make_volume() {
  py::object volume =
      add_actor("spawn_actor_from_class"_n, unreal("PostProcessVolume"_n),
                invoke(unreal("Vector"_n), 0, 0, 0), "could not add the exposure volume");
  // One that was only half made would cover the whole level, or never be found again.
  finish_or_take_away(volume, [&] {
    call(volume, "set_actor_label"_n, LABEL);
    attempt([&] { call(volume, "set_folder_path"_n, FOLDER); });
    py::list tags;
    append(tags, to_py(EXPO_TAG));
    _set_tags(volume, tags);
    set_prop(volume, "unbound"_n, true);
    set_prop(volume, "priority"_n, PRIORITY);
  });
  return volume;
}

/// Sets a post-process setting together with the switch that makes it count.
template <class T>
void override_setting(py::handle settings, Name override_switch, Name name, const T &value) {
  set_prop(settings, override_switch, true);
  set_prop(settings, name, value);
}

void fix_exposure(py::handle settings, double bias) {
  override_setting(settings, "override_auto_exposure_method"_n, "auto_exposure_method"_n,
                   get(unreal("AutoExposureMethod"_n), "AEM_MANUAL"_n));
  override_setting(settings, "override_auto_exposure_apply_physical_camera_exposure"_n,
                   "auto_exposure_apply_physical_camera_exposure"_n, false);
  set_prop(settings, "override_auto_exposure_bias"_n, true);
  set_real(settings, "auto_exposure_bias"_n, bias);
}

/// Puts the volume in effect with that bias, or out of effect; a failure changes nothing.
void switch_volume(py::handle volume, bool on, double bias) {
  call(volume, "modify"_n);
  if (!on) return set_prop(volume, "enabled"_n, false);
  // What a script reads may still be the volume's own.
  py::object before = call(prop(volume, "settings"_n), "copy"_n);
  py::object settings = call(before, "copy"_n);
  fix_exposure(settings, bias);
  const auto failure = failure_of([&] {
    set_prop(volume, "settings"_n, settings);
    set_prop(volume, "enabled"_n, true);
  });
  if (!failure) return;
  attempt([&] { set_prop(volume, "settings"_n, before); });
  failure->raise();
}

}  // namespace

py::object _expo_volume(bool make) {
  py::object volume = find_volume();
  return volume.is_none() && make ? make_volume() : volume;
}

void _h_exposure(const py::dict &m) {
  const bool on = flag(m, "on"_n);
  // Read before a volume is made: a bad number must leave nothing behind.
  const double bias = on ? number_given(m, "comp"_n).value_or(-EXPO_OFFSET) : 0.0;
  py::object volume;
  in_transaction_or_none("Verrin: exposure", [&] {
    volume = find_volume();
    if (exists(volume)) return switch_volume(volume, on, bias);
    if (!on) return;
    volume = make_volume();
    finish_or_take_away(volume, [&] { switch_volume(volume, on, bias); });
  });
  if (exists(volume)) _invalidate_viewports();
}

void bind_exposure(py::module_ &m) {
  m.attr("EXPO_TAG") = EXPO_TAG;
  m.attr("EXPO_OFFSET") = EXPO_OFFSET;
  def(m, "_expo_volume", &_expo_volume, py::arg("make"));
  bind_handler(m, "exposure", &_h_exposure, {.in_level = true, .latest = ""});
}

}  // namespace kestrix
