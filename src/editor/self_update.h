// The installed release of the plugin.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// "VersionName" of the .uplugin file in _PLUGIN_DIR; "" if unknown.
std::string _plugin_release();

/// Why this install can't update itself; "" if it can.
std::string _dev_install();

void bind_self_update(py::module_ &m);

}  // namespace kestrix
