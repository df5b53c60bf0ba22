// What the peer says about itself and about what it wants: hello, synced, resync, scope, selection
// reporting, export options.
//
// State: "client" (name), "client_ver" (protocol version, read as 1 if absent), "client_ready" (it
// has its copy of the level), "client_have" (ids that it holds from before, until the next
// snapshot), "client_pid", "scope", "sel_sync", "sel_last", "ue_format", "ue_textures".
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Stores who the peer is, answers "hello" and sends the level. A repeated one does all of it
/// again.
void _h_hello(const py::dict &m);

/// The peer has its copy of the level: it may add and delete from now on.
void _h_synced(const py::dict &m);

/// Sends the level again.
void _h_resync(const py::dict &m);

/// Narrows or widens what is mirrored; sends the level again if that changes which actors are.
void _h_scope(const py::dict &m);

/// Switches the report of selection changes, and forces one.
void _h_sel_mode(const py::dict &m);

/// Stores the peer's export options.
void _h_opts(const py::dict &m);

void bind_handshake(py::module_ &m);

}  // namespace kestrix
