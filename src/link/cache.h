// The cache folder that both programs share, and names that are safe in it.
#pragma once

#include "link/host.h"

namespace kestrix {

/// Default length limit of _safe.
constexpr int MAX_CACHE_NAME = 48;

/// The cache folder's root, a full path; makes its subfolders "ue" and "blender" on every call.
/// Worked out once per load of the module (module attribute _CACHE): the project's Saved folder, or
/// a folder of the user's where that can't be had. Raises OSError if the folders can't be made.
std::string cache_dir();

/// `name` made safe for asset and file names: ASCII letters, digits and "_", at most n characters,
/// never empty and never beginning with a digit.
std::string _safe(std::string_view name, int n = MAX_CACHE_NAME);

/// The same path, of which nothing is made: for looking whether a file is there.
std::string cache_root();

void bind_cache(py::module_ &m);

}  // namespace kestrix
