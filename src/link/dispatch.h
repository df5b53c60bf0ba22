// The table of commands, and the way of one message to its handler.
//
// A handler takes the message as a map and gives nothing. What it raises is reported to the user
// and to the peer here, and dispatch goes on with the next message.
//
// Here as elsewhere the sentence that says what a function of the module does stands where it is
// bound, for help() too; the header adds what it leaves open.
#pragma once

#include "link/wire.h"

namespace kestrix {

using Handler = void (*)(const py::dict &m);

/// What the dispatcher must know of a command beside its handler.
struct Traits {
  /// Refused until the peer has its copy of the level: it couldn't tell what it adds to or deletes
  /// from.
  bool adds = false;
  /// Handled even while everything else is held back.
  bool read_only = false;
  /// Edits the open level or points into it: worth nothing once another one is open.
  bool in_level = false;
  /// Nothing merges across it: it rebuilds what the merged values belong to.
  bool barrier = false;
  /// Of several with the same value in this field only the newest counts; "" stands for all of the
  /// type.
  const char *latest = nullptr;
  /// They don't replace each other but merge this field, a map, newer values over older ones.
  const char *merges = nullptr;
  /// What the peer is told while it is handled; nothing for a quick one.
  const char *busy = nullptr;
};

/// Gives the module a handler `_h_<type>` and enters the command in the table, and with that in
/// HANDLERS, ADDS, READ_ONLY, LATEST_ONLY, MERGED, MERGE_BARRIER and BUSY.
void bind_handler(py::module_ &m, const char *type, Handler handler, const Traits &traits = {});

/// A command's traits; those of a command without any for an unknown type.
const Traits &traits_of(std::string_view type);

/// The message's type; empty if it has none or it isn't a string. TypeError if the message isn't a
/// JSON object.
std::string_view type_of(py::handle m);

/// Tells the peer that what this message adds won't come, and why; a deletion gets no answer.
void refuse_add(std::string_view type, py::handle m, const char *why);

/// An unknown type is ignored.
void _handle(py::handle m);

/// Goes out at once. nullptr: it is done. A text that was told last isn't repeated, and a peer
/// below version 6 isn't told.
void _busy(const char *what);

void bind_dispatch(py::module_ &m);

}  // namespace kestrix
