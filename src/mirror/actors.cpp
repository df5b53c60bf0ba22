#include "mirror/actors.h"

namespace kestrix {

namespace {

// Actors of these classes are built from others: mirroring them would show everything twice.
constexpr const char *GENERATED_CLASSES[] = {"WorldPartitionHLOD"};

bool is_generated(py::handle actor) {
  return is_a(actor, get(this_module(), "_GENERATED"_n));
}

bool has_component(py::handle actor, Name component_class) {
  return truth(call(actor, "get_components_by_class"_n, unreal(component_class)));
}

bool is_group(py::handle actor) {
  return attempt(
      [&] {
        return has_component(actor, "StaticMeshComponent"_n) ||
               has_component(actor, "SplineComponent"_n);
      },
      false);
}

}  // namespace

py::object _kind_of(py::handle actor) {
  if (is_a(actor, "StaticMeshActor"_n)) return to_py("mesh"_n);
  if (is_a(actor, "SkeletalMeshActor"_n)) {
    py::object mesh = _skel_of(actor);
    return exists(mesh) && is_ours(text(path_of(mesh))) ? to_py("skel"_n) : py::none();
  }
  if (is_a(actor, "Light"_n) && !is_a(actor, "SkyLight"_n)) return to_py("light"_n);
  if (is_a(actor, "CameraActor"_n)) return to_py("camera"_n);
  if (is_a(actor, "TextRenderActor"_n)) return to_py("text"_n);
  if (is_a(actor, "LandscapeProxy"_n)) {
    return is_a(actor, "Landscape"_n) ? to_py("terrain"_n) : py::none();
  }
  if (is_generated(actor)) return py::none();
  return is_group(actor) ? to_py("group"_n) : py::none();
}

py::object _kind(py::handle aid, py::handle actor) {
  py::dict kinds = S_map(key::kinds);
  py::object kind = find(kinds, aid);
  if (!kind) {
    kind = _kind_of(actor);
    put(kinds, aid, kind);
  }
  return kind;
}

bool is_kind(py::handle kind, std::string_view word) {
  return !kind.is_none() && view(kind) == word;
}

py::object mesh_component_of(py::handle actor) {
  return attempt([&] { return get<"static_mesh_component">(actor); }, py::object(py::none()));
}

py::object mesh_in(py::handle component) {
  return attempt([&] { return prop<"static_mesh">(component); }, py::object(py::none()));
}

py::object _mesh_of(py::handle actor) {
  return mesh_in(mesh_component_of(actor));
}

py::object _skel_of(py::handle actor) {
  py::object mesh = py::none();
  for (const Name property : {"skeletal_mesh_asset"_n, "skeletal_mesh"_n}) {
    if (attempt([&] { mesh = prop(get(actor, "skeletal_mesh_component"_n), property); })) break;
  }
  return mesh;
}

py::object _folder_of(py::handle actor) {
  py::object folder = attempt([&] { return str(call<"get_folder_path">(actor)); }, py::object());
  return !folder || view(folder) == "None" ? to_py(""_n) : folder;
}

void set_folder(py::handle actor, py::handle folder) {
  if (folder.is_none()) return;
  attempt([&] { call(actor, "set_folder_path"_n, truth(folder) ? to_py(folder) : to_py("None")); });
}

py::object tags_or_null(py::handle actor) {
  return attempt(
      [&] {
        py::object names = prop<"tags">(actor);
        if (PyObject_Size(names.ptr()) == 0) return py::object();  // most actors have none
        PyErr_Clear();
        py::list tags;
        each(names, [&](const py::object &tag) {
          py::object word = str(tag);
          if (truth(word) && view(word) != "None") append(tags, word);
        });
        return tags.empty() ? py::object() : py::object(tags);
      },
      py::object());
}

py::list _tags_of(py::handle actor) {
  py::object tags = tags_or_null(actor);
  return tags ? as_list(tags) : py::list();
}

void _set_tags(py::handle actor, py::handle tags) {
  if (tags.is_none()) return;
  py::list names;
  each(tags, [&](const py::object &tag) {
    if (truth(tag)) append(names, invoke(unreal("Name"_n), tag));
  });
  set_prop(actor, "tags"_n, names);
}

py::object system_library() {
  return attempt([] { return unreal("SystemLibrary"_n); }, py::object(py::none()));
}

bool is_alive(py::handle library, py::handle actor) {
  if (actor.is_none()) return false;
  return attempt(
      [&] {
        return truth(call<"is_valid">(library, actor)) &&
               !truth(call<"is_actor_being_destroyed">(actor));
      },
      false);
}

bool _is_alive(py::handle actor) {
  return is_alive(system_library(), actor);
}

py::object _find_actor(py::handle aid) {
  return attempt(
      [&]() -> py::object {
        if (py::object entry = find(S_map(key::known), aid)) {
          py::object actor = item(entry, "actor"_n);
          if (_is_alive(actor)) return actor;
        }
        if (!truth(aid)) return py::none();  // an error to the editor, not just nothing found
        py::object found = invoke(unreal("find_object"_n), nullptr, aid);
        return is_a(found, "Actor"_n) && _is_alive(found) ? found : py::none();
      },
      py::object(py::none()));
}

bool is_foliage_or_landscape(py::handle actor) {
  return is_a(actor, "InstancedFoliageActor"_n) || is_a(actor, "LandscapeProxy"_n);
}

void _bad_actor(py::handle aid, const std::string &reason) {
  py::set reported = S_set(key::bad_actors);
  if (reported.contains(aid)) return;
  add(reported, aid);
  _warn("left out " + std::string(short_name_of(text(aid))) + ": " + reason);
}

void _bad_actor(py::handle aid, py::handle e) {
  _bad_actor(aid, text(e));
}

std::string_view package_of(std::string_view path) {
  return path.substr(0, path.find('.'));
}

std::string_view short_name_of(std::string_view path) {
  const size_t dot = path.rfind('.');
  return dot == std::string_view::npos ? path : path.substr(dot + 1);
}

void _invalidate_viewports() {
  if (attempt([] { call(subsystem("LevelEditorSubsystem"_n), "editor_invalidate_viewports"_n); })) {
    return;
  }
  attempt([] { call(unreal("EditorLevelLibrary"_n), "editor_invalidate_viewports"_n); });
}

void bind_actors(py::module_ &m) {
  py::list generated;
  for (const char *name : GENERATED_CLASSES) {
    if (py::object cls = get_if(module("unreal"_n), to_py(name))) append(generated, cls);
  }
  m.attr("_GENERATED") = py::tuple(generated);
  def(m, "_kind_of", &_kind_of, py::arg("actor"));
  def(m, "_kind", &_kind, py::arg("aid"), py::arg("actor"));
  def(m, "_mesh_of", &_mesh_of, py::arg("actor"));
  def(m, "_skel_of", &_skel_of, py::arg("actor"));
  def(m, "_folder_of", &_folder_of, py::arg("actor"));
  def(m, "_tags_of", &_tags_of, py::arg("actor"));
  def(m, "_set_tags", &_set_tags, py::arg("actor"), py::arg("tags").none(true));
  def(m, "_is_alive", &_is_alive, py::arg("actor").none(true));
  def(m, "_find_actor", &_find_actor, py::arg("aid"));
  def(m, "_bad_actor", py::overload_cast<py::handle, py::handle>(&_bad_actor), py::arg("aid"),
      py::arg("e"));
  def(m, "_invalidate_viewports", &_invalidate_viewports);
}

}  // namespace kestrix
