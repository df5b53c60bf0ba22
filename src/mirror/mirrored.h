// The mirror: what the peer has been told of each actor.
//
// "known": id -> {"actor", "info"}, info being the record as last sent, without "comps". A snapshot
// fills it, the scanners and the peer's edits keep it true. Transforms gather in "xf_out" and leave
// once per tick.
#pragma once

#include "link/wire.h"

namespace kestrix {

/// Sets the mirror's state, and the peer's wishes, to their first values.
void _reset_scan_state();

/// Stores a record in the mirror.
void _remember(py::handle aid, py::handle a, py::handle inf);

/// The mirror's record of an actor, or null.
py::object known_info(py::handle aid);

/// Sends the catalogue entries of those assets that the peer hasn't had since the last snapshot.
void _send_assets(py::handle paths);

/// Sends the asset's entry, whatever the peer has heard of the asset before.
void resend_asset(py::handle path);

void bind_mirrored(py::module_ &m);

}  // namespace kestrix
