#include "link/scope.h"

#include <cmath>

namespace kestrix {

namespace {

// Metres in the message, editor units (centimetres) in the level.
constexpr double UNITS_PER_METRE = 100.0;

/// The folders of a comma-separated text.
py::list folders_of(py::handle m, Name key) {
  py::list folders;
  py::object text = given(m, key);
  if (!text) return folders;
  if (!PyUnicode_Check(text.ptr())) fail_type("a scope's folders are one text, parted by commas");
  view(text);  // raises for a lone surrogate, which no folder can be compared with
  each(call(text, "split"_n, ","), [&](const py::object &piece) {
    py::object folder = call(call(piece, "strip"_n), "strip"_n, "/");
    if (truth(folder)) append(folders, folder);
  });
  return folders;
}

}  // namespace

py::dict _parse_scope(py::handle m) {
  const double radius = real(given_or(m, "radius_m"_n, 0.0)) * UNITS_PER_METRE;
  if (!std::isfinite(radius)) fail("radius_m: a finite number was expected");
  py::object grass_max = given_or(m, "grass_max"_n, GRASS_MAX);
  return Record()
      .set("kinds"_n, as_map(given_or(m, "kinds"_n, py::dict()), "a scope's kinds"))
      .set("folders"_n, folders_of(m, "folders"_n))
      .set("exclude"_n, folders_of(m, "exclude"_n))
      .set("radius"_n, radius)
      .set("grass_max"_n, py::int_(grass_max));
}

py::dict _scope_core(py::handle sc) {
  py::dict core = copy_of(sc);
  drop(core, "center"_n);
  drop(core, "grass_max"_n);
  py::dict kinds = copy_of(given_or(sc, "kinds"_n, py::dict()));
  drop(kinds, "grass"_n);
  put(core, "kinds"_n, kinds);
  return core;
}

void bind_scope(py::module_ &m) {
  m.attr("GRASS_MAX") = GRASS_MAX;
  def(m, "_parse_scope", &_parse_scope, py::arg("m"));
  def(m, "_scope_core", &_scope_core, py::arg("sc"));
}

}  // namespace kestrix
