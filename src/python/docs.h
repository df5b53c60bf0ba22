// Docstrings: the comment above a function's declaration is what Python shows, too.
#pragma once

#include <map>
#include <string_view>

#include "python/object.h"

namespace kestrix {

// Written by tools/docstrings.py at build time: function -> its comment in the header.
extern const std::map<std::string_view, const char *> DOCS;

/// Gives the module a function under that name, with the comment of its header.
template <class F, class... Extra>
void def(py::module_ &m, const char *name, F &&f, const Extra &...extra) {
  m.def(name, std::forward<F>(f), DOCS.at(name), extra...);
}

}  // namespace kestrix
