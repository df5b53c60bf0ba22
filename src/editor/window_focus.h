// Which program's window is in front, and how the foreground passes between the two.
//
// Windows lets only the process in front give the foreground away, so whoever has the user's
// attention grants the right before it asks the other to come forward. All of it is best effort
// through the interpreter's ctypes: on another system, and on any failure, nothing happens.
//
// Module attribute _WIN, the state of a search: "pid" (whose windows are sought) and "found" (their
// handles).
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// The handle of that process's largest visible top-level window; 0 if there is none.
py::object _win_of(py::handle pid);

/// The enumeration's callback: enters a visible window without an owner of the process _WIN["pid"]
/// in _WIN["found"]. Always true, so that the enumeration goes on.
bool _win_cb(py::handle hwnd, py::handle _lp);

/// Brings the editor's main window forward, restored if it was minimised.
void _to_front();

/// Lets that process take the foreground; None and 0 do nothing.
void _allow_front(py::handle pid);

/// Whether the window in front is the editor's.
bool _foreground();

void bind_window_focus(py::module_ &m);

}  // namespace kestrix
