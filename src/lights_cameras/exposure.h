// The exposure volume: one tagged post-process volume that shows the level at a fixed manual
// exposure, so that it matches the peer's own view.
#pragma once

#include "link/dispatch.h"

namespace kestrix {

/// Actor tag that marks the exposure volume.
constexpr const char *EXPO_TAG = "KestrixExposure";

/// The exposure volume; made if there is none and `make`, else None. Opens no transaction.
py::object _expo_volume(bool make);

/// "exposure": puts the volume in effect ("on") with the exposure bias "comp" in stops (default
/// minus EXPO_OFFSET), or takes it out of effect, in one undo step.
void _h_exposure(const py::dict &m);

void bind_exposure(py::module_ &m);

}  // namespace kestrix
