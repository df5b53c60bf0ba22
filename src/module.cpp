// The module's entry point: each topic hands its functions to the module.
#include "assets/catalogue.h"
#include "editor/brush.h"
#include "editor/cache_pruning.h"
#include "editor/frame_rate.h"
#include "editor/levels.h"
#include "editor/menu.h"
#include "editor/selection.h"
#include "editor/self_update.h"
#include "editor/toolbar.h"
#include "editor/window_focus.h"
#include "landscape/layout.h"
#include "lights_cameras/cameras.h"
#include "lights_cameras/exposure.h"
#include "lights_cameras/lights.h"
#include "lights_cameras/viewport_camera.h"
#include "link/cache.h"
#include "link/handshake.h"
#include "link/scope.h"
#include "link/tick.h"
#include "link/xf.h"
#include "mirror/actor_edits.h"
#include "mirror/drags.h"
#include "mirror/info.h"
#include "mirror/level_list.h"
#include "mirror/overrides.h"
#include "mirror/scanner.h"
#include "mirror/spawning.h"
#include "mirror/text_actors.h"

namespace kestrix {

namespace {

int load(PyObject *loaded) {
  try {
    auto m = py::reinterpret_borrow<py::module_>(loaded);
    bind_link_state(m);
    bind_editor(m);
    bind_cache(m);
    bind_xf(m);
    bind_wire(m);
    bind_dispatch(m);
    bind_server(m);
    bind_tick(m);
    bind_scope(m);
    bind_handshake(m);
    bind_actors(m);
    bind_overrides(m);
    bind_text_actors(m);
    bind_info(m);
    bind_level_list(m);
    bind_scanner(m);
    bind_lights(m);
    bind_cameras(m);
    bind_exposure(m);
    bind_drags(m);
    bind_spawning(m);
    bind_actor_edits(m);
    bind_viewport_camera(m);
    bind_catalogue(m);
    bind_layout(m);
    bind_self_update(m);
    bind_window_focus(m);
    bind_toolbar(m);
    bind_selection(m);
    bind_levels(m);
    bind_menu(m);
    bind_brush(m);
    bind_frame_rate(m);
    bind_cache_pruning(m);
    return 0;
  } catch (...) {
    try {
      rethrow_as_python_error();
    } catch (py::error_already_set &error) {
      error.restore();
    }
    return -1;
  }
}

// Multi-phase initialisation: an import after the module was taken from sys.modules runs load()
// again, on a new module object.
PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void *>(&load)}, {0, nullptr}};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "kestrix",
                          "The Unreal Editor half of a two-way live link with Blender.",
                          0,
                          nullptr,
                          slots,
                          nullptr,
                          nullptr,
                          nullptr};

}  // namespace

}  // namespace kestrix

extern "C" PYBIND11_EXPORT PyObject *PyInit_kestrix() {
  pybind11::detail::get_internals();
  return PyModuleDef_Init(&kestrix::definition);
}
