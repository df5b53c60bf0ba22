#include "mirror/snapshot.h"

#include <map>

#include "mirror/info.h"
#include "mirror/level_list.h"

namespace kestrix {

namespace {

/// "200 mesh, 8 light"
std::string counts_by_kind(const py::list &infos) {
  std::map<std::string, size_t> counts;
  for (py::handle info : infos) ++counts[std::string(view(item(info, "kind"_n)))];
  std::string out;
  for (const auto &[kind, count] : counts) {
    out += (out.empty() ? "" : ", ") + std::to_string(count) + " " + kind;
  }
  return out.empty() ? "nothing" : out;
}

/// Full records of these actors, remembered in the mirror; those that can't be described are
/// reported.
py::list describe(const py::dict &actors) {
  py::list infos;
  each_entry(actors, [&](const py::object &aid, const py::object &actor) {
    const auto failure = failure_of([&] {
      py::dict info = _info(actor, aid, true, true);
      _remember(aid, actor, info);
      append(infos, info);
    });
    if (failure) _bad_actor(aid, failure->text());
  });
  return infos;
}

/// Adds "gone" to a snapshot, if the peer has said which ids it has.
void add_gone(Record &snapshot, const py::dict &actors) {
  py::object have = S(key::client_have);
  drop_S(key::client_have);
  if (have.is_none()) return;
  const auto failure = failure_of([&] { snapshot.set("gone"_n, _gone_ids(have, actors)); });
  if (failure) _warn("which linked actors are gone: " + failure->text());
}

}  // namespace

py::list _gone_ids(py::handle have, py::handle actors) {
  std::string world = text(S(key::world));
  if (S(key::world).is_none() || world.empty()) world = _world_name();
  const std::string_view package = package_of(world);
  py::list missing;
  each(have, [&](const py::object &aid) {
    if (PyUnicode_Check(aid.ptr()) && !find(actors, aid) && package_of(text(aid)) == package &&
        _find_actor(aid).is_none()) {
      append(missing, aid);
    }
  });
  if (missing.empty()) return missing;
  const py::set on_disk = attempt(
      [] {
        py::set paths;
        // None in a level without World Partition.
        each(list_of(call(unreal("WorldPartitionBlueprintLibrary"_n), "get_actor_descs"_n)),
             [&](const py::object &desc) { add(paths, str(prop(desc, "actor_path"_n))); });
        return paths;
      },
      py::set());
  py::list gone;
  for (py::handle aid : missing) {
    if (!on_disk.contains(aid)) append(gone, aid);
  }
  return gone;
}

void _snapshot() {
  if (_in_pie()) {
    // The level's list is empty then: it is sent when Play has ended.
    set_S(key::world, "");
    set_S(key::slow_t, 0.0);
    return;
  }
  const std::string world = _world_name();
  set_S(key::known, py::dict());
  set_S(key::world, world);
  set_S(key::sent_assets, py::set());
  set_S(key::grass, py::dict());
  set_S(key::xf_out, py::dict());  // of a tick that failed: older than what goes out now
  // All that is made here lives on: a collector that goes through it again and again finds nothing.
  const bool collecting = PyGC_Disable() != 0;
  Finally collect([&] {
    if (collecting) PyGC_Enable();
  });
  _scope_center();
  const py::dict actors = _list_actors();
  const py::list infos = describe(actors);
  set_S(key::scan_ids, list_of(actors));
  set_S(key::scan_i, 0);
  _send_assets(_info_assets(infos));
  const std::string level(short_name_of(world));
  Record snapshot =
      message("snapshot").set("level"_n, level).set("world"_n, world).set("actors"_n, infos);
  add_gone(snapshot, actors);
  _send(snapshot);
  _log("snapshot: " + counts_by_kind(infos) + ", " +
       std::to_string(S_set(key::sent_assets).size()) + " meshes (" + level + ")");
}

void bind_snapshot(py::module_ &m) {
  def(m, "_gone_ids", &_gone_ids, py::arg("have"), py::arg("actors"));
  def(m, "_snapshot", &_snapshot);
}

}  // namespace kestrix
