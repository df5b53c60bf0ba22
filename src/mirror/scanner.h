// Finding changes: the mirror "known" of what the peer has been told, and the scanners that compare
// the level with it.
//
// "known": id -> {"actor", "info"}, info being the record as last sent, without "comps". A snapshot
// fills it; the scan step walks all mirrored actors at a paced rate within a time budget, the fast
// scan looks at the selection. Transforms gather in "xf_out" and leave once per tick.
#pragma once

#include "link/wire.h"

namespace kestrix {

/// Sets the mirror's state, and the peer's wishes, to their first values.
void _reset_scan_state();

/// Sends the catalogue entries of those assets that the peer hasn't had since the last snapshot.
void _send_assets(py::handle paths);

/// Brings the centre of the scope's radius to the viewport camera.
void _scope_center();

/// Stores a record in the mirror.
void _remember(py::handle aid, py::handle a, py::handle inf);

/// Those of the ids `have` that are gone for good: not in another level, out of scope or unloaded.
/// `actors`: the ids that are mirrored now, as keys.
py::list _gone_ids(py::handle have, py::handle actors);

/// Sends the whole level.
void _snapshot();

/// Compares an actor with its record and sends what differs; an actor that the mirror doesn't have
/// is sent whole. `props`: read light, camera and text settings too.
void _diff_actor(py::handle aid, py::handle a, bool props);

/// Compares the selected actors, and reports the selection if the peer wants it.
void _scan_fast();

/// Walks on through the level within SCAN_BUDGET, or lists it anew. `dt`: seconds since the last
/// tick.
void _scan_step(double dt);

void bind_scanner(py::module_ &m);

}  // namespace kestrix
