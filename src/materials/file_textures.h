// The images of a .gltf document as textures of the project: what each is for, and its import, once
// a content.
#pragma once

#include "link/host.h"

namespace kestrix {

/// What textures are for: {index: (srgb, normal)} for each of the set `used`, in ascending order.
/// srgb: whether its numbers are colours, None where nothing says so; normal: whether it is a
/// normal map. Where roles differ in srgb the last of the order holds.
py::dict _gltf_texture_roles(py::handle gm, py::handle used);

/// The texture of the project for texture `idx` of the document, imported if its content isn't the
/// one last imported, with the settings of its role and sampler; None where there is no image file
/// to be had. `src_dir`: the document's folder; `folder`: where it goes to; `avoid`: a name that it
/// mustn't take. Different files that claim one name get "_2", "_3" in the order of "images", and
/// so do further copies of one file, of which `copy` is the number.
py::object _gltf_file_texture(py::handle js, py::handle idx, const std::string &src_dir,
                              const std::string &folder, py::handle srgb, bool normal,
                              const std::string &avoid, int copy = 0);

/// {index: number of the copy} for each of the roles: where textures of one image differ in what
/// they are for or in their sampler, one asset can't serve them all.
py::dict texture_copies(py::handle js, const py::dict &roles, const std::string &src_dir,
                        const std::string &avoid);

/// Sets those of these properties that differ, in one go; false if none does.
bool set_differing(py::handle object, const py::dict &wanted);

void bind_file_textures(py::module_ &m);

}  // namespace kestrix
