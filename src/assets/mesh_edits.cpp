#include "assets/mesh_edits.h"

#include "assets/importing.h"
#include "assets/overwriting.h"
#include "mirror/actors.h"
#include "mirror/mirrored.h"

namespace kestrix {

namespace {

py::object or_none(const py::dict &m, Name field) {
  return given_or(m, field, nullptr);
}

Record answer_to(const py::dict &m) {
  return message("mesh_done").set("req"_n, or_none(m, "req"_n));
}

/// The ids as they came, for the answer.
py::object ids_of(const py::dict &m) {
  return given_or(m, "ids"_n, py::list());
}

void show_on(py::handle aid, py::handle mesh) {
  const py::object actor = _find_actor(aid);
  if (actor.is_none() || equal(_mesh_of(actor), mesh)) return;
  call(actor, "modify"_n);
  call(get(actor, "static_mesh_component"_n), "set_static_mesh"_n, mesh);
  if (py::object info = known_info(aid)) put(info, "asset"_n, str(path_of(mesh)));
}

/// The entry first: the answer names an asset that the peer then knows.
void answer(const py::dict &m, py::handle mesh, bool overwrite) {
  const py::object path = str(path_of(mesh));
  resend_asset(path);
  Record done = answer_to(m).set("asset"_n, path).set("ids"_n, ids_of(m));
  if (overwrite) done.set("overwrite"_n, true);
  _send(done);
  _invalidate_viewports();
}

}  // namespace

void _h_mesh_now(const py::dict &m) {
  const py::object asset = or_none(m, "asset"_n);
  if (flag(m, "overwrite"_n) && truth(asset)) {
    return answer(m, _overwrite_asset(item(m, "file"_n), asset), true);
  }
  const py::list ids = texts_given(m, "ids"_n, "an actor's id");
  const py::object name = given_or(m, "name"_n, "");
  const py::object mesh =
      _import_file(item(m, "file"_n), truth(name) ? name : to_py("Mesh"), asset,
                   or_none(m, "mat_src"_n), or_none(m, "slot_mats"_n), or_none(m, "coll"_n));
  in_transaction("Verrin: mesh " + text(name), [&] {
    for (py::handle aid : ids) show_on(aid, mesh);
  });
  answer(m, mesh, false);
}

void _h_mesh(const py::dict &m) {
  const auto failure = failure_of([&] { _h_mesh_now(m); });
  if (!failure) return;
  _send(answer_to(m).set("error"_n, failure->text()).set("ids"_n, ids_of(m)));
  failure->raise();
}

void bind_mesh_edits(py::module_ &m) {
  bind_handler(m, "mesh", &_h_mesh, {.busy = "importing a mesh"});
  def(m, "_h_mesh_now", &_h_mesh_now, py::arg("m"));
}

}  // namespace kestrix
