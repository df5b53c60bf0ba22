// What a glTF material is on the editor's own glTF parents (the Interchange plugin's): which
// parent, and what of its parameters differs from the parent's default. Nothing here asks the
// editor.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// The parent for all shadings where the project renders with Substrate; unlit ones apart.
constexpr const char *GLTF_PARENT_SUBSTRATE = "/InterchangeAssets/gltf/Substrate/M_GLTF.M_GLTF";
/// The classic parents: both %s are the parent's name.
constexpr const char *GLTF_PARENT_MI = "/InterchangeAssets/gltf/MaterialInstances/%s.%s";

/// The parameters of `gm`, a glTF material of the document `js`; `sub`: whether the project renders
/// with Substrate. A map: "parent", an object path; "blend", a name of unreal.BlendMode, and
/// "two_sided", each None where the parent's holds; "scalars" {name: number}, "vectors" {name: four
/// numbers}, "textures" {name: index in the document's "textures"}, "switches" {name: truth}. What
/// equals the parent's default is left out. A reference to a texture that isn't one counts as none;
/// TypeError, ValueError or RuntimeError for other values of the wrong kind.
py::dict _gltf_values(py::handle gm, py::handle js, bool sub);

/// map[key] of a glTF document as a map; an empty one where it is missing, None or empty.
py::dict object_at(py::handle map, py::handle key);

/// map[key] of a glTF document as a list; an empty one where it is missing or None.
py::list list_at(py::handle map, py::handle key);

/// list[i] if `i` is an integer within the list, else null.
py::object element(const py::list &list, py::handle i);

/// list[map[key]], else null.
py::object element_at(const py::list &list, py::handle map, py::handle key);

/// info[key] of a reference to a texture; null for what is no reference.
py::object reference_at(py::handle info, py::handle key);

void bind_gltf_values(py::module_ &m);

}  // namespace kestrix
