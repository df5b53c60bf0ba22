#include "mirror/actor_edits.h"

#include "lights_cameras/cameras.h"
#include "lights_cameras/lights.h"
#include "mirror/actors.h"
#include "mirror/diff.h"
#include "mirror/info.h"
#include "mirror/mirrored.h"
#include "mirror/text_actors.h"

namespace kestrix {

namespace {

/// Applies the message's settings that fit the actor.
void apply_props(py::handle actor, py::handle m) {
  if (py::object light = given(m, "light"_n); light && is_a(actor, "Light"_n)) {
    _apply_light(actor, light);
  }
  if (py::object cam = given(m, "cam"_n); cam && is_a(actor, "CameraActor"_n)) {
    _apply_camera(actor, cam);
  }
  if (py::object words = given(m, "text"_n); words && is_a(actor, "TextRenderActor"_n)) {
    _apply_text(actor, words);
  }
}

/// Runs an edit as one undo step. What the peer now believes of the actor goes into the mirror;
/// what the editor has made of it instead, or not done at all, is told the peer as any other
/// change.
void edit(const std::string &title, py::handle aid, py::handle actor, const Record &believed,
          const std::function<void()> &change) {
  FirstFailure failures;
  failures.attempt([&] { in_transaction(title, change); });
  if (py::object info = known_info(aid)) {
    check(PyDict_Update(info.ptr(), py::dict(believed).ptr()));
    failures.attempt([&] { _diff_actor(aid, actor, false); });
  }
  failures.raise();
}

void drop_dead(const py::dict &actors) {
  py::object library = system_library();
  for (py::handle pair : pairs_of(actors)) {
    if (!is_alive(library, nth(pair, 1))) drop(actors, nth(pair, 0));
  }
}

/// Destroys the actors of a map and leaves those in it that the editor keeps.
void destroy(const py::dict &actors) {
  attempt([&] { call(_eas(), "destroy_actors"_n, list_of(call(actors, "values"_n))); });
  drop_dead(actors);
  FirstFailure failures;
  for (py::handle actor : list_of(call(actors, "values"_n))) {
    failures.attempt([&] { call(_eas(), "destroy_actor"_n, actor); });
  }
  drop_dead(actors);
  failures.raise();
}

}  // namespace

void _h_tags(const py::dict &m) {
  py::object aid = item(m, "id"_n);
  py::object actor = _find_actor(aid);
  if (actor.is_none()) return;
  py::list tags;
  for (py::handle tag : as_list(given_or(m, "tags"_n, py::list()))) {
    if (truth(tag)) append(tags, tag);
  }
  if (equal(tags, _tags_of(actor))) return;
  edit("Verrin: tags " + text(label_of(actor)), aid, actor, Record().set("tags"_n, tags), [&] {
    call(actor, "modify"_n);
    _set_tags(actor, tags);
  });
}

void _h_props(const py::dict &m) {
  py::object aid = item(m, "id"_n);
  py::object actor = _find_actor(aid);
  if (actor.is_none()) return;
  in_transaction("Verrin: " + text(label_of(actor)) + " settings", [&] { apply_props(actor, m); });
  py::dict now = _info(actor, aid, false, true);
  py::object info = known_info(aid);
  Record echo = message("props").set("id"_n, aid);
  for (const Name field : {"light"_n, "cam"_n, "text"_n}) {
    py::object value = find(now, field);
    if (value && info) put(info, field, value);
    echo.set(field, value ? value : py::none());
  }
  _send(echo.set("echo"_n, true));
  _invalidate_viewports();
}

void _h_set_mesh(const py::dict &m) {
  py::object aid = item(m, "id"_n);
  py::object path = given_or(m, "asset"_n, "");
  py::object mesh = truth(path) ? invoke(unreal("load_asset"_n), path) : py::none();
  py::object actor = _find_actor(aid);
  if (actor.is_none() || (truth(path) && !is_a(mesh, "StaticMesh"_n))) return;
  py::object component = get(actor, "static_mesh_component"_n);
  py::list asset;
  append(asset, path_or_empty(mesh));
  const Finally redraw([] { _invalidate_viewports(); });
  edit("Verrin: set mesh", aid, actor, Record().set("asset"_n, asset[0]), [&] {
    call(actor, "modify"_n);
    call(component, "set_static_mesh"_n, mesh);
    _send_assets(asset);  // ahead of whatever the peer is told of the actor
  });
}

void _h_delete(const py::dict &m) {
  py::dict actors;  // by id: one that is named twice counts once
  py::dict linked;
  for (py::handle aid : texts_given(m, "ids"_n, "an actor's id")) {
    py::object actor = _find_actor(aid);
    if (!actor.is_none() && is_foliage_or_landscape(actor)) {
      _warn("Blender asked to delete " + text(label_of(actor)) +
            " - ignored (landscapes and foliage actors are never deleted from Blender)");
      continue;
    }
    // Out of the mirror first, so that no "remove" comes back.
    if (drop(S_map(key::known), aid)) put(linked, aid, nullptr);
    drop(S_map(key::xf_out), aid);
    if (!actor.is_none()) put(actors, aid, actor);
  }
  const Py_ssize_t count = size(actors);
  if (!count) return;
  const auto failure = failure_of(
      [&] { in_transaction("Verrin: delete " + std::to_string(count), [&] { destroy(actors); }); });
  _log("deleted " + std::to_string(count - size(actors)) + " actor(s) from Blender");
  if (size(actors)) _warn("Unreal has kept " + std::to_string(size(actors)) + " actor(s)");
  for (py::handle pair : pairs_of(actors)) {
    // The peer believes it deleted, so it is told as a new one: now, or by the next listing.
    py::object aid = nth(pair, 0);
    if (find(linked, aid)) attempt([&] { _diff_actor(aid, nth(pair, 1), true); });
  }
  _invalidate_viewports();
  if (failure) failure->raise();
}

void _h_rename(const py::dict &m) {
  py::object aid = item(m, "id"_n);
  py::object actor = _find_actor(aid);
  if (actor.is_none()) return;
  py::object label = given_or(m, "label"_n, "");
  py::object folder = given_or(m, "folder"_n, nullptr);
  Record believed;
  if (truth(label)) believed.set("label"_n, label);
  if (!folder.is_none()) believed.set("folder"_n, folder);
  edit("Verrin: rename", aid, actor, believed, [&] {
    if (truth(label)) call(actor, "set_actor_label"_n, label);
    set_folder(actor, folder);
  });
}

void bind_actor_edits(py::module_ &m) {
  bind_handler(m, "tags", &_h_tags, {.in_level = true});
  bind_handler(m, "props", &_h_props, {.in_level = true});
  bind_handler(m, "set_mesh", &_h_set_mesh, {.in_level = true, .busy = "updating a mesh"});
  bind_handler(m, "delete", &_h_delete, {.adds = true, .in_level = true});
  bind_handler(m, "rename", &_h_rename, {.in_level = true});
}

}  // namespace kestrix
