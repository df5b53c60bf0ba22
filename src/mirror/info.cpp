#include "mirror/info.h"

#include "lights_cameras/cameras.h"
#include "lights_cameras/lights.h"
#include "link/xf.h"
#include "mirror/overrides.h"
#include "mirror/text_actors.h"

namespace kestrix {

namespace {

py::object path_or_empty(py::handle asset) {
  return exists(asset) ? str(path_of(asset)) : to_py(""_n);
}

void add_mesh_fields(Record &info, py::handle actor) {
  py::object mesh = _mesh_of(actor);
  info.set("asset"_n, path_or_empty(mesh));
  if (mesh.is_none()) return;
  py::list rows = _overrides(mesh_component_of(actor), mesh);
  if (!rows.empty()) info.set("mats"_n, rows);
}

/// What the actor's kind adds to its record.
void add_kind_fields(Record &info, py::handle actor, std::string_view kind, bool props) {
  if (kind == "mesh") {
    add_mesh_fields(info, actor);
  } else if (kind == "skel") {
    info.set("asset"_n, path_or_empty(_skel_of(actor)));
  } else if (kind == "light") {
    if (props) info.set("light"_n, _light_props(actor));
  } else if (kind == "camera") {
    if (props) info.set("cam"_n, _camera_props(actor));
  } else if (kind == "text") {
    if (props) info.set("text"_n, _text_props(actor));
  } else if (kind == "group") {
    info.set("cls"_n, str(call(call(actor, "get_class"_n), "get_name"_n)));
  }
}

void append_asset(py::list &paths, py::handle record) {
  py::object asset = given(record, "asset"_n);
  if (asset && truth(asset)) append(paths, asset);
}

}  // namespace

py::dict _info(py::handle actor, py::handle aid, bool full, bool props) {
  py::object id = exists(aid) && truth(aid) ? to_py(aid) : str(path_of(actor));
  py::object kind = _kind(id, actor);
  Record info;
  info.set("id"_n, id)
      .set("kind"_n, kind)
      .set("label"_n, str(call(actor, "get_actor_label"_n)))
      .set("folder"_n, _folder_of(actor))
      .set("xf"_n, _xf_of(actor));
  py::list tags = _tags_of(actor);
  if (!tags.empty()) info.set("tags"_n, tags);
  if (!kind.is_none()) add_kind_fields(info, actor, view(kind), props);
  (void)full;
  return info;
}

py::list _info_assets(py::handle infos) {
  py::list paths;
  each(infos, [&](const py::object &info) {
    if (!is_kind(given_or(info, "kind"_n, nullptr), "skel")) append_asset(paths, info);
    each(given_or(info, "comps"_n, py::list()),
         [&](const py::object &component) { append_asset(paths, component); });
  });
  return paths;
}

void bind_info(py::module_ &m) {
  m.def("_info", &_info, py::arg("actor"), py::arg("aid") = py::none(), py::arg("full") = true,
        py::arg("props") = true, "The actor's info record.");
  m.def("_info_assets", &_info_assets, py::arg("infos"),
        "Paths of the static meshes that these records use, with repeats.");
}

}  // namespace kestrix
