// Whether the user works in the editor just now: then heavy work waits.
#pragma once

#include "link/host.h"

namespace kestrix {

/// True while the editor is in front and had a key or mouse event in the last 2 seconds; found out
/// at most every 0.25 s. False where Windows can't tell.
bool _user_in_unreal();

void bind_user_activity(py::module_ &m);

}  // namespace kestrix
