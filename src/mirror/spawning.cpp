#include "mirror/spawning.h"

#include "assets/importing.h"
#include "assets/rigs.h"
#include "lights_cameras/cameras.h"
#include "lights_cameras/lights.h"
#include "link/table.h"
#include "link/xf.h"
#include "mirror/actors.h"
#include "mirror/drags.h"
#include "mirror/info.h"
#include "mirror/mirrored.h"
#include "mirror/new_actor.h"
#include "mirror/text_actors.h"

namespace kestrix {

namespace {

struct LightClass {
  const char *word;  // the record's "type"
  const char *name;
};
constexpr std::array LIGHT_CLASSES{LightClass{"point", "PointLight"},
                                   LightClass{"spot", "SpotLight"}, LightClass{"rect", "RectLight"},
                                   LightClass{"sun", "DirectionalLight"}};

/// A message's field as a map, empty if it is missing or None.
py::dict map_field(py::handle m, Name key) {
  return as_map(given_or(m, key, py::dict()), "an actor's settings");
}

/// The class of a "light" record's type; an unknown type is a point light.
py::object light_class(py::handle light) {
  const std::string type = text(given_or(light, "type"_n, ""));
  return get(module("unreal"_n), to_py(row_or_first(LIGHT_CLASSES, type).name));
}

py::object tags_field(py::handle m) {
  py::object tags = given_or(m, "tags"_n, nullptr);
  return tags.is_none() ? tags : as_list(tags);
}

py::dict place_from(const py::dict &m, py::handle actor, py::handle folder) {
  return _place(actor, item(m, "xf"_n), given_or(m, "label"_n, ""), folder, tags_field(m))[1];
}

/// Adds an actor of that class as one undo step: its own settings, then what every actor has.
void add_actor(const py::dict &m, py::dict &info, py::handle actor_class,
               const std::function<void(py::handle)> &apply_settings) {
  in_transaction_or_none("Verrin: add " + text(given_or(m, "label"_n, "")), [&] {
    py::object actor = add_actor("spawn_actor_from_class"_n, actor_class,
                                 vector_at(item(m, "xf"_n)), "spawn failed");
    finish_or_take_away(actor, [&] {
      apply_settings(actor);
      info = place_from(m, actor, given_or(m, "folder"_n, ""));
    });
  });
}

/// The name of the asset that comes with the message: "name", else "label", else that one.
py::object asset_name(const py::dict &m, const char *otherwise) {
  for (const Name field : {"name"_n, "label"_n}) {
    if (flag(m, field)) return item(m, field);
  }
  return to_py(otherwise);
}

py::object mesh_asset(const py::dict &m) {
  if (flag(m, "file"_n)) {
    return _import_file(item(m, "file"_n), asset_name(m, "Mesh"), py::none(),
                        given_or(m, "mat_src"_n, nullptr), given_or(m, "slot_mats"_n, nullptr),
                        given_or(m, "coll"_n, nullptr));
  }
  py::object path = given_or(m, "asset"_n, "");
  py::object mesh = invoke(unreal("load_asset"_n), path);
  if (!is_a(mesh, "StaticMesh"_n)) fail("not a static mesh: " + text(path));
  return mesh;
}

/// Sends the asset's entry anew.
void send_fresh_entry(py::handle asset) {
  const py::object path = str(path_of(asset));
  drop(S_map(key::assets), path);
  resend_asset(path);
}

void add_mesh(const py::dict &m, py::dict &info) {
  py::object mesh = mesh_asset(m);
  in_transaction_or_none("Verrin: add " + text(given_or(m, "label"_n, "")), [&] {
    const py::tuple spawned = _spawn(mesh, item(m, "xf"_n), given_or(m, "label"_n, ""),
                                     given_or(m, "folder"_n, ""), tags_field(m));
    info = spawned[2];
    finish_or_take_away(spawned[0], [&] { send_fresh_entry(mesh); });
  });
}

void add_rig(const py::dict &m, py::dict &info) {
  const py::tuple rig = _import_rig(item(m, "file"_n), asset_name(m, "Rig"), py::none());
  in_transaction_or_none("Verrin: add " + text(given_or(m, "label"_n, "")), [&] {
    py::object actor =
        add_actor("spawn_actor_from_object"_n, rig[0], vector_at(item(m, "xf"_n)), "spawn failed");
    finish_or_take_away(actor, [&] {
      _rig_anim(actor, rig[1], given_or(m, "anim"_n, nullptr));
      info = place_from(m, actor, given_or(m, "folder"_n, ""));
    });
  });
}

/// Fills `info` as soon as the actor stands, whatever comes after.
void add_by_kind(const py::dict &m, py::dict &info) {
  // A malformed placement must fail before anything is in the level.
  _transform_from_xf(item(m, "xf"_n));
  const std::string kind = text(given_or(m, "kind"_n, "mesh"));
  if (kind == "text") {
    return add_actor(m, info, unreal("TextRenderActor"_n),
                     [&](py::handle actor) { _apply_text(actor, map_field(m, "text"_n)); });
  }
  if (kind == "light") {
    py::dict light = map_field(m, "light"_n);
    return add_actor(m, info, light_class(light),
                     [&](py::handle actor) { _apply_light(actor, light); });
  }
  if (kind == "camera") {
    return add_actor(m, info, unreal("CineCameraActor"_n),
                     [&](py::handle actor) { _apply_camera(actor, map_field(m, "cam"_n)); });
  }
  if (kind == "skel") return add_rig(m, info);
  if (flag(m, "empty"_n)) return add_actor(m, info, unreal("StaticMeshActor"_n), [](py::handle) {});
  return add_mesh(m, info);
}

void duplicate(const py::dict &m, py::handle source, py::dict &info) {
  _transform_from_xf(item(m, "xf"_n));
  in_transaction_or_none("Verrin: duplicate " + text(label_of(source)), [&] {
    py::object copy = copy_actor(source);
    finish_or_take_away(copy, [&] {
      info = place_from(m, copy, given_or(m, "folder"_n, nullptr));
      py::list infos;
      append(infos, info);
      _send_assets(_info_assets(infos));
    });
  });
}

void answer_failed(const py::dict &m, const std::string &reason) {
  _send(message("spawn_failed").set("tmp"_n, given_or(m, "tmp"_n, nullptr)).set("msg"_n, reason));
}

/// Adds an actor by f and answers with its record, or with why there is none.
template <class F>
void answer(const py::dict &m, F &&f) {
  py::dict info;
  const auto failure = failure_of([&] {
    f(info);
    _send(message("spawned").set("tmp"_n, given_or(m, "tmp"_n, nullptr)).set("actor"_n, info));
  });
  if (failure) {
    // The peer hasn't heard of an actor that is there all the same: the next listing adds it.
    if (size(info)) attempt([&] { drop(S_map(key::known), item(info, "id"_n)); });
    return answer_failed(m, failure->text());
  }
  _invalidate_viewports();
}

}  // namespace

py::tuple _place(py::handle a, py::handle xf, py::handle label, py::handle folder,
                 py::handle tags) {
  _set_tags(a, tags);
  set_transform(a, _transform_from_xf(xf));
  if (truth(label)) call(a, "set_actor_label"_n, label);
  set_folder(a, folder);
  py::object aid = str(path_of(a));
  drop(S_map(key::kinds), aid);  // the actor is classified as it is now
  py::dict info = _info(a, aid, true, true);
  _remember(aid, a, info);
  return py::make_tuple(aid, info);
}

py::tuple _spawn(py::handle sm, py::handle xf, py::handle label, py::handle folder,
                 py::handle tags) {
  py::object actor = add_actor("spawn_actor_from_object"_n, sm, vector_at(xf), "spawn failed");
  py::object where = folder.is_none() ? to_py("") : to_py(folder);
  py::tuple placed;
  finish_or_take_away(actor, [&] { placed = _place(actor, xf, label, where, tags); });
  return py::make_tuple(actor, placed[0], placed[1]);
}

void _h_spawn(const py::dict &m) {
  answer(m, [&](py::dict &info) { add_by_kind(m, info); });
}

void _h_dup(const py::dict &m) {
  py::object source = _find_actor(given_or(m, "src"_n, ""));
  if (!source.is_none() && is_foliage_or_landscape(source)) {
    return answer_failed(m, "foliage actors / landscapes aren't duplicated from Blender");
  }
  if (!source.is_none()) return answer(m, [&](py::dict &info) { duplicate(m, source, info); });
  py::dict spawn = copy_of(m);
  drop(spawn, "src"_n);
  const bool is_mesh = equal(given_or(m, "kind"_n, "mesh"), to_py("mesh"_n));
  if (is_mesh && !flag(m, "asset"_n) && !flag(m, "file"_n)) {
    return answer_failed(m, "source actor is gone");
  }
  _h_spawn(spawn);
}

void bind_spawning(py::module_ &m) {
  py::dict light_classes;
  for (const LightClass &row : LIGHT_CLASSES) light_classes[row.word] = row.name;
  m.attr("LIGHT_CLASSES") = light_classes;
  def(m, "_place", &_place, py::arg("a"), py::arg("xf"), py::arg("label").none(true),
      py::arg("folder").none(true), py::arg("tags") = py::none());
  def(m, "_spawn", &_spawn, py::arg("sm"), py::arg("xf"), py::arg("label").none(true),
      py::arg("folder").none(true), py::arg("tags") = py::none());
  bind_handler(m, "spawn", &_h_spawn, {.adds = true, .in_level = true, .busy = "adding an actor"});
  bind_handler(m, "dup", &_h_dup, {.adds = true, .in_level = true, .busy = "duplicating actors"});
}

}  // namespace kestrix
