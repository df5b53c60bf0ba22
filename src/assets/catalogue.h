// The asset catalogue: one small record per static mesh, with a content key that changes with it.
//
// State: "assets" (path to entry, the cache) and "asset_rev" (path to how often the mesh has
// changed without its file changing). Both outlive connections.
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// The first 12 hexadecimal digits of the content's MD5: names contents, keeps no secret.
std::string short_digest(const std::string &content);

/// The .uasset file of an asset, a full path; empty for assets outside "/Game/".
std::string _package_file(std::string_view asset_path);

/// "<modification time in whole seconds>_<size in bytes>" of the asset's file, "engine" without
/// one.
std::string _file_stamp(std::string_view path);

/// The catalogue's entry of an asset: "path", "bmin", "bmax" (editor units, 3 decimals), "key" (12
/// hexadecimal digits, "missing" for what can't be loaded or measured), "stamp", and "coll" for the
/// link's own meshes that have a collision record. What can't be measured is warned about and
/// measured anew the next time.
py::dict _asset_entry(py::handle path);

/// Counts a change of the asset's content, whether its file has changed or not: its next entry has
/// a new key.
void note_change(py::handle path);

/// Whether the catalogue holds an entry of the asset.
bool is_catalogued(py::handle path);

void bind_catalogue(py::module_ &m);

}  // namespace kestrix
