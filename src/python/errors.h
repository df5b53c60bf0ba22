// Failures: raising Python errors, catching them, and leaving scopes properly on every path.
#pragma once

#include <functional>
#include <optional>
#include <utility>

#include "python/object.h"

namespace kestrix {

/// Raises an exception of that class with this text.
[[noreturn]] void fail(const std::string &message, PyObject *type = PyExc_RuntimeError);

/// Raises TypeError with this text.
[[noreturn]] void fail_type(const std::string &message);

/// Inside a catch (...): the exception in flight, thrown again as py::error_already_set whatever
/// C++ type it had.
[[noreturn]] void rethrow_as_python_error();

/// A Python exception that was caught.
class Failure {
 public:
  explicit Failure(py::error_already_set error) : error_(std::move(error)) {}
  /// Whether it is of that Python exception class.
  bool is(py::handle type) const { return error_.matches(type); }
  /// str(exception)
  std::string text() const;
  /// The traceback as Python prints it.
  std::string traceback() const;
  [[noreturn]] void raise() const { throw error_; }

 private:
  py::error_already_set error_;
};

/// Runs f; gives what it raised, if that is an Exception. KeyboardInterrupt and SystemExit go on.
template <class F>
std::optional<Failure> failure_of(F &&f) {
  try {
    try {
      f();
    } catch (...) {
      rethrow_as_python_error();
    }
  } catch (py::error_already_set &error) {
    if (!error.matches(PyExc_Exception)) throw;
    return Failure(std::move(error));
  }
  return std::nullopt;
}

/// f(), or the fallback if it raised an Exception.
template <class F, class T>
T attempt(F &&f, T fallback) {
  T result = std::move(fallback);
  failure_of([&] { result = f(); });
  return result;
}

/// Runs f and ignores an Exception; false if it raised one.
template <class F>
bool attempt(F &&f) {
  return !failure_of(std::forward<F>(f));
}

/// The first failure of several steps that don't depend on each other.
class FirstFailure {
 public:
  /// Runs f; false if it failed.
  template <class F>
  bool attempt(F &&f) {
    auto failure = failure_of(std::forward<F>(f));
    if (failure && !first_) first_ = std::move(failure);
    return !failure;
  }
  void raise() const {
    if (first_) first_->raise();
  }

 private:
  std::optional<Failure> first_;
};

/// Runs its function when the scope ends, however it ends. What the function raises is reported to
/// the interpreter as unraisable, since nothing can catch it there.
template <class F>
class Finally {
 public:
  explicit Finally(F f) : f_(std::move(f)) {}
  Finally(const Finally &) = delete;
  Finally &operator=(const Finally &) = delete;
  ~Finally() {
    // An exception may be on its way whose Python error is still set: pybind11's types fail so.
    PyObject *error_type = nullptr;
    PyObject *error_value = nullptr;
    PyObject *error_trace = nullptr;
    PyErr_Fetch(&error_type, &error_value, &error_trace);
    try {
      f_();
    } catch (py::error_already_set &error) {
      error.restore();
      PyErr_WriteUnraisable(nullptr);
    } catch (...) {
      PyErr_Clear();
    }
    PyErr_Restore(error_type, error_value, error_trace);
  }

 private:
  F f_;
};

/// Enters a Python context manager, runs f and leaves it with f's exception, if any, as `with`
/// does. An exception that the manager doesn't swallow goes on.
void in_context(py::handle manager, const std::function<void()> &f);

/// Runs f as one step of the editor's undo history.
template <class F>
void in_transaction(const std::string &title, F &&f) {
  in_context(invoke(unreal("ScopedEditorTransaction"_n), title), std::forward<F>(f));
}

/// The same for an f that takes back all it did before it raises: then no step is left either,
/// unless the editor can't cancel one.
template <class F>
void in_transaction_or_none(const std::string &title, F &&f) {
  py::object transaction = invoke(unreal("ScopedEditorTransaction"_n), title);
  in_context(transaction, [&] {
    const auto failure = failure_of(f);
    if (!failure) return;
    attempt([&] { call(transaction, "cancel"_n); });
    failure->raise();
  });
}

}  // namespace kestrix
