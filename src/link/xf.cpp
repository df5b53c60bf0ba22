#include "link/xf.h"

namespace kestrix {

namespace {

/// Writes the vector's three coordinates; gives where they end.
double *put_vector(double *at, py::handle vector) {
  *at++ = real(get<"x">(vector));
  *at++ = real(get<"y">(vector));
  *at++ = real(get<"z">(vector));
  return at;
}

XfNumbers numbers_of(py::handle transform) {
  XfNumbers numbers;
  double *at = put_vector(numbers.data(), get<"translation">(transform));
  py::object rotation = get<"rotation">(transform);
  at = put_vector(at, call<"get_axis_x">(rotation));
  at = put_vector(at, call<"get_axis_y">(rotation));
  at = put_vector(at, call<"get_axis_z">(rotation));
  put_vector(at, get<"scale3d">(transform));
  return numbers;
}

}  // namespace

XfNumbers xf_numbers(py::handle actor) {
  return numbers_of(call<"get_actor_transform">(actor));
}

py::object changed_xf(py::handle old, std::span<const double> numbers) {
  const bool reuse = PyList_CheckExact(old.ptr()) && old.ref_count() == 1 &&
                     static_cast<size_t>(PyList_GET_SIZE(old.ptr())) == numbers.size();
  if (!reuse) {
    py::object fresh = list_of_numbers(numbers);
    return equal(fresh, old) ? py::object() : fresh;
  }
  bool changed = false;
  for (size_t i = 0; i < numbers.size(); ++i) {
    const auto at = static_cast<Py_ssize_t>(i);
    PyObject *const number = PyList_GET_ITEM(old.ptr(), at);
    if (!PyFloat_CheckExact(number)) return list_of_numbers(numbers);  // not of our making
    if (PyFloat_AS_DOUBLE(number) == numbers[i]) continue;
    changed = true;
    if (Py_REFCNT(number) == 1) {
      // Nobody but the list can have seen this float.
      reinterpret_cast<PyFloatObject *>(number)->ob_fval = numbers[i];
    } else {
      check(PyList_SetItem(old.ptr(), at, to_py(numbers[i]).release().ptr()));
    }
  }
  return changed ? to_py(old) : py::object();
}

py::list _xf_of(py::handle actor) {
  return _xf_of_transform(call<"get_actor_transform">(actor));
}

py::list _xf_of_transform(py::handle t) {
  XfNumbers numbers = numbers_of(t);
  round_all(numbers, XF_DECIMALS);
  return list_of_numbers(numbers);
}

py::object vector_at(py::handle numbers, Py_ssize_t first) {
  const auto coordinate = [&](Py_ssize_t i) { return number(nth(numbers, first + i), "vector"); };
  return invoke(unreal("Vector"_n), coordinate(0), coordinate(1), coordinate(2));
}

py::object _transform_from_xf(py::handle xf) {
  if (check(static_cast<int>(PySequence_Size(xf.ptr()))) < 15) {
    fail("a transform is a list of 15 numbers", PyExc_IndexError);
  }
  py::object location = vector_at(xf, 0);
  py::object rotation =
      call(unreal("MathLibrary"_n), "make_rot_from_xz"_n, vector_at(xf, 3), vector_at(xf, 9));
  return invoke(unreal("Transform"_n), location, rotation, vector_at(xf, 12));
}

void bind_xf(py::module_ &m) {
  m.def(
      "_r", [](py::handle v, int n) { return _r(real(v), n); }, py::arg("v"), py::arg("n"),
      "v as a float rounded to n decimals; never negative zero.");
  m.def("_xf_of", &_xf_of, py::arg("actor"), "The transform record of an actor.");
  m.def("_xf_of_transform", &_xf_of_transform, py::arg("t"),
        "The transform record of a Transform.");
  m.def("_transform_from_xf", &_transform_from_xf, py::arg("xf"),
        "The Transform of a transform record; the Y axis isn't read.");
}

}  // namespace kestrix
