// The module's entry point: each topic hands its functions to the module.
#include "assets/body_edits.h"
#include "assets/catalogue.h"
#include "assets/collision.h"
#include "assets/edited_meshes.h"
#include "assets/export_queue.h"
#include "assets/exporting.h"
#include "assets/importing.h"
#include "assets/mesh_edits.h"
#include "assets/overwriting.h"
#include "assets/physics.h"
#include "assets/rigs.h"
#include "editor/brush.h"
#include "editor/cache_pruning.h"
#include "editor/frame_rate.h"
#include "editor/levels.h"
#include "editor/menu.h"
#include "editor/selection.h"
#include "editor/self_update.h"
#include "editor/toolbar.h"
#include "editor/user_activity.h"
#include "editor/window_focus.h"
#include "landscape/layout.h"
#include "lights_cameras/cameras.h"
#include "lights_cameras/exposure.h"
#include "lights_cameras/lights.h"
#include "lights_cameras/viewport_camera.h"
#include "link/cache.h"
#include "link/scope.h"
#include "link/xf.h"
#include "materials/assignment.h"
#include "materials/build.h"
#include "materials/clean_up.h"
#include "materials/displacement.h"
#include "materials/file_textures.h"
#include "materials/gltf_values.h"
#include "materials/importer_repair.h"
#include "materials/instances.h"
#include "materials/live_params.h"
#include "mirror/actor_edits.h"
#include "mirror/diff.h"
#include "mirror/drags.h"
#include "mirror/info.h"
#include "mirror/level_list.h"
#include "mirror/mirrored.h"
#include "mirror/overrides.h"
#include "mirror/snapshot.h"
#include "mirror/spawning.h"
#include "mirror/text_actors.h"
#include "mirror/walk.h"
#include "session/handshake.h"
#include "session/tick.h"

namespace kestrix {

namespace {

// Each topic hands its functions to the module, the state first: the others find it there.
constexpr std::array TOPICS{&bind_link_state,
                            &bind_host,
                            &bind_cache,
                            &bind_xf,
                            &bind_wire,
                            &bind_dispatch,
                            &bind_held,
                            &bind_server,
                            &bind_tick,
                            &bind_scope,
                            &bind_handshake,
                            &bind_actors,
                            &bind_overrides,
                            &bind_text_actors,
                            &bind_info,
                            &bind_level_list,
                            &bind_mirrored,
                            &bind_diff,
                            &bind_snapshot,
                            &bind_walk,
                            &bind_lights,
                            &bind_cameras,
                            &bind_exposure,
                            &bind_drags,
                            &bind_spawning,
                            &bind_actor_edits,
                            &bind_viewport_camera,
                            &bind_catalogue,
                            &bind_layout,
                            &bind_self_update,
                            &bind_window_focus,
                            &bind_toolbar,
                            &bind_selection,
                            &bind_levels,
                            &bind_menu,
                            &bind_brush,
                            &bind_frame_rate,
                            &bind_cache_pruning,
                            &bind_user_activity,
                            &bind_collision,
                            &bind_physics,
                            &bind_body_edits,
                            &bind_exporting,
                            &bind_export_queue,
                            &bind_edited_meshes,
                            &bind_importing,
                            &bind_overwriting,
                            &bind_mesh_edits,
                            &bind_rigs,
                            &bind_gltf_values,
                            &bind_instances,
                            &bind_file_textures,
                            &bind_displacement,
                            &bind_importer_repair,
                            &bind_material_build,
                            &bind_live_params,
                            &bind_assignment,
                            &bind_clean_up};

int load(PyObject *loaded) {
  try {
    auto m = py::reinterpret_borrow<py::module_>(loaded);
    for (const auto bind : TOPICS) bind(m);
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
  if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
    PyErr_SetString(PyExc_ImportError,
                    "kestrix is for the editor's own interpreter, a sub-interpreter can't have it");
    return nullptr;
  }
  pybind11::detail::get_internals();
  return PyModuleDef_Init(&kestrix::definition);
}
