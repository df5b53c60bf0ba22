// The info record: how an actor travels in "snapshot", "add" and "spawned", and what the scanners
// compare.
#pragma once

#include "mirror/actors.h"
#include "mirror/draft.h"

namespace kestrix {

/// Reads what can change of an actor's record: all but its id, its kind and what `full` adds.
void read_info(Draft &draft, py::handle actor, py::handle kind, bool props);

/// The record itself.
py::dict record_of(py::handle aid, py::handle kind, const Draft &draft);

/// The actor's record: "id", "kind", "label", "folder", "xf" always, "tags" if there are any, and
/// by kind: "asset", "mats", "phys", "light", "cam", "text", "cls". `aid`: its id, asked for if
/// None or empty. `full` adds what isn't compared, `props` the settings of lights, cameras and
/// texts. Raises what the editor raises.
py::dict _info(py::handle actor, py::handle aid, bool full, bool props);

/// Paths of the static meshes that these records use, with repeats.
py::list _info_assets(py::handle infos);

void bind_info(py::module_ &m);

}  // namespace kestrix
