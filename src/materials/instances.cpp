#include "materials/instances.h"

#include "assets/content.h"

namespace kestrix {

namespace {

py::object new_instance(const std::string &folder, const std::string &name) {
  const py::object made = call(call(unreal("AssetToolsHelpers"_n), "get_asset_tools"_n),
                               "create_asset"_n, name, folder, unreal("MaterialInstanceConstant"_n),
                               invoke(unreal("MaterialInstanceConstantFactoryNew"_n)));
  if (!exists(made)) fail("could not create " + folder + "/" + name);
  return made;
}

py::object global_kind() {
  return get(unreal("MaterialParameterAssociation"_n), "GLOBAL_PARAMETER"_n);
}

/// Without telling the editor of it: one update at the end does.
template <class T>
void set_silently(py::handle object, Name property, const T &value) {
  call(object, "set_editor_property"_n, property, value,
       get(unreal("PropertyAccessChangeNotifyMode"_n), "NEVER"_n));
}

/// A switch, without building the shader for it now, where the engine can leave that for later.
void set_static_switch(py::handle mi, py::handle name, py::handle value, py::handle kind) {
  const py::object library = material_library();
  const Name method = "set_material_instance_static_switch_parameter_value"_n;
  const py::object later = to_py("update_material_instance=False"_n);
  const py::set lacking = S_set(key::lacking);
  if (!lacking.contains(later)) {
    if (try_call(library, method, mi, name, value, kind, false)) return;
    py::error_already_set error;
    if (!error.matches(PyExc_TypeError)) throw error;
    call(library, method, mi, name, value, kind);
    add(lacking, later);  // it was that argument, not another
    return;
  }
  call(library, method, mi, name, value, kind);
}

/// One of the instance's parameter lists, written whole: an entry for each of `values` that the
/// material offers, made by `value_of`, null for none.
template <class F>
void write_list(py::handle mi, Name property, Name entry_class, const py::set &offered,
                py::handle values, F &&value_of) {
  const py::object made_by = unreal(entry_class);
  const py::object info_class = unreal("MaterialParameterInfo"_n);
  const py::object kind = global_kind();
  py::list entries;
  each_entry(as_map(values, "parameters"), [&](const py::object &name, const py::object &given) {
    const py::object value = offered.contains(name) ? value_of(given) : py::object();
    if (!value) return;
    append(entries, made_by(py::arg("parameter_info") = invoke(info_class, name, kind, -1),
                            py::arg("parameter_value") = value));
  });
  set_silently(mi, property, entries);
}

}  // namespace

py::object _instance_at(const std::string &folder, const std::string &name) {
  for (const std::string &candidate : {name, "MI_" + name}) {
    const std::string path = folder + "/" + candidate;
    if (!asset_exists(path)) return new_instance(folder, candidate);
    const py::object asset = load_asset(path);
    if (is_a(asset, "MaterialInstanceConstant"_n)) return asset;
  }
  fail(folder + "/" + name + " is taken by other assets");
}

py::set parameter_names(py::handle mi, Name lister) {
  py::set names;
  each(list_of(call(material_library(), lister, mi)),
       [&](const py::object &name) { add(names, str(name)); });
  return names;
}

py::object colour_of(py::handle numbers) {
  py::list four;
  each(numbers, [&](const py::object &v) {
    if (four.size() < 4) append(four, to_py(in_float_range(real(v), "a colour")));
  });
  while (four.size() < 4) append(four, to_py(1.0));
  return invoke(unreal("LinearColor"_n), nth(four, 0), nth(four, 1), nth(four, 2), nth(four, 3));
}

py::object base_overrides(py::handle mi, py::handle vals) {
  const py::object overrides = prop(mi, "base_property_overrides"_n);
  const py::object blend = item(vals, "blend"_n);
  set_prop(overrides, "override_blend_mode"_n, !blend.is_none());
  if (!blend.is_none()) set_prop(overrides, "blend_mode"_n, get(unreal("BlendMode"_n), blend));
  const py::object two_sided = item(vals, "two_sided"_n);
  set_prop(overrides, "override_two_sided"_n, !two_sided.is_none());
  if (!two_sided.is_none()) set_prop(overrides, "two_sided"_n, two_sided);
  return overrides;
}

void _apply_gltf_values(py::handle mi, py::handle vals, py::handle texs) {
  const py::object library = material_library();
  const std::string path = text(item(vals, "parent"_n));
  const py::object parent = load_asset(path);
  if (!exists(parent)) fail("missing " + path + " (Interchange plugin assets)");
  call(library, "clear_all_material_instance_parameters"_n, mi);
  if (!equal(prop(mi, "parent"_n), parent)) {
    call(library, "set_material_instance_parent"_n, mi, parent);
  }
  // Read after the parent was set: they are its.
  const py::set scalars = parameter_names(mi, "get_scalar_parameter_names"_n);
  const py::set vectors = parameter_names(mi, "get_vector_parameter_names"_n);
  const py::set textures = parameter_names(mi, "get_texture_parameter_names"_n);
  const py::set switches = parameter_names(mi, "get_static_switch_parameter_names"_n);

  const py::object kind = global_kind();
  each_entry(as_map(item(vals, "switches"_n), "parameters"),
             [&](const py::object &name, const py::object &value) {
               if (switches.contains(name)) set_static_switch(mi, name, value, kind);
             });
  set_silently(mi, "base_property_overrides"_n, base_overrides(mi, vals));
  write_list(mi, "scalar_parameter_values"_n, "ScalarParameterValue"_n, scalars,
             item(vals, "scalars"_n), [](const py::object &v) { return v; });
  write_list(mi, "vector_parameter_values"_n, "VectorParameterValue"_n, vectors,
             item(vals, "vectors"_n), [](const py::object &v) { return colour_of(v); });
  write_list(mi, "texture_parameter_values"_n, "TextureParameterValue"_n, textures,
             item(vals, "textures"_n), [&](const py::object &i) { return find(texs, i); });
  call(library, "update_material_instance"_n, mi);
  save_asset(mi);
}

void _revert_params(py::handle mi, py::handle textures, py::handle scalars) {
  const auto revert = [&](Name property, py::handle names) {
    if (!truth(names)) return;
    const py::list entries = list_of(prop(mi, property));
    py::list kept;
    for (py::handle entry : entries) {
      if (!names.contains(parameter_name(entry))) append(kept, entry);
    }
    if (kept.size() < entries.size()) set_prop(mi, property, kept);
  };
  revert("texture_parameter_values"_n, textures);
  revert("scalar_parameter_values"_n, scalars);
}

py::set _used_textures(py::handle mi) {
  py::set used;
  each(list_of(prop(mi, "texture_parameter_values"_n)), [&](const py::object &entry) {
    const py::object texture = prop(entry, "parameter_value"_n);
    if (exists(texture)) add(used, to_py(package_path(texture)));
  });
  return used;
}

void bind_instances(py::module_ &m) {
  def(m, "_instance_at", &_instance_at, py::arg("folder"), py::arg("name"));
  def(m, "_apply_gltf_values", &_apply_gltf_values, py::arg("mi"), py::arg("vals"),
      py::arg("texs"));
  def(m, "_revert_params", &_revert_params, py::arg("mi"), py::arg("textures") = py::tuple(),
      py::arg("scalars") = py::tuple());
  def(m, "_used_textures", &_used_textures, py::arg("mi"));
}

}  // namespace kestrix
