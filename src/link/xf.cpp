#include "link/xf.h"

#include <cmath>

namespace kestrix {

namespace {

constexpr double POWERS[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// Added and taken away again, it leaves the nearest whole number, ties to even, of any smaller than
// 2^51: there is no room for a fraction beside it.
constexpr double WHOLE = 6755399441055744.0;    // 1.5 * 2^52
constexpr double LARGEST = 2251799813685248.0;  // 2^51

double round_slowly(double v, int n) {
  return real(call(to_py(v), "__round__"_n, n));
}

double positive_zero(double v) {
  return v == 0.0 ? 0.0 : v;
}

/// _r for 0 to 22 decimals.
inline double rounded(double v, int n) {
  const double scale = POWERS[n];
  const double scaled = v * scale;
  if (!(std::abs(scaled) < LARGEST)) return std::isfinite(v) ? round_slowly(v, n) : v;
  double whole = (scaled + WHOLE) - WHOLE;
  if (const double rest = scaled - whole; std::abs(rest) == 0.5) {
    // The product itself was rounded onto the half: what it lost decides, and only an exact half
    // goes to the even neighbour, as `whole` has.
    const double lost = std::fma(v, scale, -scaled);
    if (lost != 0.0) whole = lost > 0.0 ? std::floor(scaled) + 1.0 : std::ceil(scaled) - 1.0;
  }
  return positive_zero(whole / scale);  // both exact, so this is the double nearest to the decimal
}

/// Writes the vector's three coordinates, rounded; gives where they end.
double *put_rounded(double *at, py::handle vector, int n) {
  *at++ = rounded(real(vector, "x"_n), n);
  *at++ = rounded(real(vector, "y"_n), n);
  *at++ = rounded(real(vector, "z"_n), n);
  return at;
}

XfNumbers numbers_of(py::handle transform) {
  XfNumbers numbers;
  double *at = put_rounded(numbers.data(), get(transform, "translation"_n), 3);
  py::object rotation = get(transform, "rotation"_n);
  at = put_rounded(at, call(rotation, "get_axis_x"_n), 6);
  at = put_rounded(at, call(rotation, "get_axis_y"_n), 6);
  at = put_rounded(at, call(rotation, "get_axis_z"_n), 6);
  put_rounded(at, get(transform, "scale3d"_n), 5);
  return numbers;
}

}  // namespace

double _r(double v, int n) {
  return n < 0 || n > 22 ? positive_zero(round_slowly(v, n)) : rounded(v, n);
}

XfNumbers xf_numbers(py::handle actor) {
  return numbers_of(call(actor, "get_actor_transform"_n));
}

py::list _xf_of(py::handle actor) {
  return _xf_of_transform(call(actor, "get_actor_transform"_n));
}

py::list _xf_of_transform(py::handle t) {
  py::list out;
  for (const double v : numbers_of(t)) append(out, to_py(v));
  return out;
}

py::object vector_at(py::handle numbers, Py_ssize_t first) {
  const auto coordinate = [&](Py_ssize_t i) { return number(nth(numbers, first + i), "vector"); };
  return invoke(unreal("Vector"_n), coordinate(0), coordinate(1), coordinate(2));
}

py::object _transform_from_xf(py::handle xf) {
  if (check(static_cast<int>(PySequence_Size(xf.ptr()))) < 15) {
    PyErr_SetString(PyExc_IndexError, "a transform is a list of 15 numbers");
    throw py::error_already_set();
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
