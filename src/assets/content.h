// The project's assets: found, loaded, imported and saved. A package path is an object path up to
// its first ".".
#pragma once

#include "link/host.h"

namespace kestrix {

inline py::object asset_library() {
  return unreal("EditorAssetLibrary"_n);
}

/// The asset at that path, None if there is none.
inline py::object load_asset(py::handle path) {
  return invoke(unreal("load_asset"_n), path);
}
inline py::object load_asset(const std::string &path) {
  return load_asset(to_py(path));
}

inline bool asset_exists(const std::string &path) {
  return truth(call(asset_library(), "does_asset_exist"_n, path));
}

/// Saves a loaded asset, changed or not.
inline void save_asset(py::handle asset) {
  call(asset_library(), "save_loaded_asset"_n, asset, false);
}

/// The package path of an asset.
inline std::string package_path(py::handle asset) {
  const std::string path = text(path_of(asset));
  return path.substr(0, path.find('.'));
}

/// The short name of an object.
inline std::string name_of(py::handle object) {
  return text(call(object, "get_name"_n));
}

/// Has the editor import a file into a folder of the project, over what is there; gives the object
/// paths of the assets made. `name`: what a single asset is to be called, "" for the importer's
/// choice.
inline py::list import_asset(py::handle file, const std::string &folder, const std::string &name,
                             bool save) {
  const py::object task = invoke(unreal("AssetImportTask"_n));
  set_prop(task, "filename"_n, file);
  set_prop(task, "destination_path"_n, folder);
  if (!name.empty()) set_prop(task, "destination_name"_n, name);
  set_prop(task, "replace_existing"_n, true);
  set_prop(task, "automated"_n, true);
  set_prop(task, "save"_n, save);
  py::list tasks;
  append(tasks, task);
  call(call(unreal("AssetToolsHelpers"_n), "get_asset_tools"_n), "import_asset_tasks"_n, tasks);
  py::list paths;
  each(list_of(prop(task, "imported_object_paths"_n)),
       [&](const py::object &path) { append(paths, str(path)); });
  return paths;
}

}  // namespace kestrix
