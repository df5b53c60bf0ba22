// The level viewport's camera, followed both ways.
//
// The editor may show several panes. The link follows the one that the user moves: "cam_key". While
// "cam_send" is on its view is streamed to the peer; "cam_last" is the state that both sides know,
// so that a view that came from the peer isn't sent back.
//
// Camera state: ten numbers, location x, y, z (editor units, 3 decimals), forward vector and up
// vector (6 decimals each), field of view in degrees (3 decimals).
#pragma once

#include "link/wire.h"

namespace kestrix {

/// The LevelEditorSubsystem.
py::object _les();

/// The followed pane's key: the active pane's, until another is followed.
py::object _cam_key();

/// The camera state of a pane (None or empty: the followed one); None when the editor has no camera
/// there.
py::object _cam_state(py::handle key);

/// Whether two camera states look the same; false if either is None.
bool _cam_equal(py::handle a, py::handle b);

/// The editor's event: a pane that the user moves becomes the followed one, if it is in
/// perspective. `loc`, `rot`: the new view; `vtype`: the pane's LevelViewportType; `index`: its
/// number. Raises nothing.
void _on_cam_moved(py::handle loc, py::handle rot, py::handle vtype, py::handle index);

/// Follows the active pane if the user has turned its camera since the last look: not every way of
/// moving a camera fires the event. To be called a few times a second.
void _cam_pick_pane();

/// Sends "cam" if the view has changed visibly since the last state that both sides know.
void _cam_tick();

/// "cam": the peer's view `c` becomes that of the followed pane. The field of view is left alone if
/// it is missing or 0, else clamped to 5 to 170 degrees. A list too short or not of finite numbers
/// raises, and the view stays.
void _h_cam(const py::dict &m);

/// "cam_mode": switches the stream on or off ("send"); the next state goes out in any case.
void _h_cam_mode(const py::dict &m);

/// "cam_get": answers one "cam" with "snap" true, if the editor has a camera to tell of.
void _h_cam_get(const py::dict &m);

void bind_viewport_camera(py::module_ &m);

}  // namespace kestrix
