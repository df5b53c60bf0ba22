#include "assets/physics.h"

#include <cmath>
#include <cstdio>

#include "assets/collision.h"
#include "link/rounding.h"

namespace kestrix {

namespace {

constexpr double FRICTION = 0.7;
constexpr double BOUNCE = 0.3;
constexpr double LINEAR_DAMPING = 0.01;
// What a physical material's name can tell apart, and what a record counts as the default.
constexpr double SAME_SURFACE = 0.005;
constexpr double SAME_VALUE = 0.001;

// Under LINK_ROOT.
constexpr const char *PHYS_MATS = "/Game/Verrin/PhysMats";

py::dict defaults() {
  return Record()
      .set("sim"_n, false)
      .set("mass"_n, 0.0)
      .set("friction"_n, FRICTION)
      .set("bounce"_n, BOUNCE)
      .set("ldamp"_n, LINEAR_DAMPING)
      .set("adamp"_n, 0.0);
}

double rounded_prop(py::handle obj, Name property, int decimals) {
  return _r(real(prop(obj, property)), decimals);
}

/// The component's values, all of them.
py::dict read(py::handle c) {
  const py::object body = prop(c, "body_instance"_n);
  const py::object surface = prop(body, "phys_material_override"_n);
  const bool has_mass = truth(prop(body, "override_mass"_n));
  return Record()
      .set("sim"_n, truth(prop(body, "simulate_physics"_n)))
      .set("mass"_n, has_mass ? rounded_prop(body, "mass_in_kg_override"_n, 3) : 0.0)
      .set("friction"_n, exists(surface) ? rounded_prop(surface, "friction"_n, 3) : FRICTION)
      .set("bounce"_n, exists(surface) ? rounded_prop(surface, "restitution"_n, 3) : BOUNCE)
      .set("ldamp"_n, rounded_prop(body, "linear_damping"_n, 4))
      .set("adamp"_n, rounded_prop(body, "angular_damping"_n, 4));
}

bool is_default(const py::dict &record) {
  bool same = true;
  each_entry(defaults(), [&](const py::object &key, const py::object &value) {
    same = same && std::abs(real(item(record, key)) - real(value)) < SAME_VALUE;
  });
  return same;
}

/// friction or bounce in a material's name: hundredths, three digits at least.
std::string hundredths(double value) {
  char digits[40];
  std::snprintf(digits, sizeof digits, "%03.0f", std::nearbyint(value * 100.0));
  return digits;
}

py::object component_of(py::handle a) {
  if (is_a(a, "StaticMeshActor"_n)) return prop(a, "static_mesh_component"_n);
  return call(a, "get_component_by_class"_n, unreal("StaticMeshComponent"_n));
}

/// The record laid over the defaults; other keys and null values don't count.
py::dict completed(py::handle p) {
  const py::dict record = defaults();
  for (py::handle pair : pairs_of(record)) {
    if (py::object value = given(p, nth(pair, 0))) put(record, nth(pair, 0), value);
  }
  return record;
}

/// Bodies that simulate need a profile that lets them; a profile of the user's own stays.
void set_profile(py::handle c, bool sim) {
  const std::string profile = text(call(c, "get_collision_profile_name"_n));
  const auto is_one_of = [&](std::initializer_list<const char *> names) {
    return std::find(names.begin(), names.end(), profile) != names.end();
  };
  if (sim && is_one_of({"BlockAll", "Default", "BlockAllDynamic", "None", ""})) {
    call(c, "set_collision_profile_name"_n, "PhysicsActor");
  } else if (!sim && profile == "PhysicsActor") {
    call(c, "set_collision_profile_name"_n, "BlockAll");
  }
}

/// A simulating body falls forever, or doesn't move at all, without a simple shape.
void warn_of_no_shape(py::handle a, py::handle c) {
  const py::object mesh = prop(c, "static_mesh"_n);
  if (!exists(mesh) || _simple_shapes(mesh)) return;
  _warn(text(call(a, "get_actor_label"_n)) +
        " simulates physics but its mesh has no simple collision (Mesh / No Collision) - it won't "
        "move");
}

}  // namespace

py::object _phys_mat(double friction, double bounce) {
  if (std::abs(friction - FRICTION) < SAME_SURFACE && std::abs(bounce - BOUNCE) < SAME_SURFACE) {
    return py::none();
  }
  const std::string name = "PM_F" + hundredths(friction) + "_B" + hundredths(bounce);
  const std::string path = std::string(PHYS_MATS) + "/" + name;
  const py::object library = unreal("EditorAssetLibrary"_n);
  if (truth(call(library, "does_asset_exist"_n, path))) return invoke(unreal("load_asset"_n), path);
  const py::object tools = call(unreal("AssetToolsHelpers"_n), "get_asset_tools"_n);
  const py::object made =
      call(tools, "create_asset"_n, name, PHYS_MATS, unreal("PhysicalMaterial"_n),
           invoke(unreal("PhysicalMaterialFactoryNew"_n)));
  if (!exists(made)) fail("the physical material " + path + " could not be made");
  set_real(made, "friction"_n, friction);
  set_real(made, "restitution"_n, bounce);
  call(library, "save_loaded_asset"_n, made, false);
  return made;
}

py::dict _phys_of(py::handle c) {
  return attempt(
      [&] {
        const py::dict record = read(c);
        return is_default(record) ? py::dict() : record;
      },
      py::dict());
}

void _apply_phys(py::handle a, py::handle p) {
  const py::object c = component_of(a);
  if (!exists(c)) return;
  const py::dict values = completed(as_map(p, "a physics record"));
  const auto value = [&](Name field) { return number(item(values, field), view(field)); };
  const bool sim = flag(values, "sim"_n);
  const double mass = value("mass"_n);
  const double ldamp = value("ldamp"_n);
  const double adamp = value("adamp"_n);
  const py::object surface = _phys_mat(value("friction"_n), value("bounce"_n));
  call(c, "modify"_n);
  const py::object movable = get(unreal("ComponentMobility"_n), "MOVABLE"_n);
  if (sim && !equal(prop(c, "mobility"_n), movable)) call(c, "set_mobility"_n, movable);
  call(c, "set_simulate_physics"_n, sim);
  set_profile(c, sim);
  call(c, "set_mass_override_in_kg"_n, "None", mass > 0.0 ? mass : 0.0, mass > 0.0);
  call(c, "set_linear_damping"_n, ldamp);
  call(c, "set_angular_damping"_n, adamp);
  call(c, "set_phys_material_override"_n, surface);
  if (sim) warn_of_no_shape(a, c);
}

void bind_physics(py::module_ &m) {
  m.attr("PHYS_DEFAULT") = defaults();
  m.attr("PHYS_MATS") = PHYS_MATS;
  def(m, "_phys_mat", &_phys_mat, py::arg("friction"), py::arg("bounce"));
  def(m, "_phys_of", &_phys_of, py::arg("c").none(true));
  def(m, "_apply_phys", &_apply_phys, py::arg("a"), py::arg("p"));
}

}  // namespace kestrix
