// Edits from the peer to actors that exist: tags, settings, mesh, label and folder, deletion. Each
// is one undo step, and its result, read back from the editor, goes into the mirror at once.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Sets an actor's tags; the same tags in the same order change nothing.
void _h_tags(const py::dict &m);

/// Applies light, camera or text settings, as far as they fit the actor, and answers "props" with
/// what the editor made of them.
void _h_props(const py::dict &m);

/// Sets or clears a mesh actor's static mesh.
void _h_set_mesh(const py::dict &m);

/// Deletes actors, but never a landscape or a foliage actor.
void _h_delete(const py::dict &m);

/// Sets an actor's label, its folder, or both.
void _h_rename(const py::dict &m);

void bind_actor_edits(py::module_ &m);

}  // namespace kestrix
