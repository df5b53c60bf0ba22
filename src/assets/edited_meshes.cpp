#include "assets/edited_meshes.h"

#include "assets/catalogue.h"
#include "link/rounding.h"
#include "link/wire.h"
#include "link/xf.h"
#include "mirror/actors.h"
#include "mirror/mirrored.h"

namespace kestrix {

namespace {

// Seconds between looks.
constexpr double LOOK_INTERVAL = 2.0;
// How many meshes a line in the log names.
constexpr size_t NAMED = 5;

py::set dirty_packages() {
  py::set names;
  const py::object packages =
      call(unreal("EditorLoadingAndSavingUtils"_n), "get_dirty_content_packages"_n);
  each(list_of(packages),
       [&](const py::object &package) { add(names, str(call(package, "get_name"_n))); });
  return names;
}

py::object vertex_count(py::handle sm) {
  constexpr const char *older = "get_number_verts is asked instead";
  if (!S_set(key::lacking).contains(to_py("get_num_vertices"_n))) {
    if (get_if(sm, "get_num_vertices"_n)) return call(sm, "get_num_vertices"_n, 0);
    note_lacking("get_num_vertices"_n, older);
  }
  return call(subsystem("StaticMeshEditorSubsystem"_n), "get_number_verts"_n, sm, 0);
}

/// What tells shapes apart, without looking at the geometry itself: bounds to 2 decimals, vertices,
/// triangles. None for what can't be measured.
py::object shape_signature(py::handle path) {
  return attempt(
      [&] {
        const py::object sm = invoke(unreal("load_asset"_n), path);
        const py::object box = call(sm, "get_bounding_box"_n);
        py::list values;
        for (const Name corner : {"min"_n, "max"_n}) {
          for (const double v : point_of(get(box, corner))) append(values, to_py(_r(v, 2)));
        }
        append(values, vertex_count(sm));
        append(values, call(sm, "get_num_triangles"_n, 0));
        return py::object(py::tuple(values));
      },
      py::object(py::none()));
}

/// The meshes that the peer has and that lie in unsaved packages, but for those that it or the link
/// has made.
py::list candidates(const py::set &dirty) {
  const py::set ours = S_set(key::ours);
  py::list paths;
  for (py::handle path : list_of(S_set(key::sent_assets))) {
    if (!PyUnicode_Check(path.ptr())) continue;
    const std::string name = text(path);
    if (dirty.contains(to_py(package_of(name))) && !is_ours(name) && !ours.contains(path)) {
      append(paths, path);
    }
  }
  return paths;
}

bool has_changed(py::handle path, const py::set &newly_dirty, py::handle signature) {
  if (newly_dirty.contains(to_py(package_of(text(path))))) return true;
  const py::object held = given(S_map(key::dirty_sig), path);
  return held && exists(signature) && !equal(held, signature);
}

void offer_again(const py::list &paths) {
  std::string names;
  for (size_t i = 0; i < paths.size(); ++i) {
    const std::string name = text(py::object(paths[i]));
    note_change(paths[i]);
    check(PySet_Discard(S_set(key::sent_assets).ptr(), py::object(paths[i]).ptr()));
    if (i < NAMED) {
      names += (i ? ", " : "") + std::string(short_name_of(name));
    }
  }
  if (paths.empty()) return;
  _log("edited in Unreal: " + names + " - sent to Blender again");
  _send_assets(paths);
}

}  // namespace

void _dirty_meshes_tick(double now) {
  if (now - S_real(key::dirty_t) < LOOK_INTERVAL || !truth(S(key::sent_assets))) return;
  set_S(key::dirty_t, now);
  py::set dirty;
  if (!attempt([&] { dirty = dirty_packages(); })) return;
  const auto newly = py::reinterpret_steal<py::set>(
      own(PyNumber_Subtract(dirty.ptr(), S_set(key::dirty_pk).ptr())).release());
  set_S(key::dirty_pk, dirty);
  py::list redo;
  for (py::handle path : candidates(dirty)) {
    const py::object signature = shape_signature(path);
    if (has_changed(path, newly, signature)) append(redo, path);
    put(S_map(key::dirty_sig), path, signature);
  }
  offer_again(redo);
}

void _on_reimport(py::handle obj) {
  attempt([&] {
    if (!is_a(obj, "StaticMesh"_n)) return;
    const py::object path = str(path_of(obj));
    note_change(path);
    if (live_conn() && S_set(key::sent_assets).contains(path)) resend_asset(path);
  });
}

void bind_edited_meshes(py::module_ &m) {
  def(m, "_dirty_meshes_tick", &_dirty_meshes_tick, py::arg("now"));
  def(m, "_on_reimport", &_on_reimport, py::arg("obj").none(true));
}

}  // namespace kestrix
