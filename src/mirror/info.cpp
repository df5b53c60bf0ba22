#include "mirror/info.h"

#include "assets/physics.h"
#include "lights_cameras/cameras.h"
#include "lights_cameras/lights.h"
#include "link/xf.h"
#include "mirror/overrides.h"
#include "mirror/text_actors.h"

namespace kestrix {

namespace {

void read_mesh(Draft &draft, py::handle actor) {
  py::object component = mesh_component_of(actor);
  py::object mesh = mesh_in(component);
  draft.set("asset"_n, path_or_empty(mesh));
  if (mesh.is_none()) return;
  if (py::object rows = overrides_or_null(component, mesh)) draft.set("mats"_n, std::move(rows));
}

/// Has `read` fill a record within the actor's.
void read_settings(Draft &draft, Name field, void (*read)(Draft &, py::handle), py::handle actor) {
  draft.open(field);
  read(draft, actor);
  draft.close();
}

/// What the actor's kind adds to its record.
void read_kind_fields(Draft &draft, py::handle actor, std::string_view kind, bool props) {
  if (kind == "mesh") {
    read_mesh(draft, actor);
  } else if (kind == "skel") {
    draft.set("asset"_n, path_or_empty(_skel_of(actor)));
  } else if (props && kind == "light") {
    read_settings(draft, "light"_n, read_light, actor);
  } else if (props && kind == "camera") {
    read_settings(draft, "cam"_n, read_camera, actor);
  } else if (props && kind == "text") {
    read_settings(draft, "text"_n, read_text, actor);
  } else if (kind == "group") {
    draft.set("cls"_n, str(call(call(actor, "get_class"_n), "get_name"_n)));
  }
}

void append_asset(py::list &paths, py::handle record) {
  py::object asset = given(record, "asset"_n);
  if (asset && truth(asset)) append(paths, asset);
}

}  // namespace

void read_info(Draft &draft, py::handle actor, py::handle kind, bool props) {
  draft.set("label"_n, str(call<"get_actor_label">(actor)))
      .set("folder"_n, _folder_of(actor))
      .set("xf"_n, placement_of(actor));
  if (py::object tags = tags_or_null(actor)) draft.set("tags"_n, std::move(tags));
  if (!kind.is_none()) read_kind_fields(draft, actor, view(kind), props);
}

py::dict record_of(py::handle aid, py::handle kind, const Draft &draft) {
  Record record = Record(8).set("id"_n, aid).set("kind"_n, kind);
  draft.add_to(record);
  // The same in thousands of records, and fresh from the editor each time.
  for (const Name field : {"folder"_n, "asset"_n}) {
    py::object held = find(record, field);
    if (!held || !PyUnicode_CheckExact(held.ptr())) continue;
    PyObject *shared = held.release().ptr();
    PyUnicode_InternInPlace(&shared);
    record.set(field, own(shared));
  }
  // Texts and numbers make no cycle: the collector needn't go through a hundred thousand records.
  if (PyObject_GC_IsTracked(record.ptr())) PyObject_GC_UnTrack(record.ptr());
  return record;
}

py::dict _info(py::handle actor, py::handle aid, bool full, bool props) {
  Draft draft;
  py::object id = exists(aid) && truth(aid) ? to_py(aid) : str(path_of(actor));
  py::object kind = _kind(id, actor);
  read_info(draft, actor, kind, props);
  if (full && is_kind(kind, "mesh")) {
    if (py::dict phys = _phys_of(mesh_component_of(actor)); size(phys)) draft.set("phys"_n, phys);
  }
  return record_of(id, kind, draft);
}

py::list _info_assets(py::handle infos) {
  py::list paths;
  each(infos, [&](const py::object &info) {
    if (!is_kind(given_or(info, "kind"_n, nullptr), "skel")) append_asset(paths, info);
    if (py::object comps = given(info, "comps"_n)) {
      each(comps, [&](const py::object &component) { append_asset(paths, component); });
    }
  });
  return paths;
}

void bind_info(py::module_ &m) {
  def(m, "_info", &_info, py::arg("actor"), py::arg("aid") = py::none(), py::arg("full") = true,
      py::arg("props") = true);
  def(m, "_info_assets", &_info_assets, py::arg("infos"));
}

}  // namespace kestrix
