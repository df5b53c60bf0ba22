#include "link/link_state.h"

#include <cmath>

namespace kestrix {

namespace {

// Which dict and which module object this copy of the library serves: set when the module is
// loaded, and kept alive for good.
PyObject *state_map = nullptr;
PyObject *loaded_module = nullptr;

// Beyond it a double can't tell a number from the next one; counting on is safe for ages.
constexpr long long LARGEST_WHOLE = 1LL << 53;

/// Whether a value is what the key holds.
bool fits(Holds holds, PyObject *value) {
  switch (holds) {
    case Holds::anything:
      return true;
    case Holds::truth:
      return PyBool_Check(value) || PyLong_CheckExact(value);
    case Holds::number:
    case Holds::time: {
      if (PyFloat_Check(value)) return std::isfinite(PyFloat_AS_DOUBLE(value));
      if (!PyLong_Check(value)) return false;
      int overflow = 0;
      const long long whole = PyLong_AsLongLongAndOverflow(value, &overflow);
      return overflow == 0 && std::abs(whole / 2) < LARGEST_WHOLE / 2;
    }
    case Holds::text:
      return PyUnicode_Check(value);
    case Holds::map:
      return PyDict_CheckExact(value);
    case Holds::list:
      return PyList_CheckExact(value);
    case Holds::set:
      return PySet_CheckExact(value);
  }
  return false;
}

py::object made_if_absent(StateKey key, PyObject *(*make)()) {
  py::object value = S(key);
  if (value.is_none()) {
    value = own(make());
    set_S(key, value);
  }
  return value;
}

}  // namespace

py::dict S() {
  return py::reinterpret_borrow<py::dict>(state_map);
}

py::object S(StateKey key) {
  py::object value = find(state_map, key.name());
  return value && fits(key.holds, value.ptr()) ? value : py::none();
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
  return PyLong_Check(value.ptr()) ? integer(value) : fallback;
}

long long peer_version() {
  return S_flag(key::greeted, true) ? S_int(key::client_ver, 1) : 0;
}

py::dict S_map(StateKey key) {
  return py::reinterpret_steal<py::dict>(made_if_absent(key, &PyDict_New).release());
}

py::list S_list(StateKey key) {
  return as_list(made_if_absent(key, [] { return PyList_New(0); }));
}

py::set S_set(StateKey key) {
  return py::reinterpret_steal<py::set>(
      made_if_absent(key, [] { return PySet_New(nullptr); }).release());
}

void heal_state() {
#define KESTRIX_HEAL(name, kind) key::name,
  for (const StateKey key : {KESTRIX_STATE_KEYS(KESTRIX_HEAL)}) {
#undef KESTRIX_HEAL
    const py::object value = find(state_map, key.name());
    if (!value || value.is_none()) continue;
    if (key.holds == Holds::time || !fits(key.holds, value.ptr())) drop_S(key);
  }
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
  if (!state || !PyDict_CheckExact(state.ptr())) {
    state = Record()
                .set("handle"_n, nullptr)
                .set("server"_n, nullptr)
                .set("conn"_n, nullptr)
                .set("port"_n, PORT);
    builtins.attr("_kestrix_state") = state;
  }
  // Both in place before the old module goes: what goes with it may call the link.
  const auto old_state = py::reinterpret_steal<py::object>(
      std::exchange(state_map, py::object(state).release().ptr()));
  const auto old_module = py::reinterpret_steal<py::object>(
      std::exchange(loaded_module, py::object(m).release().ptr()));
  m.attr("_S") = state;
  m.attr("VERSION") = VERSION;
  m.attr("HOST") = HOST;
  m.attr("PORT") = PORT;
  m.attr("LINK_ROOT") = LINK_ROOT;
}

}  // namespace kestrix
