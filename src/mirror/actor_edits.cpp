#include "mirror/actor_edits.h"

#include "lights_cameras/cameras.h"
#include "lights_cameras/lights.h"
#include "mirror/actors.h"
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

void destroy(const py::list &actors) {
  if (attempt([&] { call(_eas(), "destroy_actors"_n, actors); })) return;
  std::optional<Failure> first;
  for (py::handle actor : actors) {
    auto failure = failure_of([&] { call(_eas(), "destroy_actor"_n, actor); });
    if (failure && !first) first = std::move(failure);
  }
  if (first) first->raise();
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
  in_transaction("Verrin: tags " + text(label_of(actor)), [&] {
    call(actor, "modify"_n);
    _set_tags(actor, tags);
  });
  py::object info = known_info(aid);
  if (!info) return;
  drop(info, "tags"_n);
  if (!tags.empty()) put(info, "tags"_n, tags);
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
  in_transaction("Verrin: set mesh", [&] {
    call(actor, "modify"_n);
    call(component, "set_static_mesh"_n, mesh);
  });
  if (py::object info = known_info(aid)) {
    put(info, "asset"_n, mesh.is_none() ? to_py("") : str(path_of(mesh)));
  }
  _invalidate_viewports();
}

void _h_delete(const py::dict &m) {
  py::dict doomed;  // id -> actor: one that is named twice counts once
  for (py::handle aid : ids_field(m, "ids"_n)) {
    py::object actor = _find_actor(aid);
    if (!actor.is_none() && is_foliage_or_landscape(actor)) {
      _warn("Blender asked to delete " + text(label_of(actor)) +
            " - ignored (landscapes and foliage actors are never deleted from Blender)");
      continue;
    }
    // Out of the mirror first, so that no "remove" comes back.
    drop(S_map(key::known), aid);
    drop(S_map(key::xf_out), aid);
    if (!actor.is_none()) put(doomed, aid, actor);
  }
  const py::list actors = list_of(call(doomed, "values"_n));
  if (actors.empty()) return;
  const std::string count = std::to_string(actors.size());
  in_transaction("Verrin: delete " + count, [&] { destroy(actors); });
  _log("deleted " + count + " actor(s) from Blender");
  _invalidate_viewports();
}

void _h_rename(const py::dict &m) {
  py::object aid = item(m, "id"_n);
  py::object actor = _find_actor(aid);
  if (actor.is_none()) return;
  py::object label = given_or(m, "label"_n, "");
  py::object folder = given_or(m, "folder"_n, nullptr);
  in_transaction("Verrin: rename", [&] {
    if (truth(label)) call(actor, "set_actor_label"_n, label);
    set_folder(actor, folder);
  });
  py::object info = known_info(aid);
  if (!info) return;
  // Only what this edit set: another change, not scanned yet, is still the scanner's to report.
  if (truth(label)) put(info, "label"_n, label_of(actor));
  if (!folder.is_none()) put(info, "folder"_n, _folder_of(actor));
}

void bind_actor_edits(py::module_ &m) {
  bind_handler(m, "tags", &_h_tags, {.in_level = true}, "Set an actor's tags.");
  bind_handler(m, "props", &_h_props, {.in_level = true},
               "Apply settings; answers with what the editor made of them.");
  bind_handler(m, "set_mesh", &_h_set_mesh, {.in_level = true, .busy = "updating a mesh"},
               "Set or clear a mesh actor's static mesh.");
  bind_handler(m, "delete", &_h_delete, {.adds = true, .in_level = true}, "Delete actors.");
  bind_handler(m, "rename", &_h_rename, {.in_level = true},
               "Set an actor's label, folder or both.");
}

}  // namespace kestrix
