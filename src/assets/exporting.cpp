#include "assets/exporting.h"

#include <cstdio>

#include "assets/catalogue.h"
#include "link/cache.h"
#include "link/dispatch.h"
#include "link/files.h"
#include "mirror/actors.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Pixels to a side that a baked material gets.
constexpr int BAKE_SIZE = 512;

bool has_exporter() {
  return exists(get_if(module("unreal"_n), "GLTFExporter"_n));
}

void set_bake_size(py::handle options) {
  const py::object size = prop(options, "default_material_bake_size"_n);
  set_prop(size, "x"_n, BAKE_SIZE);
  set_prop(size, "y"_n, BAKE_SIZE);
  set_prop(size, "auto_detect"_n, false);
  set_prop(options, "default_material_bake_size"_n, size);
}

void export_gltf(py::handle object, const std::string &file, bool textures) {
  call(unreal("GLTFExporter"_n), "export_to_gltf"_n, object, file, _gltf_options(textures),
       py::set());
}

/// " (1.23 s)", the time since t0.
std::string took(double t0) {
  char text[40];
  std::snprintf(text, sizeof text, " (%.2f s)", perf_counter() - t0);
  return text;
}

/// The base of a cache file's name: the asset's short name made safe, and what tells contents
/// apart.
std::string cache_name(const std::string &path, const std::string &key) {
  return _safe(short_name_of(path)) + "_" + key;
}

/// The first of base + extension that was exported before, or "".
std::string exported_before(const std::string &base, bool fbx_first, bool glb_only) {
  const std::string glb = base + ".glb";
  if (!fbx_first && is_filled(glb)) return glb;
  const std::string fbx = base + ".fbx";
  return !glb_only && is_filled(fbx) ? fbx : "";
}

py::object fbx_task(py::handle sm, const std::string &file) {
  const py::object task = invoke(unreal("AssetExportTask"_n));
  set_prop(task, "object"_n, sm);
  set_prop(task, "filename"_n, file);
  set_prop(task, "automated"_n, true);
  set_prop(task, "prompt"_n, false);
  set_prop(task, "replace_identical"_n, true);
  attempt([&] {
    const py::object options = invoke(unreal("FbxExportOption"_n));
    set_prop(options, "collision"_n, false);
    set_prop(options, "level_of_detail"_n, false);
    set_prop(task, "options"_n, options);
  });
  return task;
}

bool file_exists(const std::string &file) {
  return truth(call(get(module("os"_n), "path"_n), "exists"_n, file));
}

}  // namespace

py::object _gltf_options(bool textures) {
  const py::object options = invoke(unreal("GLTFExportOptions"_n));
  const auto set_word = [&](Name property, Name type, Name word) {
    attempt([&] { set_prop(options, property, get(unreal(type), word)); });
  };
  const auto set_truth = [&](Name property, bool value) {
    attempt([&] { set_prop(options, property, value); });
  };
  set_word("bake_material_inputs"_n, "GLTFMaterialBakeMode"_n,
           textures ? "SIMPLE"_n : "DISABLED"_n);
  set_word("texture_image_format"_n, "GLTFTextureImageFormat"_n, textures ? "JPEG"_n : "NONE"_n);
  set_truth("export_source_model"_n, true);
  set_truth("export_vertex_colors"_n, true);
  set_truth("export_lights"_n, false);
  set_truth("export_cameras"_n, false);
  if (textures) attempt([&] { set_bake_size(options); });
  return options;
}

std::string _export_asset(const std::string &path, const std::string &phase, bool glb_only) {
  return export_asset(path, phase, glb_only).file;
}

Exported export_asset(const std::string &path, const std::string &phase, bool glb_only) {
  const py::object name = to_py(path);
  const py::object key = item(_asset_entry(name), "key"_n);
  const py::object sm = invoke(unreal("load_asset"_n), name);
  if (!exists(sm)) fail("asset not found: " + path);
  const bool fbx_first = equal(S(key::ue_format), to_py("FBX")) && !glb_only;
  const bool geo = phase == "geo";
  const std::string base =
      join_path(cache_root(), "ue", cache_name(path, text(key)) + (geo ? "_v2_geo" : "_v2"));
  const std::string before = exported_before(base, fbx_first, glb_only);
  if (!before.empty()) {
    const auto failure = failure_of([&] { call(module("os"_n), "utime"_n, before, nullptr); });
    if (failure && !failure->is(PyExc_OSError)) failure->raise();
    return {before, key, sm};
  }
  cache_dir();
  const double t0 = perf_counter();
  if (!geo) _busy(("preparing " + std::string(short_name_of(path)) + " for Blender").c_str());
  const Finally done([] { _busy(nullptr); });
  const std::string file = _export_new(sm, base, phase, fbx_first, glb_only, path, t0, "");
  return {file, item(_asset_entry(name), "key"_n), sm};
}

std::string _export_new(py::handle sm, const std::string &base, const std::string &phase,
                        bool fbx_first, bool glb_only, const std::string &path, double t0,
                        std::string err) {
  const bool geo = phase == "geo";
  if (!fbx_first && has_exporter()) {
    const std::string file = base + ".glb";
    const auto failure = failure_of([&] { export_gltf(sm, file, !geo); });
    if (failure) {
      err = "glTF: " + failure->text();
    } else if (is_filled(file)) {
      if (!geo) _log("exported " + path + took(t0));
      return file;
    } else {
      err = "glTF export failed";
    }
  }
  if (glb_only) fail("glTF export failed for " + path + " (" + err + ")");
  const std::string file = base + ".fbx";
  const py::object task = fbx_task(sm, file);
  if (truth(call(unreal("Exporter"_n), "run_asset_export_task"_n, task)) && file_exists(file)) {
    _log("exported " + path + " as FBX" + took(t0) + " [" + err + "]");
    return file;
  }
  fail("export failed for " + path + " (" + err + ")");
}

std::string _export_material(const std::string &path) {
  const py::object material = invoke(unreal("load_asset"_n), path);
  if (!is_a(material, "MaterialInterface"_n)) fail("material not found: " + path);
  if (!has_exporter()) {
    fail("the glTF Exporter plugin is off - materials of overrides can't go to Blender");
  }
  const bool textures = S_flag(key::ue_textures, true);
  const std::string key = short_digest(path + "|" + _file_stamp(path));
  const std::string name = "mat_" + cache_name(path, key) + (textures ? ".glb" : "_flat.glb");
  const std::string file = join_path(cache_dir(), "ue", name);
  if (is_filled(file)) return file;
  const double t0 = perf_counter();
  export_gltf(material, file, textures);
  if (!is_filled(file)) fail("glTF export of material " + path + " failed");
  _log("exported material " + path + took(t0));
  return file;
}

void bind_exporting(py::module_ &m) {
  def(m, "_gltf_options", &_gltf_options, py::arg("textures"));
  def(m, "_export_asset", &_export_asset, py::arg("path"), py::arg("phase") = "full",
      py::arg("glb_only") = false);
  def(m, "_export_new", &_export_new, py::arg("sm"), py::arg("base"), py::arg("phase"),
      py::arg("fbx_first"), py::arg("glb_only"), py::arg("path"), py::arg("t0"),
      py::arg("err") = "");
  def(m, "_export_material", &_export_material, py::arg("path"));
}

}  // namespace kestrix
