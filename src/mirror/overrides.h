// Which materials an actor puts over those of its mesh.
#pragma once

#include "mirror/actors.h"

namespace kestrix {

/// The override rows of a mesh component: [slot index, slot name, name of the slot's own material
/// or "", path of the overriding material]. Null if there are none or the editor can't tell. `sm`:
/// its mesh, read from it where null or None, but only if some slot is overridden.
py::object overrides_or_null(py::handle c, py::handle sm);

/// The same, empty if there are none.
py::list _overrides(py::handle c, py::handle sm);

/// The override rows of a list of materials, None where a slot isn't overridden, on a mesh. What
/// repeats the slot's own material counts only on the link's own meshes.
py::list _override_list(py::handle ov, py::handle sm);

/// The mesh's slots: [slot name, material name or "", material path or ""]; empty on an error.
py::list _slot_mats(py::handle sm);

void bind_overrides(py::module_ &m);

}  // namespace kestrix
