#include "assets/importing.h"

#include "assets/catalogue.h"
#include "assets/collision.h"
#include "assets/content.h"
#include "link/cache.h"
#include "link/files.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

// Longest name of a mesh's folder.
constexpr int FOLDER_NAME = 64;

std::string under_root(const std::string &name) {
  return std::string(LINK_ROOT) + "/" + name;
}

py::object slot_material(py::handle slot) {
  return prop(slot, "material_interface"_n);
}

/// The key of an object's short name, that of "" for None.
std::string key_of(py::handle object) {
  return _mat_key(exists(object) ? call(object, "get_name"_n) : to_py(""_n));
}

std::string slot_key(py::handle slot) {
  return _mat_key(prop(slot, "material_slot_name"_n));
}

py::list slots_of(py::handle sm) {
  return list_of(prop(sm, "static_materials"_n));
}

/// Key -> material, or None, of a mesh's slots; the first slot with a key has it.
py::dict materials_by_key(const py::list &slots) {
  py::dict materials;
  const auto enter = [&](const std::string &key, const py::object &material) {
    if (!find(materials, to_py(key))) put(materials, to_py(key), material);
  };
  for (py::handle slot : slots) {
    const py::object material = slot_material(slot);
    if (exists(material)) enter(key_of(material), material);
    enter(slot_key(slot), material);
  }
  return materials;
}

py::list meshes_among(const py::list &paths) {
  py::list meshes;
  for (py::handle path : paths) {
    const py::object asset = load_asset(path);
    if (is_a(asset, "StaticMesh"_n)) append(meshes, asset);
  }
  return meshes;
}

/// The first mesh of that short name, else the first.
py::object best_named(const py::list &meshes, const std::string &name) {
  for (py::handle mesh : meshes) {
    if (text(call(mesh, "get_name"_n)) == name) return to_py(mesh);
  }
  return meshes[0];
}

/// The last part of an asset's path, without what is behind the dot.
std::string wanted_name(py::handle name, py::handle asset) {
  if (!truth(asset)) return _safe(text(name), FOLDER_NAME);
  const std::string path = text(asset);
  const std::string last = path.substr(path.rfind('/') + 1);
  return last.substr(0, last.find('.'));
}

/// Collision as the message has it, else as the mesh had it, else the default.
void fit_collision(py::handle sm, py::handle coll) {
  py::dict record = PyDict_Check(coll.ptr()) ? as_map(coll, "a collision record") : _coll_of(sm);
  if (!PyDict_Check(coll.ptr()) && !size(record)) record = collision_default();
  const auto failure = failure_of([&] { _apply_collision(sm, record); });
  if (failure) {
    _warn("collision of " + text(call(sm, "get_name"_n)) + ": " + failure->text());
  }
}

}  // namespace

std::string _unique_folder(const std::string &base) {
  std::string name = base;
  for (int n = 2;; ++n) {
    const std::string folder = under_root(name);
    if (!truth(call(asset_library(), "does_directory_exist"_n, folder))) return name;
    if (list_of(call(asset_library(), "list_assets"_n, folder, true, false)).empty()) return name;
    name = base + "_" + std::to_string(n);
  }
}

std::string _mat_key(py::handle name) {
  if (!exists(name)) return {};
  std::string key = text(call(str(name), "lower"_n));
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  const size_t n = key.size();
  if (n >= 4 && (key[n - 4] == '.' || key[n - 4] == '_') &&
      std::all_of(key.end() - 3, key.end(), is_digit)) {
    key.resize(n - 4);
  }
  return key;
}

void _copy_materials(py::handle sm, py::handle src_path) {
  const py::object source = load_asset(src_path);
  if (!is_a(source, "StaticMesh"_n)) return;
  const py::list source_slots = slots_of(source);
  const py::dict materials = materials_by_key(source_slots);
  const py::list slots = slots_of(sm);
  for (size_t i = 0; i < slots.size(); ++i) {
    const py::object slot = slots[i];
    const py::object own_material = slot_material(slot);
    py::object found =
        given(materials, to_py(exists(own_material) ? key_of(own_material) : slot_key(slot)));
    if (!found) found = given(materials, to_py(slot_key(slot)));
    if (!found && slots.size() == source_slots.size()) {
      found = slot_material(py::object(source_slots[i]));
    }
    if (exists(found)) call(sm, "set_material"_n, i, found);
  }
}

void _put_slot_mats(py::handle sm, py::handle slot_mats) {
  if (!exists(slot_mats)) return;
  py::dict wanted;
  each_entry(as_map(slot_mats, "the slots' materials"),
             [&](const py::object &name, const py::object &path) {
               if (truth(path)) put(wanted, to_py(_mat_key(name)), path);
             });
  if (!size(wanted)) return;
  const py::list slots = slots_of(sm);
  for (size_t i = 0; i < slots.size(); ++i) {
    const py::object slot = slots[i];
    const py::object own_material = slot_material(slot);
    py::object path = find(wanted, to_py(key_of(own_material)));
    if (!path) path = find(wanted, to_py(slot_key(slot)));
    if (!path) continue;
    const py::object material = load_asset(path);
    if (is_a(material, "MaterialInterface"_n) && !equal(material, own_material)) {
      call(sm, "set_material"_n, i, material);
    }
  }
}

std::string import_folder(py::handle name, py::handle asset) {
  const std::string path = truth(asset) ? text(asset) : "";
  if (is_ours(path)) {
    const std::string below = path.substr(under_root("").size());
    const std::string first = below.substr(0, below.find('/'));
    if (const std::string folder = first.substr(0, first.find('.')); !folder.empty()) return folder;
  }
  return _unique_folder(_safe(text(name), FOLDER_NAME));
}

std::string stage_import(py::handle fn, const std::string &folder, const std::string &name) {
  // A number would be an open file of the process, whatever it is.
  if (!PyUnicode_Check(fn.ptr())) fail_type("a file's name is a text");
  const std::string full = join_path(cache_dir(), folder);
  make_folder(full);
  const std::string copy = join_path(full, name);
  call(module("shutil"_n), "copyfile"_n, fn, copy);
  return copy;
}

py::list import_copy(py::handle fn, const std::string &base, const std::string &ending,
                     const std::string &destination) {
  return import_asset(to_py(stage_import(fn, "import", base + ending)), destination, "", true);
}

void append_listed(py::list &paths, const std::string &folder) {
  each(list_of(call(asset_library(), "list_assets"_n, folder, true, false)),
       [&](const py::object &path) {
         if (!paths.contains(str(path))) append(paths, str(path));
       });
}

py::object _import_file(py::handle fn, py::handle name, py::handle asset, py::handle mat_src,
                        py::handle slot_mats, py::handle coll) {
  const std::string base = import_folder(name, asset);
  const std::string folder = under_root(base);
  const std::string ending = extension_of(text(fn));
  const py::list imported =
      import_copy(fn, base, ending, ending == ".fbx" ? folder : std::string(LINK_ROOT));
  py::list meshes = meshes_among(imported);
  if (meshes.empty()) {
    py::list listed;
    append_listed(listed, folder);
    meshes = meshes_among(listed);
  }
  if (meshes.empty()) fail("import produced no static mesh (" + text(imported) + ")");
  const py::object sm = best_named(meshes, wanted_name(name, asset));
  if (truth(mat_src)) _copy_materials(sm, mat_src);
  _put_slot_mats(sm, slot_mats);
  const py::object path = str(path_of(sm));
  if (coll.ptr() != Py_False && is_ours(text(path))) fit_collision(sm, coll);
  note_change(path);
  attempt([&] { call(asset_library(), "save_loaded_asset"_n, sm, false); });
  _log("imported " + base_name(text(fn)) + " -> " + text(path));
  return sm;
}

void bind_importing(py::module_ &m) {
  def(m, "_unique_folder", &_unique_folder, py::arg("base"));
  def(m, "_mat_key", &_mat_key, py::arg("name").none(true));
  def(m, "_copy_materials", &_copy_materials, py::arg("sm"), py::arg("src_path").none(true));
  def(m, "_put_slot_mats", &_put_slot_mats, py::arg("sm"), py::arg("slot_mats").none(true));
  def(m, "_import_file", &_import_file, py::arg("fn"), py::arg("name"),
      py::arg("asset") = py::none(), py::arg("mat_src") = py::none(),
      py::arg("slot_mats") = py::none(), py::arg("coll") = py::none());
}

}  // namespace kestrix
