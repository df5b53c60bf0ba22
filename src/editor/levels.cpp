#include "editor/levels.h"

#include "link/dispatch.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

/// Whether a world's package is a level of the project that a user would open: not the engine's or
/// a plugin's, and not where World Partition keeps a level's actors.
bool is_project_level(std::string_view package) {
  return package.starts_with("/Game/") && package.find("/__External") == std::string_view::npos;
}

void collect_levels(py::list &levels) {
  py::object registry = call(unreal("AssetRegistryHelpers"_n), "get_asset_registry"_n);
  py::object world = invoke(unreal("TopLevelAssetPath"_n), "/Script/Engine", "World");
  each(list_of(call(registry, "get_assets_by_class"_n, world, false)),
       [&](const py::object &asset) {
         py::object package = str(get(asset, "package_name"_n));
         if (!is_project_level(text(package))) return;
         append(levels,
                Record().set("path"_n, package).set("name"_n, str(get(asset, "asset_name"_n))));
       });
}

void sort_by_path(py::list &levels) {
  const py::cpp_function lower(
      [](py::handle level) { return call(item(level, "path"_n), "lower"_n); });
  get(levels, "sort"_n)(py::arg("key") = lower);
}

/// How many map packages have unsaved changes; 0 if the editor can't tell.
size_t count_unsaved() {
  return attempt(
      [] {
        return list_of(call(unreal("EditorLoadingAndSavingUtils"_n), "get_dirty_map_packages"_n))
            .size();
      },
      size_t{0});
}

/// Opens the level, unless something stands against it: then the reply says what.
void open_level(const std::string &path, const py::dict &m, Record &reply) {
  if (path == _level_pkg()) {
    reply.set("ok"_n, true);
    return;
  }
  if (_in_pie()) {
    reply.set("msg"_n, "Unreal is playing (PIE) - stop it first");
    return;
  }
  const size_t unsaved = count_unsaved();
  const bool save = flag(m, "save"_n);
  if (unsaved && !save && !flag(m, "discard"_n)) {
    reply.set("unsaved"_n, unsaved).set("level"_n, _level_pkg());
    return;
  }
  if (unsaved && save) {
    if (!truth(
            call(unreal("EditorLoadingAndSavingUtils"_n), "save_dirty_packages"_n, true, false))) {
      reply.set("msg"_n, "Unreal could not save the open level - nothing was switched");
      return;
    }
    _log("saved " + std::to_string(unsaved) + " packages before opening " + path);
  }
  const bool opened = truth(call(subsystem("LevelEditorSubsystem"_n), "load_level"_n, path));
  reply.set("ok"_n, opened);
  if (opened) {
    _log("opened " + path + " for Blender");
  } else {
    reply.set("msg"_n, "Unreal could not open it");
  }
}

}  // namespace

std::string _level_pkg() {
  return std::string(package_of(_world_name()));
}

void _h_need_levels(const py::dict &) {
  py::list levels;
  if (const auto failure = failure_of([&] { collect_levels(levels); })) {
    _warn("level list: " + failure->text());
  }
  sort_by_path(levels);
  _send(message("levels")
            .set("levels"_n, levels)
            .set("current"_n, attempt(_level_pkg, std::string())));
}

void _h_open_level(const py::dict &m) {
  py::object path = given_or(m, "path"_n, "");
  if (!PyUnicode_Check(path.ptr())) fail_type("a level's path must be a text");
  Record reply = message("level_opened").set("path"_n, path).set("ok"_n, false);
  if (truth(path)) open_level(text(path), m, reply);
  _send(reply);
}

void bind_levels(py::module_ &m) {
  def(m, "_level_pkg", &_level_pkg);
  bind_handler(m, "need_levels", &_h_need_levels);
  bind_handler(m, "open_level", &_h_open_level, {.busy = "opening a level"});
}

}  // namespace kestrix
