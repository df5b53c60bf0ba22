// Calls into the interpreter at little more than their own cost.
//
// pybind11's obj.attr("name")(...) makes a string and a tuple at each call; here a name is interned
// once per literal and arguments travel on the stack. Ownership stays pybind11's: whatever returns
// py::object owns a reference, whatever takes py::handle borrows. A Python error is thrown as
// py::error_already_set.
//
// Two spellings, one rule. Where many actors are asked the same on every pass (scan, listing,
// snapshot): get<"x">(obj), call<"m">(obj), prop<"p">(obj), which remember what the class has under
// the name. Everywhere else: get(obj, "x"_n) and so on, which cost a look-up and less code.
#pragma once

#include <pybind11/pybind11.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <string>
#include <string_view>

// The version tags of classes and dicts, on which much here stands, are those of one version.
#if PY_VERSION_HEX < 0x030B0000 || PY_VERSION_HEX >= 0x030C0000
#error "kestrix can be built for CPython 3.11 only, the version that the editor embeds"
#endif
#if !defined(__x86_64__) && !defined(_M_X64)
#error "kestrix can be built for x86-64 only: it uses SSE2"
#endif

namespace kestrix {

namespace py = pybind11;

/// An interned Python string that lives as long as the process.
struct Name {
  PyObject *ptr;
  operator py::handle() const { return ptr; }
};

template <size_t N>
struct NameText {
  char text[N];
  constexpr NameText(const char (&literal)[N]) { std::copy_n(literal, N, text); }
};

/// Takes over a new reference; null means that the interpreter holds an error, which is thrown.
inline py::object own(PyObject *result) {
  if (!result) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(result);
}

/// "label"_n: the interned string "label".
template <NameText T>
Name operator""_n() {
  static PyObject *const interned = own(PyUnicode_InternFromString(T.text)).release().ptr();
  return {interned};
}

/// Throws if the C function signalled an error by a negative result.
inline int check(int result) {
  if (result < 0) throw py::error_already_set();
  return result;
}

// A C++ value as a Python object; Python objects pass as they are.
inline py::object to_py(py::handle value) {
  return py::reinterpret_borrow<py::object>(value);
}
inline py::object to_py(Name value) {
  return py::reinterpret_borrow<py::object>(value.ptr);
}
inline py::object to_py(std::nullptr_t) {
  return py::none();
}
inline py::object to_py(std::same_as<bool> auto value) {
  return py::bool_(value);
}
inline py::object to_py(std::floating_point auto value) {
  return own(PyFloat_FromDouble(value));
}
inline py::object to_py(std::integral auto value) requires(!std::same_as<decltype(value), bool>) {
  return own(PyLong_FromLongLong(static_cast<long long>(value)));
}
inline py::object to_py(std::string_view text) {
  return own(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), nullptr));
}
inline py::object to_py(const char *text) {
  return to_py(std::string_view(text));
}
inline py::object to_py(const std::string &text) {
  return to_py(std::string_view(text));
}

/// obj.name
inline py::object get(py::handle obj, py::handle name) {
  return own(PyObject_GetAttr(obj.ptr(), name.ptr()));
}

/// obj.name, or null if there is no such attribute.
inline py::object get_if(py::handle obj, py::handle name) {
  // The error of a module that lacks a name costs more than all else here: ask its dict first.
  if (PyModule_CheckExact(obj.ptr())) {
    PyObject *const names = PyModule_GetDict(obj.ptr());
    if (PyObject *value = PyDict_GetItemWithError(names, name.ptr())) {
      return py::reinterpret_borrow<py::object>(value);
    }
    if (PyErr_Occurred()) throw py::error_already_set();
    if (!PyDict_GetItemWithError(names, "__getattr__"_n.ptr)) return {};
  }
  PyObject *value = PyObject_GetAttr(obj.ptr(), name.ptr());
  if (!value) {
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::error_already_set();
    PyErr_Clear();
  }
  return py::reinterpret_steal<py::object>(value);
}

/// obj.method(args...), or null with the Python error left set: for errors that are usual, too
/// frequent for a C++ exception. The caller asks for the error's class and clears it.
template <class... Args>
py::object try_call(py::handle obj, Name method, const Args &...args) {
  const std::array<py::object, sizeof...(Args)> held{to_py(args)...};
  std::array<PyObject *, sizeof...(Args) + 2> stack{nullptr, obj.ptr()};
  for (size_t i = 0; i < held.size(); ++i) stack[i + 2] = held[i].ptr();
  return py::reinterpret_steal<py::object>(PyObject_VectorcallMethod(
      method.ptr, stack.data() + 1, (held.size() + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// obj.method(args...)
template <class... Args>
py::object call(py::handle obj, Name method, const Args &...args) {
  py::object result = try_call(obj, method, args...);
  if (!result) throw py::error_already_set();
  return result;
}

/// callable(args...)
template <class... Args>
py::object invoke(py::handle callable, const Args &...args) {
  const std::array<py::object, sizeof...(Args)> held{to_py(args)...};
  std::array<PyObject *, sizeof...(Args) + 1> stack{nullptr};
  for (size_t i = 0; i < held.size(); ++i) stack[i + 1] = held[i].ptr();
  return own(PyObject_Vectorcall(callable.ptr(), stack.data() + 1,
                                 held.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// A module by name, imported if it isn't yet; looked up at each use, so that it can be replaced.
inline py::object module(Name name) {
  PyObject *loaded = PyDict_GetItemWithError(PyImport_GetModuleDict(), name.ptr);
  if (loaded && loaded != Py_None) return py::reinterpret_borrow<py::object>(loaded);
  if (PyErr_Occurred()) throw py::error_already_set();
  return own(PyImport_Import(name.ptr));
}

/// An attribute of the editor's scripting module: a class, a library or a function.
inline py::object unreal(Name name) {
  const py::object editor = module("unreal"_n);
  py::object found = get_if(editor, name);  // by its dict, which is cheaper
  return found ? found : get(editor, name);
}

/// obj.get_editor_property(name)
inline py::object prop(py::handle obj, Name name) {
  return call(obj, "get_editor_property"_n, name);
}

/// obj.set_editor_property(name, value)
template <class T>
void set_prop(py::handle obj, Name name, const T &value) {
  call(obj, "set_editor_property"_n, name, value);
}

inline bool is_a(py::handle obj, py::handle cls) {
  return check(PyObject_IsInstance(obj.ptr(), cls.ptr())) != 0;
}

/// Whether obj is an instance of that editor class.
inline bool is_a(py::handle obj, Name editor_class) {
  return is_a(obj, unreal(editor_class));
}

inline bool truth(py::handle obj) {
  return check(PyObject_IsTrue(obj.ptr())) != 0;
}

/// a == b, an object being equal to itself.
inline bool equal(py::handle a, py::handle b) {
  if (a.is(b)) return true;
  // Held, as the comparison may run code that takes them from where they are.
  const py::object left = py::reinterpret_borrow<py::object>(a);
  const py::object right = py::reinterpret_borrow<py::object>(b);
  return check(PyObject_RichCompareBool(left.ptr(), right.ptr(), Py_EQ)) != 0;
}

/// float(obj)
inline double real(py::handle obj) {
  if (PyFloat_CheckExact(obj.ptr())) return PyFloat_AS_DOUBLE(obj.ptr());
  return PyFloat_AS_DOUBLE(own(PyNumber_Float(obj.ptr())).ptr());
}

/// An integer object's value. TypeError for anything else, OverflowError beyond 64 bits.
inline long long integer(py::handle obj) {
  const long long value = PyLong_AsLongLong(obj.ptr());
  if (value == -1 && PyErr_Occurred()) throw py::error_already_set();
  return value;
}

/// The number that the attribute holds, as a double.
inline double real(py::handle obj, Name name) {
  return real(get(obj, name));
}

/// str(obj)
inline py::object str(py::handle obj) {
  if (PyUnicode_CheckExact(obj.ptr())) return py::reinterpret_borrow<py::object>(obj);
  return own(PyObject_Str(obj.ptr()));
}

/// The UTF-8 of a Python string, valid while the object lives. TypeError for anything else.
inline std::string_view view(py::handle text) {
  Py_ssize_t size = 0;
  const char *data = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
  if (!data) throw py::error_already_set();
  return {data, static_cast<size_t>(size)};
}

/// str(obj) as UTF-8; a lone surrogate, which UTF-8 can't hold, becomes "?".
inline std::string text(py::handle obj) {
  py::object bytes = own(PyUnicode_AsEncodedString(str(obj).ptr(), "utf-8", "replace"));
  return {PyBytes_AS_STRING(bytes.ptr()), static_cast<size_t>(PyBytes_GET_SIZE(bytes.ptr()))};
}

/// Calls f(item) for each item of any Python iterable.
template <class F>
void each(py::handle iterable, F &&f) {
  py::object iterator = own(PyObject_GetIter(iterable.ptr()));
  while (PyObject *next = PyIter_Next(iterator.ptr())) {
    f(py::reinterpret_steal<py::object>(next));
  }
  if (PyErr_Occurred()) throw py::error_already_set();
}

/// list(iterable), with nothing for None.
inline py::list list_of(py::handle iterable) {
  if (iterable.is_none()) return py::list();
  return py::reinterpret_steal<py::list>(own(PySequence_List(iterable.ptr())).release());
}

/// The object itself as a list. TypeError if it isn't one.
inline py::list as_list(py::handle obj) {
  if (!PyList_Check(obj.ptr())) {
    PyErr_Format(PyExc_TypeError, "a list was expected, not %s", Py_TYPE(obj.ptr())->tp_name);
    throw py::error_already_set();
  }
  return py::reinterpret_borrow<py::list>(obj);
}

/// sequence[index]
inline py::object nth(py::handle sequence, Py_ssize_t index) {
  return own(PySequence_GetItem(sequence.ptr(), index));
}

inline void append(py::list &list, py::handle value) {
  check(PyList_Append(list.ptr(), value.ptr()));
}

// For hot paths: asking many objects of one class for the same thing. What the class has under the
// name is remembered while the class stays as it is, which saves the look-up, the larger part of
// the interpreter's own work.

/// A class's attribute, as long as the class is in this version: the interpreter gives it a new one
/// at each change, and none twice.
struct Found {
  unsigned version = 0;
  PyObject *attribute = nullptr;  // borrowed from the class; null if only the object can tell
};

/// Looks the name up again if the object's class isn't the remembered one. `fits` tells whether the
/// attribute settles the matter, whatever the object itself holds.
template <class Fits>
py::handle look_up(Found &found, PyTypeObject *type, Name name, Fits fits) {
  const auto versioned = [&] { return PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG); };
  if (found.version == 0 || type->tp_version_tag != found.version || !versioned()) {
    PyObject *const attribute = _PyType_Lookup(type, name.ptr);
    const bool usable = attribute && type->tp_getattro == PyObject_GenericGetAttr &&
                        !PyType_HasFeature(Py_TYPE(attribute), Py_TPFLAGS_HEAPTYPE) &&
                        fits(Py_TYPE(attribute));
    found = {versioned() ? type->tp_version_tag : 0, usable ? attribute : nullptr};
  }
  return found.attribute;
}

/// get<"x">(obj): obj.x
template <NameText T>
py::object get(py::handle obj) {
  static Found found;
  PyTypeObject *const type = Py_TYPE(obj.ptr());
  const auto descriptor = py::reinterpret_borrow<py::object>(
      look_up(found, type, operator""_n<T>(),
              [](PyTypeObject *kind) { return kind->tp_descr_get && kind->tp_descr_set; }));
  if (!descriptor) return get(obj, operator""_n<T>());
  return own(Py_TYPE(descriptor.ptr())
                 ->tp_descr_get(descriptor.ptr(), obj.ptr(), reinterpret_cast<PyObject *>(type)));
}

template <class... Args>
py::object call_found(Found &found, py::handle obj, Name method, const Args &...args) {
  PyTypeObject *const type = Py_TYPE(obj.ptr());
  const auto function =
      py::reinterpret_borrow<py::object>(look_up(found, type, method, [&](PyTypeObject *kind) {
        return type->tp_dictoffset == 0 && PyType_HasFeature(kind, Py_TPFLAGS_METHOD_DESCRIPTOR);
      }));
  return function ? invoke(function, obj, args...) : call(obj, method, args...);
}

/// call<"get_actor_label">(obj, args...): obj.get_actor_label(args...)
template <NameText T, class... Args>
py::object call(py::handle obj, const Args &...args) {
  static Found found;
  return call_found(found, obj, operator""_n<T>(), args...);
}

/// prop<"tags">(obj): obj.get_editor_property("tags")
template <NameText T>
py::object prop(py::handle obj) {
  static Found found;
  return call_found(found, obj, "get_editor_property"_n, operator""_n<T>());
}

}  // namespace kestrix
