#include "landscape/layout.h"

namespace kestrix {

py::list _land_parts(py::handle land) {
  py::list parts;
  each(level_actors(), [&](const py::object &actor) {
    if (!is_a(actor, "LandscapeProxy"_n)) return;
    const bool belongs = attempt(
        [&] { return equal(actor, land) || equal(call(actor, "get_landscape_actor"_n), land); },
        false);
    if (belongs) append(parts, actor);
  });
  return parts;
}

void bind_layout(py::module_ &m) {
  def(m, "_land_parts", &_land_parts, py::arg("land"));
}

}  // namespace kestrix
