#include "assets/overwriting.h"

#include "assets/catalogue.h"
#include "assets/importing.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

py::object asset_library() {
  return unreal("EditorAssetLibrary"_n);
}

bool asset_exists(py::handle path) {
  return truth(path) &&
         truth(call(asset_library(), "does_asset_exist"_n, std::string(package_of(text(path)))));
}

/// Keeps a copy of the asset as it is, once, for the user to go back to.
void back_up(py::handle asset, const std::string &name) {
  const py::dict backups = S_map(key::backed_up);
  if (py::object kept = given(backups, asset); kept && asset_exists(kept)) return;
  const std::string time = text(call(module("time"_n), "strftime"_n, "%Y%m%d_%H%M%S"));
  const std::string copy = std::string(LINK_ROOT) + "/_Backups/" + name + "_" + time;
  const py::object made =
      call(asset_library(), "duplicate_asset"_n, std::string(package_of(text(asset))), copy);
  if (!exists(made)) fail("no backup of " + text(asset) + " could be made");
  call(asset_library(), "save_asset"_n, copy, false);
  put(backups, asset, copy);
  _log("backed up " + text(asset) + " -> " + copy);
}

/// The file as a mesh beside the asset; the one of an earlier overwrite is imported over.
py::object temporary_mesh(py::handle fn, py::handle asset, const std::string &name) {
  const py::dict temporaries = S_map(key::edit_tmp);
  const py::object before = given_or(temporaries, asset, "");
  const bool again = asset_exists(before);
  const std::string path = text(before);
  const py::object mesh = _import_file(
      fn, to_py(again ? std::string(short_name_of(path)) : "EditTemp_" + name),
      again ? before : py::object(py::none()), py::none(), py::none(), py::bool_(false));
  put(temporaries, asset, str(path_of(mesh)));
  return mesh;
}

}  // namespace

py::object _overwrite_asset_now(py::handle fn, py::handle asset) {
  const py::object mesh = invoke(unreal("load_asset"_n), asset);
  if (!is_a(mesh, "StaticMesh"_n)) fail("not a static mesh: " + text(asset));
  const std::string name = text(call(mesh, "get_name"_n));
  back_up(asset, name);
  const py::object temporary = temporary_mesh(fn, asset, name);
  _copy_materials(temporary, asset);
  call(mesh, "modify"_n);
  call(subsystem("StaticMeshEditorSubsystem"_n), "set_lod_from_static_mesh"_n, mesh, 0, temporary,
       0, true);
  const py::object path = str(path_of(mesh));
  note_change(path);
  _log("overwrote " + text(path) +
       " from Blender (unsaved - save it to keep, or reload it to drop the change)");
  return mesh;
}

py::object _overwrite_asset(py::handle fn, py::handle asset) {
  add(S_set(key::ours), asset);
  return _overwrite_asset_now(fn, asset);
}

void bind_overwriting(py::module_ &m) {
  def(m, "_overwrite_asset", &_overwrite_asset, py::arg("fn"), py::arg("asset"));
  def(m, "_overwrite_asset_now", &_overwrite_asset_now, py::arg("fn"), py::arg("asset"));
}

}  // namespace kestrix
