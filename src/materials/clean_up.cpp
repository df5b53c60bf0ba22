#include "materials/clean_up.h"

#include <limits>

#include "assets/content.h"
#include "editor/user_activity.h"
#include "link/cache.h"
#include "materials/build.h"
#include "materials/instances.h"
#include "mirror/actors.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds: when an entry is looked at, when it is forgotten, and between passes.
constexpr double TRASH_DELAY = 3.0;
constexpr double TRASH_GIVE_UP = 120.0;
constexpr double PASS_INTERVAL = 2.0;
// Seconds of a tick that a pass may take.
constexpr double TRASH_SLICE = 0.003;
constexpr int MATERIAL_NAME = 64;

bool deletes() {
  return truth(get(this_module(), "AUTO_DELETE"_n));
}

bool is_below_root(const std::string &path) {
  return path.starts_with(material_root() + "/");
}

/// Seconds since an entry came. What is no time, in a state that somebody edited, is too old.
double age(py::handle entered, double now) {
  return PyFloat_Check(entered.ptr()) || PyLong_Check(entered.ptr()) ? now - real(entered)
                                                                     : 2 * TRASH_GIVE_UP;
}

// A pass is a map: what is still to be looked at, and what was found. It goes through its steps in
// slices of a tick. Nothing is deleted on what was seen in earlier ticks.

py::list list_in(const py::dict &pass, Name part) {
  return as_list(item(pass, part));
}

py::set set_in(const py::dict &pass, Name part) {
  return py::reinterpret_borrow<py::set>(item(pass, part));
}

/// Takes entries out of a list of the pass until it is empty or the time is up; true if it is
/// empty.
template <class F>
bool work_off(const py::dict &pass, Name part, double until, F &&f) {
  const py::list left = list_in(pass, part);
  while (!left.empty()) {
    f(call(left, "pop"_n));
    if (perf_counter() >= until) return left.empty();
  }
  return true;
}

/// A new pass over what is old enough to be looked at; forgets what is too old. Null if nothing is.
py::object new_pass(const py::dict &trash) {
  const double now = wall_clock();
  py::list waiting;
  py::list forgotten;
  each_entry(trash, [&](const py::object &path, const py::object &entered) {
    const double seconds = age(entered, now);
    if (seconds >= TRASH_DELAY) append(seconds > TRASH_GIVE_UP ? forgotten : waiting, path);
  });
  for (py::handle path : forgotten) drop(trash, path);
  if (waiting.empty()) return {};
  call(waiting, "reverse"_n);
  return Record()
      .set("world"_n, _world_name())
      .set("waiting"_n, waiting)
      .set("due"_n, py::list())
      .set("candidates"_n, py::set())
      .set("actors"_n, level_actors())
      .set("live"_n, py::set())
      .set("shown"_n, py::set())
      .set("referencers"_n, py::dict());
}

bool drop_vanished(const py::dict &pass, double until) {
  return work_off(pass, "waiting"_n, until, [&](const py::object &path) {
    if (!asset_exists(text(path))) {
      drop(S_map(key::trash), path);
      return;
    }
    py::list due = list_in(pass, "due"_n);
    append(due, path);
    add(set_in(pass, "candidates"_n), path);
  });
}

/// Notes the packages of the level's actors and of the materials on them.
bool look_at_actors(const py::dict &pass, double until) {
  const py::set live = set_in(pass, "live"_n);
  const py::set shown = set_in(pass, "shown"_n);
  const py::object mesh_component = unreal("MeshComponent"_n);
  return work_off(pass, "actors"_n, until, [&](const py::object &actor) {
    attempt([&] {
      add(live, str(call(call(actor, "get_package"_n), "get_name"_n)));
      each(list_of(call(actor, "get_components_by_class"_n, mesh_component)),
           [&](const py::object &component) {
             each(list_of(call(component, "get_materials"_n)), [&](const py::object &material) {
               if (exists(material)) add(shown, to_py(package_path(material)));
             });
           });
    });
  });
}

/// Notes the textures of the link's instances. One that is on its way out itself, and not on
/// screen, protects none.
bool look_at_instances(const py::dict &pass, py::handle registry, double until) {
  if (!find(pass, "instances"_n)) {
    put(pass, "instances"_n,
        list_of(registry.attr("get_assets_by_path")(material_root(), py::arg("recursive") = true)));
  }
  const py::set candidates = set_in(pass, "candidates"_n);
  const py::set shown = set_in(pass, "shown"_n);
  return work_off(pass, "instances"_n, until, [&](const py::object &data) {
    const py::object kind = get(get(data, "asset_class_path"_n), "asset_name"_n);
    if (text(kind) != "MaterialInstanceConstant") return;
    const py::object package = str(get(data, "package_name"_n));
    // On screen: by now all actors have been looked at, and `shown` only gains textures.
    if (candidates.contains(package) && !shown.contains(package)) return;
    const py::object mi = load_asset(package);
    if (is_a(mi, "MaterialInstanceConstant"_n)) call(shown, "update"_n, _used_textures(mi));
  });
}

py::object reference_options() {
  const py::object options = invoke(unreal("AssetRegistryDependencyOptions"_n));
  set_prop(options, "include_soft_package_references"_n, true);
  set_prop(options, "include_hard_package_references"_n, true);
  set_prop(options, "include_searchable_names"_n, false);
  set_prop(options, "include_soft_management_references"_n, false);
  set_prop(options, "include_hard_management_references"_n, false);
  return options;
}

/// Notes the packages that name each candidate. The level that is open and its actors don't count,
/// what is on screen is known already; nor do unsaved levels.
bool look_at_referencers(const py::dict &pass, py::handle registry, double until) {
  if (!find(pass, "unasked"_n)) put(pass, "unasked"_n, list_of(item(pass, "due"_n)));
  const std::string world(package_of(text(item(pass, "world"_n))));
  const py::set live = set_in(pass, "live"_n);
  const py::object options = reference_options();
  const py::object name_class = unreal("Name"_n);
  return work_off(pass, "unasked"_n, until, [&](const py::object &path) {
    py::list outside;
    each(list_of(call(registry, "get_referencers"_n, invoke(name_class, path), options)),
         [&](const py::object &name) {
           const py::object package = str(name);
           const std::string words = text(package);
           if (words != world && !words.starts_with("/Temp/") && !live.contains(package)) {
             append(outside, package);
           }
         });
    put(item(pass, "referencers"_n), path, outside);
  });
}

/// Goes through the pass's steps; false if the time was up.
bool go_on(const py::dict &pass, double until) {
  const py::object registry = call(unreal("AssetRegistryHelpers"_n), "get_asset_registry"_n);
  return drop_vanished(pass, until) && look_at_actors(pass, until) &&
         look_at_instances(pass, registry, until) && look_at_referencers(pass, registry, until);
}

/// Blocks what hangs on something blocked or from outside, until nothing more is found: assets that
/// only name each other go together. Each asset is blocked at most once and then blocks those that
/// it names.
void block_referenced(const py::list &due, const py::set &candidates, const py::dict &referencers,
                      const py::set &blocked) {
  py::dict named_by;  // package -> those of `due` that it names
  py::list to_follow = list_of(blocked);
  for (py::handle path : due) {
    for (py::handle from : as_list(item(referencers, path))) {
      if (!candidates.contains(from)) {
        if (!blocked.contains(path)) append(to_follow, path);
        add(blocked, path);
      }
      if (!find(named_by, from)) put(named_by, from, py::list());
      py::list named = as_list(item(named_by, from));
      append(named, path);
    }
  }
  for (size_t i = 0; i < to_follow.size(); ++i) {
    const py::object named = find(named_by, py::object(to_follow[i]));
    if (!named) continue;
    for (py::handle path : as_list(named)) {
      if (blocked.contains(path)) continue;
      add(blocked, path);
      append(to_follow, path);
    }
  }
}

/// The candidates that nothing uses, after a whole pass.
py::list unused_after(const py::dict &pass) {
  const py::list due = list_in(pass, "due"_n);
  py::set blocked;
  for (py::handle path : due) {
    if (set_in(pass, "shown"_n).contains(path)) add(blocked, path);
  }
  block_referenced(due, set_in(pass, "candidates"_n), item(pass, "referencers"_n), blocked);
  py::list ready;
  for (py::handle path : due) {
    if (!blocked.contains(path)) append(ready, path);
  }
  return ready;
}

void take_out(const py::list &ready) {
  for (py::handle path : ready) drop(S_map(key::trash), path);
}

std::string count_of(const py::list &paths) {
  return std::to_string(paths.size());
}

void tell_unused(const py::list &ready) {
  const py::set unused = S_set(key::unused);
  py::list fresh;
  for (py::handle path : ready) {
    if (!unused.contains(path)) append(fresh, path);
    add(unused, path);
  }
  if (fresh.empty()) return;
  _log(count_of(fresh) +
       " material asset(s) no longer used - NOT deleted (AUTO_DELETE is off), delete them by hand "
       "if "
       "you like: " +
       text(call(to_py(", "), "join"_n, fresh)));
}

/// Whether the user has unsaved assets: the registry knows only what saved ones name.
bool has_unsaved_work() {
  bool found = false;
  const py::object packages =
      call(unreal("EditorLoadingAndSavingUtils"_n), "get_dirty_content_packages"_n);
  each(list_of(packages), [&](const py::object &package) {
    found = found || !is_below_root(text(call(package, "get_name"_n)));
  });
  return found;
}

void delete_assets(const py::list &ready) {
  py::list objects;
  for (py::handle path : ready) {
    const py::object asset = load_asset(path);
    if (exists(asset)) append(objects, asset);
  }
  const bool all = objects.empty() || truth(call(subsystem("EditorAssetSubsystem"_n),
                                                 "delete_loaded_assets"_n, objects));
  _log("removed " + count_of(objects) + " replaced material asset(s)" +
       (all ? "" : " (some could not be deleted)"));
}

}  // namespace

py::list _assets_under(const std::string &folder) {
  py::list paths;
  if (!truth(call(asset_library(), "does_directory_exist"_n, folder))) return paths;
  each(list_of(call(asset_library(), "list_assets"_n, folder, true, false)),
       [&](const py::object &entry) { append(paths, to_py(package_of(text(entry)))); });
  return paths;
}

void _trash_add(py::handle paths) {
  const py::dict trash = S_map(key::trash);
  const double now = wall_clock();
  each(paths, [&](const py::object &path) {
    if (is_below_root(text(path)) && !find(trash, path)) put(trash, path, now);
  });
}

void _trash_tick() {
  const py::object pass = new_pass(S_map(key::trash));
  if (!pass) return;
  go_on(pass, std::numeric_limits<double>::infinity());
  const py::list ready = unused_after(pass);
  if (ready.empty() || (deletes() && has_unsaved_work())) return;
  take_out(ready);
  if (deletes()) {
    delete_assets(ready);
  } else {
    tell_unused(ready);
  }
}

void _trash_work(double now) {
  if (_user_in_unreal()) return drop_S(key::trash_pass);
  py::object pass = S(key::trash_pass);
  drop_S(key::trash_pass);  // a failure ends it
  if (pass.is_none()) {
    if (now - S_real(key::trash_t) < PASS_INTERVAL) return;
    set_S(key::trash_t, now);
    pass = new_pass(S_map(key::trash));
    if (!pass) return;
  }
  if (!equal(item(pass, "world"_n), to_py(_world_name()))) return;
  if (!go_on(pass, perf_counter() + TRASH_SLICE)) return set_S(key::trash_pass, pass);
  const py::list ready = unused_after(pass);
  if (ready.empty()) return;
  if (deletes()) return _trash_tick();
  take_out(ready);
  tell_unused(ready);
}

void _h_mat_drop(const py::dict &m) {
  const py::object name = given_or(m, "name"_n, "");
  // Without a name it would be the folder of another material.
  if (!truth(name)) return;
  _trash_add(_assets_under(material_root() + "/" + _safe(text(name), MATERIAL_NAME)));
}

void bind_clean_up(py::module_ &m) {
  m.attr("TRASH_DELAY") = TRASH_DELAY;
  m.attr("TRASH_SLICE") = TRASH_SLICE;
  m.attr("TRASH_GIVE_UP") = TRASH_GIVE_UP;
  m.attr("AUTO_DELETE") = false;
  def(m, "_assets_under", &_assets_under, py::arg("folder"));
  def(m, "_trash_add", &_trash_add, py::arg("paths"));
  def(m, "_trash_tick", &_trash_tick);
  def(m, "_trash_work", &_trash_work, py::arg("now"));
  bind_handler(m, "mat_drop", &_h_mat_drop);
}

}  // namespace kestrix
