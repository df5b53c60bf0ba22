// From a received message to its handler: coalescing, holding back, replaying, reporting.
//
// A handler takes the message as a map and gives nothing. What it raises is reported to the user
// and to the peer here, and dispatch goes on with the next message.
#pragma once

#include "link/wire.h"

namespace kestrix {

using Handler = void (*)(const py::dict &m);

/// Gives the module a handler `_h_<type>` and enters it in HANDLERS.
void bind_handler(py::module_ &m, const char *type, Handler handler, const char *doc);

/// The message's type; empty if it has none or it isn't a string. TypeError if the message isn't a
/// JSON object.
std::string_view type_of(py::handle m);

/// What remains of one batch of messages: of those that only count as the newest of their kind, the
/// newest, at its place; "mat_params" of one material merged into the last of them, but not across
/// a "mat".
py::list _coalesce(const py::list &msgs);

/// Whether a message of this type runs even while others are held back.
bool is_read_only(std::string_view type);

/// Puts a message behind those that wait in "pending", replacing or merging what it makes obsolete.
void hold_back(const py::dict &m);

/// Handles what waits in "pending", for at most 20 milliseconds (a handler that has begun runs on);
/// or drops it all if another level was opened meanwhile.
void _replay_pending();

/// Dispatches one message; an unknown type is ignored.
void _handle(py::handle m);

/// Tells the peer what the editor is busy with, at once; nullptr when it is done. A text that was
/// told last isn't repeated, and a peer below version 6 isn't told.
void _busy(const char *what);

void bind_dispatch(py::module_ &m);

}  // namespace kestrix
