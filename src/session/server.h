// The listener and who is connected to it: one peer at a time, others wait as candidates.
#pragma once

#include "link/held.h"

namespace kestrix {

/// Starts the link, ending an earlier run: binds the first free port from `port` (None or 0: PORT)
/// to `port` + 5 on HOST and registers the tick. Gives the port, or None when none was free.
py::object start(py::handle port);

/// Ends the link: callback, peer and listener. `quiet` logs nothing.
void stop(bool quiet);

/// The report for the user, also written to the log; tick costs count from one report to the next.
std::string status();

/// Takes at most one new connection: as the peer, or as a candidate beside a live one. Never
/// blocks.
void _accept();

/// Reads the candidates' "hello" and decides who wins, loses or has been silent for too long.
void _cands_tick();

/// Makes a connection the peer: the mirror starts from nothing.
void _take(py::handle conn);

/// Switches the editor's background throttle off while a peer is connected, and back.
void _set_throttle(bool connected);

void bind_server(py::module_ &m);

}  // namespace kestrix
