// How a mesh collides: a choice that is kept in the asset's metadata and made into its simple
// shapes.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The metadata tag that holds the choice as JSON text.
constexpr const char *COLL_TAG = "VerrinCollision";

/// The mesh's collision record, {"shape", "sac"}, from its metadata; empty if it has none or it
/// can't be read.
py::dict _coll_of(py::handle sm);

/// The record of a mesh that has none.
py::dict collision_default();

/// The number of boxes, spheres, capsules and convex pieces that the mesh collides with.
long long _simple_shapes(py::handle sm);

/// Gives the mesh the shapes of a collision record, in place of those that it has, and stores the
/// record: "shape" is one of COLL_SHAPES in any case of letters, any other AUTO; "sac" lets the
/// simple shapes stand for the complex collision too. Gives the record as stored. Raises what the
/// editor raises.
py::dict _apply_collision(py::handle sm, py::handle c);

void bind_collision(py::module_ &m);

}  // namespace kestrix
