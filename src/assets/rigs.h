// Rigged characters from the peer: a skeletal mesh with its animations, and what it plays.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Imports a rig's GLB file; gives (skeletal mesh, list of animation sequences). `asset`: path of
/// the skeletal mesh to replace. RuntimeError if the file gives none, OSError if it can't be
/// copied.
py::tuple _import_rig(py::handle fn, py::handle name, py::handle asset);

/// Has a skeletal mesh actor play, in the editor and over and over, the sequence whose name ends
/// with `want`, else one that contains it, else the first; none for an empty `want`. Letters and
/// digits count, in any case. A failure is a warning.
void _rig_anim(py::handle a, py::handle anims, py::handle want);

/// Puts materials on the slots of an actor's skeletal mesh, if the link has made it, and saves it.
/// `slots`: [index, name, material path] triples; the name goes first.
void _assign_skel(py::handle a, py::handle slots);

/// Answers "rig_done"; a failure is answered too, and raised.
void _h_rig(const py::dict &m);

void bind_rigs(py::module_ &m);

}  // namespace kestrix
