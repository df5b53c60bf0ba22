// The module's entry point: each topic hands its functions to the module.
#include "link/cache.h"
#include "link/editor.h"
#include "link/wire.h"
#include "link/xf.h"

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
