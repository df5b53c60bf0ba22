#include "link/xf.h"

namespace kestrix {

namespace {

/// Writes the attributes' numbers; gives where they end.
template <class... Names>
double *put_each(double *at, const Names &...numbers) {
  ((*at++ = real(numbers)), ...);
  return at;
}

double *put_vector(double *at, py::handle vector) {
  return put_each(at, get<"x">(vector), get<"y">(vector), get<"z">(vector));
}

/// The numbers of a struct, by one call where it has to_tuple; gives where they end.
template <size_t N>
double *put_struct(double *at, py::handle value) {
  static_assert(N == 3 || N == 4);
  if (_PyType_Lookup(Py_TYPE(value.ptr()), "to_tuple"_n.ptr)) {
    const py::object tuple = call<"to_tuple">(value);
    if (!PyTuple_Check(tuple.ptr()) || PyTuple_GET_SIZE(tuple.ptr()) != N) {
      fail_type("a struct's numbers were expected");
    }
    for (size_t i = 0; i < N; ++i) *at++ = real(PyTuple_GET_ITEM(tuple.ptr(), i));
    return at;
  }
  at = put_vector(at, value);
  return N == 4 ? put_each(at, get<"w">(value)) : at;
}

py::object vector_of(py::handle vector_class, py::handle numbers, Py_ssize_t first) {
  const auto coordinate = [&](Py_ssize_t i) { return number(nth(numbers, first + i), "vector"); };
  return invoke(vector_class, coordinate(0), coordinate(1), coordinate(2));
}

}  // namespace

Placement placement_of(py::handle actor) {
  const py::object transform = call<"get_actor_transform">(actor);
  Placement place;
  place.rotation = get<"rotation">(transform);
  double *at = put_struct<3>(place.numbers.data(), get<"translation">(transform));
  at = put_struct<4>(at, place.rotation);
  put_struct<3>(at, get<"scale3d">(transform));
  return place;
}

XfNumbers xf_numbers(std::span<const double> placement, py::handle rotation) {
  XfNumbers numbers;
  double *at = std::copy_n(placement.begin(), 3, numbers.data());
  at = put_struct<3>(at, call<"get_axis_x">(rotation));
  at = put_struct<3>(at, call<"get_axis_y">(rotation));
  at = put_struct<3>(at, call<"get_axis_z">(rotation));
  std::copy_n(placement.begin() + 7, 3, at);
  round_all(numbers, XF_DECIMALS);
  return numbers;
}

py::list _xf_of(py::handle actor) {
  return _xf_of_transform(call<"get_actor_transform">(actor));
}

py::list _xf_of_transform(py::handle t) {
  std::array<double, 10> numbers{};
  put_struct<3>(numbers.data(), get<"translation">(t));
  put_struct<3>(numbers.data() + 7, get<"scale3d">(t));
  return list_of_numbers(xf_numbers(numbers, get<"rotation">(t)));
}

Point point_of(py::handle vector) {
  Point point;
  put_vector(point.data(), vector);
  return point;
}

py::object vector_at(py::handle numbers, Py_ssize_t first) {
  return vector_of(unreal("Vector"_n), numbers, first);
}

py::object _transform_from_xf(py::handle xf) {
  if (check(static_cast<int>(PySequence_Size(xf.ptr()))) < 15) {
    fail("a transform is a list of 15 numbers", PyExc_IndexError);
  }
  const py::object vector = unreal("Vector"_n);
  py::object location = vector_of(vector, xf, 0);
  py::object rotation = call<"make_rot_from_xz">(unreal("MathLibrary"_n), vector_of(vector, xf, 3),
                                                 vector_of(vector, xf, 9));
  return invoke(unreal("Transform"_n), location, rotation, vector_of(vector, xf, 12));
}

void bind_xf(py::module_ &m) {
  def(
      m, "_r", [](py::handle v, int n) { return _r(real(v), n); }, py::arg("v"), py::arg("n"));
  def(m, "_xf_of", &_xf_of, py::arg("actor"));
  def(m, "_xf_of_transform", &_xf_of_transform, py::arg("t"));
  def(m, "_transform_from_xf", &_transform_from_xf, py::arg("xf"));
}

}  // namespace kestrix
