// How an actor's mesh simulates: values of its component, and the physical materials that carry
// friction and bounce.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The shared physical material of that friction and bounce, made and saved if it isn't there yet;
/// None for the engine's own values (0.7 and 0.3, each within 0.005), which need none.
py::object _phys_mat(double friction, double bounce);

/// A static mesh component's physics record: "sim", "mass" (kilograms, 0 without an override),
/// "friction", "bounce", "ldamp", "adamp". Empty if all of it is the default, or can't be read.
py::dict _phys_of(py::handle c);

/// Gives an actor's static mesh component the values of a physics record; missing and null ones are
/// the defaults. An actor without such a component is left as it is. The caller holds the
/// transaction. Raises what the editor raises; TypeError for what is no number.
void _apply_phys(py::handle a, py::handle p);

void bind_physics(py::module_ &m);

}  // namespace kestrix
