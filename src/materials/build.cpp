#include "materials/build.h"

#include "assets/content.h"
#include "assets/importing.h"
#include "link/cache.h"
#include "link/files.h"
#include "materials/clean_up.h"
#include "materials/displacement.h"
#include "materials/file_textures.h"
#include "materials/gltf_values.h"
#include "materials/importer_repair.h"
#include "materials/instances.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

constexpr int MATERIAL_NAME = 64;

/// Where a route keeps its textures, and what only the other one writes; below a material's folder.
struct Route {
  const char *own;
  std::vector<const char *> other;
};

const Route &route_of(bool by_importer) {
  static const Route importer{"Textures", {"FBX"}};
  static const Route files{"FBX", {"Materials", "Textures", "StaticMeshes"}};
  return by_importer ? importer : files;
}

// What the link itself writes below a material's folder: no work of the importer's.
constexpr std::array NOT_IMPORTED{"/FBX/", "/Graph/", "/Displacement/"};

std::string folder_of(const std::string &base) {
  return material_root() + "/" + base;
}

std::string package_of_text(py::handle path) {
  return std::string(package_of(text(path)));
}

/// What lies in the importer's folders of a material, sorted: also what an import of now doesn't
/// report, since it was there before.
py::list imported_before(const std::string &folder) {
  py::list found;
  if (!truth(call(asset_library(), "does_directory_exist"_n, folder))) return found;
  each(list_of(call(asset_library(), "list_assets"_n, folder, true, false)),
       [&](const py::object &entry) {
         const std::string path = package_of_text(entry);
         const std::string below = path.substr(std::min(path.size(), folder.size()));
         const bool deep = std::count(below.begin(), below.end(), '/') > 1;
         const bool ours = std::any_of(NOT_IMPORTED.begin(), NOT_IMPORTED.end(),
                                       [&](const char *sub) { return below.starts_with(sub); });
         if (deep && !ours) append(found, to_py(path));
       });
  call(found, "sort"_n);
  return found;
}

void append_new(py::list &list, py::handle value) {
  if (!list.contains(value)) append(list, value);
}

py::list without_repeats(std::initializer_list<py::list> lists) {
  py::list all;
  for (const py::list &list : lists) {
    for (py::handle entry : list) append_new(all, entry);
  }
  return all;
}

/// The first material of that name, else of that name as assets have it, else the first.
py::object best_named(const py::list &materials, py::handle name) {
  for (const std::string &key :
       {_mat_key(name), _mat_key(to_py(_safe(text(name), MATERIAL_NAME)))}) {
    for (py::handle material : materials) {
      if (_mat_key(call(material, "get_name"_n)) == key) return to_py(material);
    }
  }
  return materials[0];
}

py::object read_json(const std::string &file) {
  const py::object opened = get(module("io"_n), "open"_n)(file, py::arg("encoding") = "utf-8");
  py::object document;
  in_context(opened, [&] { document = call(module("json"_n), "load"_n, opened); });
  return document;
}

/// So that a build never waits for the compression of its textures.
void defer_compression(py::handle texture) {
  attempt([&] {
    if (!truth(prop(texture, "defer_compression"_n))) {
      set_prop(texture, "defer_compression"_n, true);
    }
  });
}

/// What the build left behind: in the route's own folder what the instance doesn't use, and all
/// that the other route has written.
py::list stale_after(py::handle mi, const py::set &used, const Route &route,
                     const std::string &folder) {
  py::list stale;
  const std::string own_path = package_path(mi);
  each(_assets_under(folder + "/" + route.own), [&](const py::object &path) {
    if (!used.contains(path) && text(path) != own_path) append(stale, path);
  });
  for (const char *sub : route.other) {
    each(_assets_under(folder + "/" + sub), [&](const py::object &path) { append(stale, path); });
  }
  return stale;
}

struct Built {
  py::object mi;
  py::list textures;
};

Built build(const py::dict &m, const std::string &base) {
  const bool by_importer = extension_of(text(item(m, "file"_n))) != ".gltf";
  const py::tuple made = by_importer ? _glb_material(m, base) : _gltf_files_material(m, base);
  const py::object mi = made[0];
  const bool clean = flag(m, "cleanup"_n);
  const py::list textures =
      without_repeats({as_list(py::object(made[1])),
                       _apply_displacement(mi, given_or(m, "disp"_n, nullptr), base, clean)});
  for (py::handle texture : textures) defer_compression(texture);
  if (!is_a(mi, "MaterialInstanceConstant"_n)) return {mi, textures};
  const py::set used = _used_textures(mi);
  py::list in_use;
  for (py::handle texture : textures) {
    if (used.contains(to_py(package_path(texture)))) append(in_use, texture);
  }
  if (clean) _trash_add(stale_after(mi, used, route_of(by_importer), folder_of(base)));
  return {mi, in_use.empty() ? textures : in_use};
}

py::list named_paths(const py::list &textures) {
  py::list pairs;
  for (py::handle texture : textures) {
    py::list pair;
    append(pair, str(call(texture, "get_name"_n)));
    append(pair, str(path_of(texture)));
    append(pairs, pair);
  }
  return pairs;
}

std::string base_of(const py::dict &m) {
  const py::object name = given_or(m, "name"_n, "");
  return _safe(truth(name) ? text(name) : "Material", MATERIAL_NAME);
}

}  // namespace

const std::string &material_root() {
  static const std::string root = std::string(LINK_ROOT) + "/Materials";
  return root;
}

bool _substrate() {
  return attempt(
      [] {
        return truth(
            call(unreal("SystemLibrary"_n), "get_console_variable_int_value"_n, "r.Substrate"));
      },
      true);
}

py::tuple _glb_material(const py::dict &m, const std::string &base) {
  const py::object file = item(m, "file"_n);
  const std::string staged = stage_import(file, "import/mat", base + extension_of(text(file)));
  py::list paths;
  each(import_asset(to_py(staged), material_root(), "", true),
       [&](const py::object &path) { append_new(paths, to_py(package_of_text(path))); });
  paths = without_repeats({paths, imported_before(folder_of(base))});
  py::list materials;
  py::list textures;
  for (py::handle path : paths) {
    const py::object asset = load_asset(path);
    if (is_a(asset, "MaterialInterface"_n)) {
      append(materials, asset);
    } else if (is_a(asset, "Texture2D"_n)) {
      append(textures, asset);
    }
  }
  if (materials.empty()) fail("no material in " + base_name(staged));
  const py::object mi = best_named(materials, given_or(m, "key"_n, ""));
  if (is_a(mi, "MaterialInstanceConstant"_n)) _apply_gltf_params(mi, staged, textures);
  return py::make_tuple(mi, textures);
}

py::tuple _gltf_files_material(const py::dict &m, const std::string &base) {
  const std::string file = text(item(m, "file"_n));
  const std::string folder = folder_of(base) + "/FBX";
  const py::object js = read_json(file);
  const py::list materials = list_at(js, "materials"_n);
  if (materials.empty()) fail("no material in " + base_name(file));
  const py::object gm = materials[0];
  const py::dict values = _gltf_values(gm, js, _substrate());
  const py::object used = call(item(values, "textures"_n), "values"_n);
  const std::string src_dir = text(call(get(module("os"_n), "path"_n), "dirname"_n, file));
  py::dict textures;
  py::list distinct;
  const py::dict roles = _gltf_texture_roles(gm, py::set(used));
  each_entry(texture_copies(js, roles, src_dir, base),
             [&](const py::object &index, const py::object &copy) {
               const py::object role = item(roles, index);
               const py::object texture =
                   _gltf_file_texture(js, index, src_dir, folder, nth(role, 0), truth(nth(role, 1)),
                                      base, static_cast<int>(integer(copy)));
               if (texture.is_none()) return;
               put(textures, index, texture);
               append_new(distinct, texture);
             });
  const py::object mi = _instance_at(folder, base);
  _apply_gltf_values(mi, values, textures);
  return py::make_tuple(mi, distinct);
}

void _h_mat(const py::dict &m) {
  const py::object key = given_or(m, "key"_n, nullptr);
  Record done = message("mat_done").set("req"_n, given_or(m, "req"_n, nullptr)).set("key"_n, key);
  std::string path;
  size_t count = 0;
  const auto failure = failure_of([&] {
    if (given(m, "graph"_n)) fail("materials by node graph can't be built yet");
    const Built built = build(m, base_of(m));
    path = text(path_of(built.mi));
    count = built.textures.size();
    done.set("path"_n, path).set("textures"_n, named_paths(built.textures));
  });
  if (failure) {
    _send(message("mat_done")
              .set("req"_n, given_or(m, "req"_n, nullptr))
              .set("key"_n, key)
              .set("error"_n, failure->text()));
    failure->raise();
  }
  _send(done);
  _log("material " + text(key) + " -> " + path + " (" + std::to_string(count) + " textures)");
}

void bind_material_build(py::module_ &m) {
  m.attr("MAT_ROOT") = material_root();
  def(m, "_substrate", &_substrate);
  def(m, "_glb_material", &_glb_material, py::arg("m"), py::arg("base"));
  def(m, "_gltf_files_material", &_gltf_files_material, py::arg("m"), py::arg("base"));
  bind_handler(m, "mat", &_h_mat, {.barrier = true, .busy = "building material"});
}

}  // namespace kestrix
