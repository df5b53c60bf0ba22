#include "python/record.h"

#include <cmath>
#include <limits>

#include "python/errors.h"

namespace kestrix {

py::dict as_map(py::handle obj, const char *what) {
  if (!PyDict_Check(obj.ptr())) {
    fail_type(std::string(what) + " must be an object, not " + Py_TYPE(obj.ptr())->tp_name);
  }
  return py::reinterpret_borrow<py::dict>(obj);
}

py::object find(py::handle map, py::handle key) {
  if (!PyDict_Check(map.ptr())) as_map(map, "a record");
  PyObject *value = PyDict_GetItemWithError(map.ptr(), key.ptr());
  if (!value && PyErr_Occurred()) throw py::error_already_set();
  return py::reinterpret_borrow<py::object>(value);
}

py::object given(py::handle map, py::handle key) {
  py::object value = find(map, key);
  return value && !value.is_none() ? value : py::object();
}

py::object item(py::handle map, py::handle key) {
  py::object value = find(map, key);
  if (!value) {
    PyErr_SetObject(PyExc_KeyError, key.ptr());
    throw py::error_already_set();
  }
  return value;
}

double number(py::handle value, std::string_view what) {
  if (!PyFloat_Check(value.ptr()) && !PyLong_Check(value.ptr())) {
    fail_type(std::string(what) + ": a number was expected, not " + Py_TYPE(value.ptr())->tp_name);
  }
  const double result = real(value);
  if (!std::isfinite(result)) fail(std::string(what) + ": a finite number was expected");
  return result;
}

std::optional<double> number_given(py::handle map, Name key) {
  py::object value = given(map, key);
  if (!value) return std::nullopt;
  return number(value, view(key));
}

double in_float_range(double value, std::string_view what) {
  if (!(std::abs(value) <= std::numeric_limits<float>::max())) {
    fail(std::string(what) + ": the value is beyond what the editor can hold");
  }
  return value;
}

void set_real(py::handle obj, Name property, double value) {
  set_prop(obj, property, in_float_range(value, view(property)));
}

py::list texts_given(py::handle map, Name key, const char *what) {
  py::list texts = as_list(given_or(map, key, py::list()));
  for (py::handle text : texts) {
    if (!PyUnicode_Check(text.ptr())) fail_type(std::string(what) + " is a text");
  }
  return texts;
}

bool flag(py::handle map, py::handle key) {
  py::object value = find(map, key);
  return value && truth(value);
}

bool drop(py::handle map, py::handle key) {
  if (!find(map, key)) return false;
  check(PyDict_DelItem(map.ptr(), key.ptr()));
  return true;
}

py::list list_of_numbers(std::span<const double> numbers) {
  py::list out(numbers.size());
  for (size_t i = 0; i < numbers.size(); ++i) {
    PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i), to_py(numbers[i]).release().ptr());
  }
  // Floats make no cycle: the collector needn't go through the lists of a hundred thousand records.
  PyObject_GC_UnTrack(out.ptr());
  return out;
}

py::list pairs_of(const py::dict &map) {
  py::list pairs;
  each_entry(map, [&](const py::object &key, const py::object &value) {
    py::list pair;
    append(pair, key);
    append(pair, value);
    append(pairs, pair);
  });
  return pairs;
}

py::dict copy_of(py::handle map) {
  return py::reinterpret_steal<py::dict>(own(PyDict_Copy(map.ptr())).release());
}

}  // namespace kestrix
