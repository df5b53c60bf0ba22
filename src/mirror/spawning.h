// New actors from the peer: "spawn" and "dup", answered by "spawned" or "spawn_failed".
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Gives an actor its tags (None: leave), transform, label (empty: leave) and folder (None: leave,
/// empty: the top), and takes it into the mirror: (id, info record).
py::tuple _place(py::handle a, py::handle xf, py::handle label, py::handle folder, py::handle tags);

/// Adds an actor for a mesh and places it: (actor, id, info record). RuntimeError "spawn failed" if
/// the editor adds none.
py::tuple _spawn(py::handle sm, py::handle xf, py::handle label, py::handle folder,
                 py::handle tags);

/// Adds a mesh, text, light or camera actor; always answers. A failure leaves nothing in the level.
void _h_spawn(const py::dict &m);

/// Duplicates an actor, or spawns it from the message if it is gone; always answers.
void _h_dup(const py::dict &m);

void bind_spawning(py::module_ &m);

}  // namespace kestrix
