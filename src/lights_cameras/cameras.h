// Camera actors: the lens.
//
// The record of a cine camera: "focal" (focal length), "sw", "sh" (sensor width and height), all in
// millimetres; of any other camera: "fov" (horizontal field of view in degrees). 4 decimals.
#pragma once

#include "link/host.h"
#include "mirror/draft.h"

namespace kestrix {

/// Reads the camera's record.
void read_camera(Draft &draft, py::handle actor);

/// The camera's record.
py::dict _camera_props(py::handle actor);

/// Writes the fields that the record has and that fit the camera; each is optional. A camera
/// without a lens takes "fov", or else the field of view of "focal" on a sensor of width "sw"
/// (default 36): 2 atan(sw / 2 / focal), the horizontal angle of a thin lens focused at infinity.
/// Opens no transaction. ZeroDivisionError for a focal length of 0 there; TypeError and
/// RuntimeError for what is no finite number.
void _apply_camera(py::handle actor, py::handle p);

void bind_cameras(py::module_ &m);

}  // namespace kestrix
