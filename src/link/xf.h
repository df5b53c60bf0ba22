// The transform record `xf`: how a placement travels and how it is compared.
//
// A list of 15 numbers: location x, y, z (editor units, 3 decimals), the rotation's X, Y and Z axes
// (unit vectors, 6 decimals each), scale x, y, z (5 decimals). The rounding is also the threshold
// below which a move isn't a change.
#pragma once

#include <array>
#include <cstdint>

#include "link/link_state.h"
#include "link/rounding.h"

namespace kestrix {

/// The numbers of an xf, as the editor gives them, and how many decimals each has in the record.
using XfNumbers = std::array<double, 15>;
constexpr std::array<std::uint8_t, 15> XF_DECIMALS{3, 3, 3, 6, 6, 6, 6, 6, 6, 6, 6, 6, 5, 5, 5};

/// Where an actor stands, in as few calls as tell it: what a scan compares. Its axes take a dozen
/// more and are asked for only when it has moved.
constexpr size_t PLACEMENT_SIZE = 10;
struct Placement {
  std::array<double, PLACEMENT_SIZE> numbers;  // location, quaternion x y z w, scale
  py::object rotation;                         // the quaternion that has the axes
};
Placement placement_of(py::handle actor);

/// The numbers of its xf, rounded.
XfNumbers xf_numbers(std::span<const double> placement, py::handle rotation);

/// The xf of actor.get_actor_transform().
py::list _xf_of(py::handle actor);

/// The xf of an editor Transform.
py::list _xf_of_transform(py::handle t);

/// The editor Transform of an xf. The Y axis isn't read: X and Z give the rotation. Raises for a
/// record that is too short (IndexError), holds no numbers (TypeError) or holds NaN or infinity.
py::object _transform_from_xf(py::handle xf);

/// Three coordinates, editor units.
using Point = std::array<double, 3>;

/// An editor Vector's coordinates.
Point point_of(py::handle vector);

/// The first three numbers of a list as an editor Vector.
py::object vector_at(py::handle numbers, Py_ssize_t first = 0);

void bind_xf(py::module_ &m);

}  // namespace kestrix
