// What builds leave behind is put on a list; a later pass tells of it, or deletes it, once nothing
// uses it.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// The package paths of all assets below a folder, deep; none if it doesn't exist.
py::list _assets_under(const std::string &folder);

/// Puts packages on the list; what doesn't lie below the folder of the link's materials is ignored,
/// and what is there keeps its time.
void _trash_add(py::handle paths);

/// One whole pass over the list, at once: what has waited long enough and isn't used by the level,
/// by an instance or by any asset outside is told of, or deleted if AUTO_DELETE is true and
/// no other asset is unsaved.
void _trash_tick();

/// Puts all assets of a material on the list. No answer.
void _h_mat_drop(const py::dict &m);

/// The same in slices of a tick, one pass every 2 s; none while nothing waits or the user works in
/// the editor. Where it comes to deleting, everything is looked at once more in that tick.
void _trash_work(double now);

void bind_clean_up(py::module_ &m);

}  // namespace kestrix
