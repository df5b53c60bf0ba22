#include "materials/displacement.h"

#include "assets/content.h"
#include "materials/build.h"
#include "materials/clean_up.h"
#include "materials/gltf_values.h"
#include "materials/instances.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

// Tag of an instance on the master: the object path of its former parent.
Name parent_tag() {
  return "VerrinParent"_n;
}

bool names_height(py::handle mi) {
  for (py::handle entry : list_of(prop(mi, "texture_parameter_values"_n))) {
    if (text(parameter_name(entry)) == "DisplacementTexture") return true;
  }
  return false;
}

/// Takes the instance's own displacement scaling off; false if it has none.
bool drop_scaling(py::handle mi) {
  const py::object overrides = prop(mi, "base_property_overrides"_n);
  if (!truth(prop(overrides, "override_displacement_scaling"_n))) return false;
  set_prop(overrides, "override_displacement_scaling"_n, false);
  set_prop(mi, "base_property_overrides"_n, overrides);
  return true;
}

void leave_master(py::handle mi) {
  const std::string tag = text(call(asset_library(), "get_metadata_tag"_n, mi, parent_tag()));
  const std::string former = tag.empty() ? GLTF_PARENT_SUBSTRATE : tag;
  const py::object parent = load_asset(std::string(package_of(former)));
  if (exists(parent)) call(material_library(), "set_material_instance_parent"_n, mi, parent);
}

}  // namespace

const std::string &displacement_master() {
  static const std::string path = std::string(LINK_ROOT) + "/_Master/M_Verrin_Displaced";
  return path;
}

bool _on_disp_master(py::handle mi) {
  const py::object parent = prop(mi, "parent"_n);
  return exists(parent) && package_path(parent) == displacement_master();
}

py::list _apply_displacement(py::handle mi, py::handle disp, const std::string &base,
                             bool cleanup) {
  if (!is_a(mi, "MaterialInstanceConstant"_n)) return py::list();
  if (exists(disp) && truth(disp)) _warn("height map of " + base + " left out: can't be built yet");
  const bool on = _on_disp_master(mi);
  if (on) leave_master(mi);
  // A build resets the parent and the parameters before this, but not the scaling.
  const bool scaled = drop_scaling(mi);
  if (on || scaled || names_height(mi)) {
    _revert_params(mi, py::make_tuple("DisplacementTexture"), py::tuple());
    call(material_library(), "update_material_instance"_n, mi);
    save_asset(mi);
  }
  if (cleanup) _trash_add(_assets_under(material_root() + "/" + base + "/Displacement"));
  return py::list();
}

void bind_displacement(py::module_ &m) {
  m.attr("DISP_MASTER") = displacement_master();
  def(m, "_apply_displacement", &_apply_displacement, py::arg("mi"), py::arg("disp").none(true),
      py::arg("base"), py::arg("cleanup"));
  def(m, "_on_disp_master", &_on_disp_master, py::arg("mi"));
}

}  // namespace kestrix
