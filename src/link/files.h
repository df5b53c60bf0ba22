// Files, through the interpreter's own modules: a test can put others in place.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// os.path.join of these.
template <class... Parts>
std::string join_path(const Parts &...parts) {
  return text(call(get(module("os"_n), "path"_n), "join"_n, parts...));
}

/// Whether there is such a file with something in it.
bool is_filled(const std::string &file);

/// The extension with its dot, in lower case; empty without one.
std::string extension_of(const std::string &file);

/// The part behind the last separator.
std::string base_name(const std::string &file);

/// Makes the folder, and those above it, unless it is there. OSError if it can't be.
void make_folder(const std::string &folder);

}  // namespace kestrix
