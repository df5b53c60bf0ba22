#include "assets/rigs.h"

#include "assets/importing.h"
#include "link/files.h"
#include "mirror/actors.h"
#include "mirror/mirrored.h"

namespace kestrix {

namespace {

py::object component_of(py::handle a) {
  return get(a, "skeletal_mesh_component"_n);
}

std::string name_of(py::handle asset) {
  return text(call(asset, "get_name"_n));
}

/// The letters and digits of a name, small.
std::string animation_key(py::handle name) {
  std::string key;
  if (!exists(name)) return key;
  for (const char c : text(call(str(name), "lower"_n))) {
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z')) key += c;
  }
  return key;
}

py::object choose_animation(const py::list &anims, py::handle want) {
  if (!exists(want) || !truth(want) || anims.empty()) return py::none();
  const std::string wanted = animation_key(want);
  const auto first_whose_name = [&](auto &&fits) {
    for (py::handle anim : anims) {
      if (fits(animation_key(call(anim, "get_name"_n)))) return to_py(anim);
    }
    return py::object();
  };
  py::object found =
      first_whose_name([&](const std::string &key) { return key.ends_with(wanted); });
  if (!found) {
    found = first_whose_name(
        [&](const std::string &key) { return key.find(wanted) != std::string::npos; });
  }
  return found ? found : py::object(anims[0]);
}

void play(py::handle component, py::handle anim) {
  call(component, "modify"_n);
  set_prop(component, "animation_mode"_n,
           get(unreal("AnimationMode"_n), "ANIMATION_SINGLE_NODE"_n));
  const py::object data = prop(component, "animation_data"_n);
  set_prop(data, "anim_to_play"_n, anim);
  set_prop(data, "saved_looping"_n, true);
  set_prop(data, "saved_playing"_n, true);
  set_prop(data, "saved_position"_n, 0.0);
  set_prop(component, "animation_data"_n, data);
  call(component, "set_update_animation_in_editor"_n, true);
  call(component, "set_animation"_n, anim);
  if (exists(anim)) call(component, "play"_n, true);
}

void show_rig(const py::dict &m, py::handle actor, py::handle before, const py::tuple &rig) {
  in_transaction("Verrin: rig " + text(label_of(actor)), [&] {
    if (!equal(before, rig[0])) {
      call(actor, "modify"_n);
      const py::object component = component_of(actor);
      call(component, "modify"_n);
      call(component, "set_skeletal_mesh_asset"_n, rig[0]);
    }
    _rig_anim(actor, rig[1], given_or(m, "anim"_n, nullptr));
  });
}

py::object import_for(const py::dict &m, py::handle aid) {
  const py::object actor = _find_actor(aid);
  const py::object before = actor.is_none() ? actor : _skel_of(actor);
  const py::object name = given_or(m, "name"_n, "");
  py::object asset = given_or(m, "asset"_n, "");
  if (!truth(asset)) asset = path_or_empty(before);
  const py::tuple rig = _import_rig(item(m, "file"_n), truth(name) ? name : to_py("Rig"), asset);
  const py::object path = str(path_of(rig[0]));
  if (!actor.is_none()) {
    show_rig(m, actor, before, rig);
    if (py::object info = known_info(aid)) put(info, "asset"_n, path);
  }
  return path;
}

/// The slot for that name, else that index; -1 if there is none.
Py_ssize_t slot_for(const py::list &slots, const std::string &key, long long index) {
  for (size_t i = 0; !key.empty() && i < slots.size(); ++i) {
    for (const Name property : {"material_slot_name"_n, "imported_material_slot_name"_n}) {
      if (_mat_key(prop(py::object(slots[i]), property)) == key) return static_cast<Py_ssize_t>(i);
    }
  }
  const bool there = index >= 0 && index < static_cast<long long>(slots.size());
  return there ? static_cast<Py_ssize_t>(index) : -1;
}

/// Puts one triple's material on its slot; false if nothing changes.
bool assign(py::list &slots, py::handle triple) {
  const py::object path = nth(triple, 2);
  const py::object material =
      exists(path) && truth(path) ? invoke(unreal("load_asset"_n), path) : py::none();
  if (!exists(material)) return false;
  const Py_ssize_t at = slot_for(slots, _mat_key(nth(triple, 1)), integer(nth(triple, 0)));
  if (at < 0) return false;
  const py::object slot = slots[static_cast<size_t>(at)];
  if (equal(prop(slot, "material_interface"_n), material)) return false;
  set_prop(slot, "material_interface"_n, material);
  slots[static_cast<size_t>(at)] = slot;
  return true;
}

}  // namespace

py::tuple _import_rig(py::handle fn, py::handle name, py::handle asset) {
  const std::string base = import_folder(name, asset);
  py::list paths = import_copy(fn, base, ".glb", LINK_ROOT);
  const std::string folder = std::string(LINK_ROOT) + "/" + base;
  if (truth(call(unreal("EditorAssetLibrary"_n), "does_directory_exist"_n, folder))) {
    append_listed(paths, folder);
  }
  py::object mesh = py::none();
  py::list anims;
  for (py::handle path : paths) {
    const py::object made = invoke(unreal("load_asset"_n), path);
    if (is_a(made, "SkeletalMesh"_n) && (mesh.is_none() || name_of(made) == base)) {
      mesh = made;
    } else if (is_a(made, "AnimSequence"_n) && !anims.contains(made)) {
      append(anims, made);
    }
  }
  const std::string file = base_name(text(fn));
  if (mesh.is_none()) fail("the rig import made no skeletal mesh (" + file + ")");
  _log("imported rig " + file + " -> " + text(path_of(mesh)) + " (" + std::to_string(anims.size()) +
       (anims.size() == 1 ? " animation)" : " animations)"));
  return py::make_tuple(mesh, anims);
}

void _rig_anim(py::handle a, py::handle anims, py::handle want) {
  const auto failure =
      failure_of([&] { play(component_of(a), choose_animation(list_of(anims), want)); });
  if (failure) _warn("animation on " + text(label_of(a)) + ": " + failure->text());
}

void _h_rig(const py::dict &m) {
  const py::object aid = given_or(m, "id"_n, "");
  py::object path;
  const auto failure = failure_of([&] { path = import_for(m, aid); });
  Record done = message("rig_done").set("id"_n, aid);
  if (failure) {
    _send(done.set("error"_n, failure->text()));
    failure->raise();
  }
  _send(done.set("asset"_n, path));
  _invalidate_viewports();
}

void _assign_skel(py::handle a, py::handle slots) {
  const py::object mesh = _skel_of(a);
  if (!exists(mesh) || !is_ours(text(path_of(mesh)))) return;
  py::list materials = list_of(prop(mesh, "materials"_n));
  bool changed = false;
  each(slots, [&](const py::object &triple) { changed = assign(materials, triple) || changed; });
  if (!changed) return;
  call(mesh, "modify"_n);
  set_prop(mesh, "materials"_n, materials);
  call(unreal("EditorAssetLibrary"_n), "save_loaded_asset"_n, mesh, false);
  _invalidate_viewports();
}

void bind_rigs(py::module_ &m) {
  def(m, "_import_rig", &_import_rig, py::arg("fn"), py::arg("name"),
      py::arg("asset") = py::none());
  def(m, "_rig_anim", &_rig_anim, py::arg("a"), py::arg("anims"), py::arg("want").none(true));
  def(m, "_assign_skel", &_assign_skel, py::arg("a"), py::arg("slots"));
  bind_handler(m, "rig", &_h_rig, {.busy = "importing a rig"});
}

}  // namespace kestrix
