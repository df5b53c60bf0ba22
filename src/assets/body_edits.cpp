#include "assets/body_edits.h"

#include "assets/catalogue.h"
#include "assets/collision.h"
#include "assets/physics.h"
#include "mirror/actors.h"
#include "mirror/mirrored.h"

namespace kestrix {

void _h_coll(const py::dict &m) {
  const std::string asset = text(given_or(m, "asset"_n, ""));
  if (!is_ours(asset)) return;
  const py::object sm = invoke(unreal("load_asset"_n), asset);
  if (!is_a(sm, "StaticMesh"_n)) return;
  py::object wanted = given_or(m, "coll"_n, py::dict());
  if (!truth(wanted)) wanted = collision_default();
  const py::dict got = _apply_collision(sm, as_map(wanted, "a collision record"));
  attempt([&] { call(unreal("EditorAssetLibrary"_n), "save_loaded_asset"_n, sm, false); });
  const py::object path = str(path_of(sm));
  if (py::object entry = find(S_map(key::assets), path)) {
    // The geometry is what it was, and so is its key, although the file is a new one.
    put(entry, "stamp"_n, _file_stamp(text(path)));
    put(entry, "coll"_n, got);
  }
  py::list entries;
  append(entries, _asset_entry(path));
  _send(message("assets").set("items"_n, entries));
  _invalidate_viewports();
}

void _h_phys(const py::dict &m) {
  const py::object aid = given_or(m, "id"_n, "");
  const py::object actor = _find_actor(aid);
  const py::object values = given(m, "phys"_n);
  if (actor.is_none() || !values || !PyDict_Check(values.ptr())) return;
  in_transaction("Verrin: physics " + text(label_of(actor)), [&] { _apply_phys(actor, values); });
  if (py::object info = known_info(aid)) {
    const bool is_mesh = is_a(actor, "StaticMeshActor"_n);
    put(info, "phys"_n, is_mesh ? _phys_of(prop(actor, "static_mesh_component"_n)) : py::dict());
  }
}

void bind_body_edits(py::module_ &m) {
  bind_handler(m, "coll", &_h_coll, {.latest = "asset", .busy = "fitting collision"});
  bind_handler(m, "phys", &_h_phys, {.in_level = true, .latest = "id"});
}

}  // namespace kestrix
