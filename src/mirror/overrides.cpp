#include "mirror/overrides.h"

namespace kestrix {

namespace {

bool all_none(const py::list &materials) {
  return std::all_of(materials.begin(), materials.end(), [](py::handle m) { return m.is_none(); });
}

py::object material_of(py::handle slot) {
  return prop(slot, "material_interface"_n);
}

py::object slot_name_of(py::handle slot) {
  return str(prop(slot, "material_slot_name"_n));
}

py::object name_or_empty(py::handle object) {
  return exists(object) ? str(call(object, "get_name"_n)) : to_py(""_n);
}

template <class... Values>
py::list row(const Values &...values) {
  py::list out;
  (append(out, to_py(values)), ...);
  return out;
}

}  // namespace

py::object overrides_or_null(py::handle c, py::handle sm) {
  py::object materials = attempt(
      [&] {
        py::object overriding = prop<"override_materials">(c);
        return overriding.is_none() || !truth(overriding) ? py::object() : list_of(overriding);
      },
      py::object());
  if (!materials || all_none(as_list(materials))) return {};
  py::list rows = _override_list(materials, exists(sm) ? to_py(sm) : mesh_in(c));
  return rows.empty() ? py::object() : rows;
}

py::list _overrides(py::handle c, py::handle sm) {
  py::object rows = overrides_or_null(c, sm);
  return rows ? as_list(rows) : py::list();
}

py::list _override_list(py::handle ov, py::handle sm) {
  py::list rows;
  const py::list materials = list_of(ov);
  if (!exists(sm) || all_none(materials)) return rows;
  const bool ours = is_ours(text(path_of(sm)));
  const py::list slots = list_of(prop(sm, "static_materials"_n));
  for (size_t i = 0; i < std::min(materials.size(), slots.size()); ++i) {
    py::object material = materials[i];
    if (material.is_none()) continue;
    py::object slot = slots[i];
    py::object own_material = material_of(slot);
    if (!ours && equal(material, own_material)) continue;
    append(rows, row(i, slot_name_of(slot), name_or_empty(own_material), path_or_empty(material)));
  }
  return rows;
}

py::list _slot_mats(py::handle sm) {
  return attempt(
      [&] {
        py::list rows;
        each(prop(sm, "static_materials"_n), [&](const py::object &slot) {
          py::object material = material_of(slot);
          append(rows, row(slot_name_of(slot), name_or_empty(material), path_or_empty(material)));
        });
        return rows;
      },
      py::list());
}

void bind_overrides(py::module_ &m) {
  def(m, "_overrides", &_overrides, py::arg("c"), py::arg("sm") = py::none());
  def(m, "_override_list", &_override_list, py::arg("ov"), py::arg("sm").none(true));
  def(m, "_slot_mats", &_slot_mats, py::arg("sm"));
}

}  // namespace kestrix
