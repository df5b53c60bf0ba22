#include "link/link_state.h"

namespace kestrix {

namespace {

// Which dict and which module object this copy of the library serves: set when the module is
// loaded, borrowed from builtins and sys.modules and kept alive for good.
PyObject *state_map = nullptr;
PyObject *loaded_module = nullptr;

void keep(PyObject *&slot, py::object value) {
  Py_XDECREF(slot);
  slot = value.release().ptr();
}

}  // namespace

py::dict S() {
  return py::reinterpret_borrow<py::dict>(state_map);
}

py::object S(StateKey key) {
  PyObject *value = PyDict_GetItemWithError(state_map, key.name().ptr);
  if (value) return py::reinterpret_borrow<py::object>(value);
  if (PyErr_Occurred()) throw py::error_already_set();
  return py::none();
}

void drop_S(StateKey key) {
  drop(S(), key.name());
}

bool S_flag(StateKey key, bool fallback) {
  py::object value = S(key);
  return value.is_none() ? fallback : truth(value);
}

double S_real(StateKey key) {
  py::object value = S(key);
  return value.is_none() ? 0.0 : real(value);
}

long long S_int(StateKey key, long long fallback) {
  py::object value = S(key);
  return value.is_none() ? fallback : integer(value);
}

long long peer_version() {
  return S_flag(key::greeted, true) ? S_int(key::client_ver, 1) : 0;
}

py::dict S_map(StateKey key) {
  py::object value = S(key);
  if (value.is_none()) {
    value = py::dict();
    set_S(key, value);
  }
  return as_map(value, "link state");
}

py::set S_set(StateKey key) {
  py::object value = S(key);
  if (value.is_none()) {
    value = py::set();
    set_S(key, value);
  }
  return py::reinterpret_borrow<py::set>(value);
}

py::module_ this_module() {
  return py::reinterpret_borrow<py::module_>(loaded_module);
}

bool is_ours(std::string_view path) {
  constexpr std::string_view root = LINK_ROOT;
  return path.starts_with(root) && path.substr(root.size()).starts_with('/');
}

void bind_link_state(py::module_ &m) {
  py::module_ builtins = py::module_::import("builtins");
  py::object state = get_if(builtins, "_kestrix_state"_n);
  if (!state || state.is_none()) {
    state = Record()
                .set("handle"_n, nullptr)
                .set("server"_n, nullptr)
                .set("conn"_n, nullptr)
                .set("port"_n, PORT);
    builtins.attr("_kestrix_state") = state;
  }
  keep(state_map, state);
  keep(loaded_module, m);
  m.attr("_S") = state;
  m.attr("VERSION") = VERSION;
  m.attr("HOST") = HOST;
  m.attr("PORT") = PORT;
  m.attr("LINK_ROOT") = LINK_ROOT;
}

}  // namespace kestrix
