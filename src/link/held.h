// Messages that came together or wait together: which of them still count, which are held back
// while the editor can't take them, and their replay.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Of those that count only as the newest of their kind the newest stays, at its place;
/// "mat_params" of one material become the last of them, merged, but not across a "mat". A field of
/// the wrong type leaves a message as it is, for its handler to report.
py::list _coalesce(const py::list &msgs);

/// Handles one batch in order or, if `hold`, has what isn't read-only wait in "pending". Ends when
/// `conn` isn't the peer any more: a handler may have stopped the link or let another peer in, whom
/// the rest doesn't concern.
void dispatch(const py::list &msgs, py::handle conn, bool hold);

/// Goes on for at most 20 milliseconds, a handler that has begun runs on, and ends as dispatch()
/// does. If another level was mirrored meanwhile, drops all that waits; if another one is open that
/// isn't mirrored yet, what edits the level or points into it.
void _replay_pending();

void bind_held(py::module_ &m);

}  // namespace kestrix
