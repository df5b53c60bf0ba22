// The whole level at once: at the start of a link, after a level change, and on request.
#pragma once

#include "mirror/mirrored.h"

namespace kestrix {

/// Those of the ids `have` that are gone for good: not in another level, out of scope or unloaded.
/// `actors`: the ids that are mirrored now, as keys.
py::list _gone_ids(py::handle have, py::handle actors);

/// Sends the whole level. While Play runs no level can be listed: "world" becomes empty then, and
/// the snapshot follows when Play has ended.
void _snapshot();

void bind_snapshot(py::module_ &m);

}  // namespace kestrix
