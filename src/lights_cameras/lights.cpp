#include "lights_cameras/lights.h"

#include <cmath>
#include <numbers>
#include <vector>

#include "link/xf.h"

namespace kestrix {

namespace {

constexpr double PI = std::numbers::pi;
constexpr double CM2_PER_M2 = 10000.0;
constexpr double UNITLESS_PER_CD = 625.0;
constexpr double EV_LIMIT = 60.0;
// Keeps a closed cone, a source without size and a dark light out of divisions and logarithms.
constexpr double TINY = 1e-09;

// Differences up to these come from the editor's 8-bit colour, or don't show.
constexpr double COLOR_STEP = 0.002;
constexpr double TEMP_STEP = 0.5;  // kelvin

// A colour whose brightest channel lies outside doesn't fit into eight bits, or loses its hue
// there.
constexpr double DIMMEST = 0.02;
constexpr double BRIGHTEST = 1.0;

constexpr double WIDEST_CONE = 90.0;  // degrees

constexpr std::uint8_t COLOR_DECIMALS = 4;

py::object light_component(py::handle actor) {
  py::object lc = call<"get_component_by_class">(actor, unreal("LightComponent"_n));
  if (!exists(lc)) fail("the light has no light component");
  return lc;
}

template <NameText Property>
double real_prop(py::handle lc) {
  return real(prop<Property>(lc));
}

/// Whether `units` is that member of LightUnits; not every engine version has all of them.
bool is_unit(py::handle units, Name member) {
  py::object unit = get_if(unreal("LightUnits"_n), member);
  return unit && equal(units, unit);
}

/// The linear light of an 8-bit sRGB channel, as the record has it.
double linear(py::handle channel) {
  static const auto table = [] {
    std::array<double, 256> lights{};
    for (size_t i = 0; i < lights.size(); ++i) {
      lights[i] = _r(_srgb_to_lin(static_cast<double>(i)), COLOR_DECIMALS);
    }
    return lights;
  }();
  const double value = real(channel);
  if (!(value >= 0.0 && value <= 255.0)) return _srgb_to_lin(value);
  const auto index = static_cast<size_t>(value);
  return static_cast<double>(index) == value ? table[index] : _srgb_to_lin(value);
}

std::array<double, 3> color_of(py::handle lc) {
  py::object color = prop<"light_color">(lc);
  return {linear(get<"r">(color)), linear(get<"g">(color)), linear(get<"b">(color))};
}

Name light_type(py::handle actor) {
  if (is_a(actor, "DirectionalLight"_n)) return "sun"_n;
  if (is_a(actor, "SpotLight"_n)) return "spot"_n;
  if (is_a(actor, "RectLight"_n)) return "rect"_n;
  return "point"_n;
}

std::vector<double> channels_of(py::handle color) {
  std::vector<double> channels;
  each(color, [&](const py::object &channel) { channels.push_back(number(channel, "color")); });
  return channels;
}

/// Whether two colours differ visibly, over the channels that both have.
bool differ(const std::vector<double> &a, const std::vector<double> &b) {
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    if (std::abs(a[i] - b[i]) > COLOR_STEP) return true;
  }
  return false;
}

/// Sets the record's colour, if it differs from the current one. Gives the brightness that the
/// 8-bit colour can't hold: a factor for the intensity.
double apply_color(py::handle lc, py::handle p, py::handle cur) {
  py::object wanted = given(p, "color"_n);
  if (!wanted) return 1.0;
  const std::vector<double> color = channels_of(wanted);
  if (!differ(color, channels_of(item(cur, "color"_n)))) return 1.0;
  if (color.size() < 3) fail("color: three numbers were expected");
  const double largest = *std::max_element(color.begin(), color.end());
  const bool fits = largest <= 0.0 || (largest >= DIMMEST && largest <= BRIGHTEST);
  const double gain = fits ? 1.0 : largest;
  const auto channel = [&](size_t i) { return _lin_to_srgb8(color[i] / gain); };
  set_prop(lc, "light_color"_n,
           unreal("Color"_n)(py::arg("r") = channel(0), py::arg("g") = channel(1),
                             py::arg("b") = channel(2), py::arg("a") = 255));
  return gain;
}

void apply_temperature(py::handle lc, py::handle p, py::handle cur) {
  const auto temp = number_given(p, "temp"_n);
  if (!temp || std::abs(*temp - real(item(cur, "temp"_n))) <= TEMP_STEP) return;
  set_prop(lc, "use_temperature"_n, *temp > 0.0);
  if (*temp > 0.0) set_real(lc, "temperature"_n, *temp);
}

/// Sets a property to the record's field, if the record has it.
void apply_number(py::handle lc, Name property, py::handle p, Name field) {
  if (const auto value = number_given(p, field)) set_real(lc, property, *value);
}

void apply_sun(py::handle lc, py::handle p, double gain) {
  if (const auto lux = number_given(p, "lux"_n)) set_real(lc, "intensity"_n, *lux * gain);
  apply_number(lc, "light_source_angle"_n, p, "angle"_n);
}

void apply_local(std::string_view lt, py::handle lc, py::handle p, double gain) {
  // Cone and size come before the intensity, which depends on them in lumens and nits.
  if (lt == "spot") {
    apply_number(lc, "outer_cone_angle"_n, p, "outer"_n);
    if (const auto inner = number_given(p, "inner"_n)) {
      const double outer = number_given(p, "outer"_n).value_or(WIDEST_CONE);
      set_real(lc, "inner_cone_angle"_n, std::min(*inner, outer));
    }
  } else if (lt == "rect") {
    apply_number(lc, "source_width"_n, p, "w"_n);
    apply_number(lc, "source_height"_n, p, "h"_n);
  }
  if (const auto cd = number_given(p, "cd"_n)) {
    py::object units = prop<"intensity_units">(lc);
    set_real(lc, "intensity"_n, _from_candela(lt, lc, *cd * gain, units));
  }
  apply_number(lc, "attenuation_radius"_n, p, "radius"_n);
  if (lt != "rect") apply_number(lc, "source_radius"_n, p, "src"_n);
}

}  // namespace

double _srgb_to_lin(double c) {
  const double x = c / 255.0;
  return x <= 0.04045 ? x / 12.92 : std::pow((x + 0.055) / 1.055, 2.4);
}

int _lin_to_srgb8(double v) {
  const double s = v > 0.0 ? std::min(v, 1.0) : 0.0;  // NaN is black too
  const double y = s <= 0.0031308 ? s * 12.92 : 1.055 * std::pow(s, 1.0 / 2.4) - 0.055;
  return static_cast<int>(std::nearbyint(y * 255.0));
}

std::string_view _light_type(py::handle actor) {
  return view(light_type(actor));
}

double _lm_per_cd(std::string_view lt, py::handle lc) {
  if (lt == "rect") return PI;
  if (lt != "spot") return 4.0 * PI;
  const double half_angle = real_prop<"outer_cone_angle">(lc) * (PI / 180.0);
  return 2.0 * PI * (1.0 - std::cos(half_angle));
}

double _nits_area_m2(std::string_view lt, py::handle lc) {
  if (lt == "rect") {
    return real_prop<"source_width">(lc) * real_prop<"source_height">(lc) / CM2_PER_M2;
  }
  const double radius = real_prop<"source_radius">(lc);
  const double length = attempt([&] { return real_prop<"source_length">(lc); }, 0.0);
  return 4.0 * PI * radius * (radius + 0.5 * length) / CM2_PER_M2;
}

double _to_candela(std::string_view lt, py::handle lc, double value, py::handle units) {
  if (is_unit(units, "CANDELAS"_n)) return value;
  if (is_unit(units, "LUMENS"_n)) return value / std::max(_lm_per_cd(lt, lc), TINY);
  if (is_unit(units, "EV"_n)) return std::pow(2.0, std::clamp(value, -EV_LIMIT, EV_LIMIT));
  if (is_unit(units, "NITS"_n)) return value * _nits_area_m2(lt, lc);
  return value / UNITLESS_PER_CD;
}

double _from_candela(std::string_view lt, py::handle lc, double cd, py::handle units) {
  if (is_unit(units, "CANDELAS"_n)) return cd;
  if (is_unit(units, "LUMENS"_n)) return cd * _lm_per_cd(lt, lc);
  if (is_unit(units, "EV"_n)) return std::log2(std::max(cd, TINY));
  if (is_unit(units, "NITS"_n)) return cd / std::max(_nits_area_m2(lt, lc), TINY);
  return cd * UNITLESS_PER_CD;
}

void read_light(Draft &draft, py::handle actor) {
  py::object lc = light_component(actor);
  const Name type = light_type(actor);
  const std::string_view lt = view(type);
  draft.set("type"_n, to_py(type))
      .set("color"_n, color_of(lc), std::array{COLOR_DECIMALS, COLOR_DECIMALS, COLOR_DECIMALS})
      .set_flag("shadows"_n, truth(prop<"cast_shadows">(lc)))
      .set("temp"_n, truth(prop<"use_temperature">(lc)) ? real_prop<"temperature">(lc) : 0.0, 1);
  if (lt == "sun") {
    draft.set("lux"_n, real_prop<"intensity">(lc), 4);
    draft.set("angle"_n, real_prop<"light_source_angle">(lc), 4);
    return;
  }
  py::object units = prop<"intensity_units">(lc);
  draft.set("cd"_n, _to_candela(lt, lc, real_prop<"intensity">(lc), units), 4);
  draft.set("radius"_n, real_prop<"attenuation_radius">(lc), 2);
  if (lt != "rect") draft.set("src"_n, real_prop<"source_radius">(lc), 3);
  if (lt == "spot") {
    draft.set("inner"_n, real_prop<"inner_cone_angle">(lc), 3);
    draft.set("outer"_n, real_prop<"outer_cone_angle">(lc), 3);
  } else if (lt == "rect") {
    draft.set("w"_n, real_prop<"source_width">(lc), 3);
    draft.set("h"_n, real_prop<"source_height">(lc), 3);
  }
}

py::dict _light_props(py::handle actor) {
  Draft draft;
  read_light(draft, actor);
  return draft.to_record();
}

void _apply_light(py::handle actor, py::handle p) {
  const py::dict record = as_map(p, "a light record");
  py::object lc = light_component(actor);
  const std::string_view lt = _light_type(actor);
  const py::dict cur = _light_props(actor);
  call(lc, "modify"_n);
  const double gain = apply_color(lc, record, cur);
  apply_temperature(lc, record, cur);
  if (lt == "sun") {
    apply_sun(lc, record, gain);
  } else {
    apply_local(lt, lc, record, gain);
  }
  if (py::object shadows = given(record, "shadows"_n)) {
    set_prop(lc, "cast_shadows"_n, truth(shadows));
  }
}

void bind_lights(py::module_ &m) {
  def(m, "_srgb_to_lin", &_srgb_to_lin, py::arg("c"));
  def(m, "_lin_to_srgb8", &_lin_to_srgb8, py::arg("v"));
  def(m, "_light_type", &_light_type, py::arg("actor"));
  def(m, "_lm_per_cd", &_lm_per_cd, py::arg("lt"), py::arg("lc"));
  def(m, "_nits_area_m2", &_nits_area_m2, py::arg("lt"), py::arg("lc"));
  def(m, "_to_candela", &_to_candela, py::arg("lt"), py::arg("lc"), py::arg("value"),
      py::arg("units"));
  def(m, "_from_candela", &_from_candela, py::arg("lt"), py::arg("lc"), py::arg("cd"),
      py::arg("units"));
  def(m, "_light_props", &_light_props, py::arg("actor"));
  def(m, "_apply_light", &_apply_light, py::arg("actor"), py::arg("p"));
}

}  // namespace kestrix
