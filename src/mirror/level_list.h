// Which actors of the level belong to the mirror under the peer's scope.
#pragma once

#include "mirror/actors.h"

namespace kestrix {

/// Whether the scope takes in an actor of kind `k`.
bool _in_scope(py::handle aid, py::handle actor, py::handle k);

/// Brings the centre of the scope's radius to the viewport camera.
void _scope_center();

/// A landscape's bounds as (low, high), each [x, y, z] in editor units; kept for 5 seconds.
py::tuple _land_box(py::handle aid, py::handle land);

/// Whether the mirror should hold an actor: its id then, else null. One that can't be judged stays
/// if the mirror has it, else it is reported once and left out.
struct Judged {
  py::object aid;
  bool failed = false;
};
Judged judge(py::handle actor);

/// All that the mirror should hold now: id to actor, in the editor's order. An actor that can't be
/// judged stays if the mirror has it, else it is left out and reported once.
py::dict _list_actors();

void bind_level_list(py::module_ &m);

}  // namespace kestrix
