// Material instances: found or made by name, filled, and freed of values.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The material instance at `folder`/`name`, or `folder`/"MI_" + `name` if another asset has that
/// name; made if there is none. RuntimeError if it can't be.
py::object _instance_at(const std::string &folder, const std::string &name);

/// Puts a material's parameters on an instance, and nothing else: what was on it goes. `vals` as
/// _gltf_values gives them, `texs`: {index: texture}. Saves it. RuntimeError if the parent isn't
/// there; then the instance is as it was.
void _apply_gltf_values(py::handle mi, py::handle vals, py::handle texs);

/// Takes the parameters of these names off an instance: the parent's values hold again.
void _revert_params(py::handle mi, py::handle textures, py::handle scalars);

/// The package paths of the textures that the instance itself names.
py::set _used_textures(py::handle mi);

/// The instance's overrides of blend mode and two-sidedness as in `vals`: None takes one off.
/// Writes nothing, gives the struct.
py::object base_overrides(py::handle mi, py::handle vals);

/// The names of one kind of parameters that a material offers, as texts: `lister` is the library's
/// operation that lists them.
py::set parameter_names(py::handle mi, Name lister);

/// The editor's colour of up to four numbers; what lacks is 1.
py::object colour_of(py::handle numbers);

inline py::object material_library() {
  return unreal("MaterialEditingLibrary"_n);
}

/// The name of an entry of an instance's parameter lists.
inline py::object parameter_name(py::handle entry) {
  return str(prop(prop(entry, "parameter_info"_n), "name"_n));
}

void bind_instances(py::module_ &m);

}  // namespace kestrix
