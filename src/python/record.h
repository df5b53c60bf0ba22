// Records: the JSON-shaped maps that messages, info records and the link state are made of.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "python/object.h"

namespace kestrix {

/// A map under construction: Record{}.set("t"_n, "status").set("paused"_n, true). Keys keep the
/// order in which they are set, on the wire too.
class Record : public py::dict {
 public:
  Record() = default;
  /// With room for so many fields.
  explicit Record(Py_ssize_t fields) : py::dict(own(_PyDict_NewPresized(fields))) {}
  template <class T>
  Record &set(Name key, const T &value) & {
    kestrix::check(PyDict_SetItem(ptr(), key.ptr, to_py(value).ptr()));
    return *this;
  }
  template <class T>
  Record &&set(Name key, const T &value) && {
    set(key, value);
    return std::move(*this);
  }
};

/// Throws TypeError naming what was expected, unless the object is a map.
py::dict as_map(py::handle obj, const char *what);

/// map[key], or null if it is missing. TypeError if the object isn't a map.
py::object find(py::handle map, py::handle key);

/// map[key], or null if it is missing or None: a null field counts as missing where a default
/// exists.
py::object given(py::handle map, py::handle key);

/// map[key]; KeyError if it is missing.
py::object item(py::handle map, py::handle key);

/// map[key], or the default if it is missing or None.
template <class T>
py::object given_or(py::handle map, py::handle key, const T &fallback) {
  py::object value = given(map, key);
  return value ? value : to_py(fallback);
}

/// A number that came in a message. TypeError for anything else, RuntimeError for NaN and infinity,
/// which the editor would take without a word; `what` names it in the error.
double number(py::handle value, std::string_view what);

/// The number at map[key]; nothing if it is missing or None. Raises as number() does.
std::optional<double> number_given(py::handle map, Name key);

/// The value, if a 32-bit float can hold it. RuntimeError for NaN and beyond about 3.4e38, where
/// the editor would store infinity; `what` names the value in the error.
double in_float_range(double value, std::string_view what);

/// Sets a property that holds a 32-bit float. RuntimeError beyond its range.
void set_real(py::handle obj, Name property, double value);

/// The list of texts at map[key], empty if it is missing or None; `what` names one of them in the
/// TypeError for anything else.
py::list texts_given(py::handle map, Name key, const char *what);

/// The truth of map[key]; a missing field is false.
bool flag(py::handle map, py::handle key);

/// map[key] = value
template <class T>
void put(py::handle map, py::handle key, const T &value) {
  check(PyDict_SetItem(map.ptr(), key.ptr(), to_py(value).ptr()));
}

/// map.pop(key, None); true if it was there.
bool drop(py::handle map, py::handle key);

/// A list of floats.
py::list list_of_numbers(std::span<const double> numbers);

/// The map's entries as a list of [key, value] lists, in its order.
py::list pairs_of(const py::dict &map);

/// dict(map), a shallow copy.
py::dict copy_of(py::handle map);

inline Py_ssize_t size(const py::dict &map) {
  return PyDict_GET_SIZE(map.ptr());
}

/// Calls f(key, value) for each entry. RuntimeError if entries come or go meanwhile.
template <class F>
void each_entry(const py::dict &map, F &&f) {
  const py::dict held = map;
  const Py_ssize_t count = size(held);
  PyObject *key = nullptr;
  PyObject *value = nullptr;
  for (Py_ssize_t at = 0; PyDict_Next(held.ptr(), &at, &key, &value);) {
    f(py::reinterpret_borrow<py::object>(key), py::reinterpret_borrow<py::object>(value));
    if (size(held) != count) {
      PyErr_SetString(PyExc_RuntimeError, "a record has changed while it was read");
      throw py::error_already_set();
    }
  }
}

/// A number that no other state of any dict of this process has had: the interpreter counts every
/// change. What a field holds may change without it. TypeError if the object isn't a map.
inline std::uint64_t version_of(py::handle dict) {
  if (!PyDict_Check(dict.ptr())) as_map(dict, "a record");
  return reinterpret_cast<PyDictObject *>(dict.ptr())->ma_version_tag;
}

/// Adds to a set.
inline void add(const py::set &set, py::handle value) {
  check(PySet_Add(set.ptr(), value.ptr()));
}

}  // namespace kestrix
