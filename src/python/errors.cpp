#include "python/errors.h"

#include <stdexcept>

namespace kestrix {

void fail(const std::string &message, PyObject *type) {
  PyErr_SetString(type, message.c_str());
  throw py::error_already_set();
}

void fail_type(const std::string &message) {
  fail(message, PyExc_TypeError);
}

void rethrow_as_python_error() {
  try {
    throw;
  } catch (py::error_already_set &) {
    throw;
  } catch (const py::builtin_exception &error) {
    error.set_error();
  } catch (const std::bad_alloc &) {
    PyErr_NoMemory();
  } catch (const std::exception &error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
  try {
    throw py::error_already_set();
  } catch (const py::error_already_set &) {
    throw;
  } catch (...) {
    PyErr_NoMemory();  // there is none for the error itself
  }
  throw py::error_already_set();
}

std::string Failure::text() const {
  return attempt([&] { return kestrix::text(error_.value()); }, std::string("unprintable error"));
}

std::string Failure::traceback() const {
  return attempt(
      [&] {
        py::object lines = call(module("traceback"_n), "format_exception"_n, error_.type(),
                                error_.value(), error_.trace() ? error_.trace() : py::none());
        return kestrix::text(call(to_py(""), "join"_n, lines));
      },
      text());
}

void in_context(py::handle manager, const std::function<void()> &f) {
  // As `with` does: find the exit before entering, so that a manager without one is never entered.
  py::object leave = get(manager, "__exit__"_n);
  call(manager, "__enter__"_n);
  try {
    try {
      f();
    } catch (...) {
      rethrow_as_python_error();
    }
  } catch (const py::error_already_set &error) {
    py::object trace = error.trace() ? py::object(error.trace()) : py::none();
    if (!truth(invoke(leave, error.type(), error.value(), trace))) throw;
    return;
  }
  invoke(leave, nullptr, nullptr, nullptr);
}

}  // namespace kestrix
