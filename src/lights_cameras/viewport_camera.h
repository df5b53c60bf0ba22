// The level viewport's camera.
//
// Camera state: ten numbers, location x, y, z (editor units, 3 decimals), forward vector and up
// vector (6 decimals each), field of view in degrees (3 decimals).
#pragma once

#include "link/editor.h"

namespace kestrix {

/// The LevelEditorSubsystem.
py::object _les();

/// The followed pane's key: the active pane's, until another is followed.
py::object _cam_key();

/// The camera state of a pane (None or empty: the followed one); None when the editor has no camera
/// there.
py::object _cam_state(py::handle key);

void bind_viewport_camera(py::module_ &m);

}  // namespace kestrix
