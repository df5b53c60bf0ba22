// What a landscape is made of.
#pragma once

#include "link/host.h"

namespace kestrix {

/// The actors that make up the landscape, itself and its streaming proxies, in the editor's order.
py::list _land_parts(py::handle land);

void bind_layout(py::module_ &m);

}  // namespace kestrix
