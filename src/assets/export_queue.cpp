#include "assets/export_queue.h"

#include "assets/catalogue.h"
#include "assets/exporting.h"
#include "editor/user_activity.h"
#include "link/files.h"
#include "mirror/overrides.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds that a tick may spend here, and between the beginnings of two heavy exports.
constexpr double EXPORT_SLICE = 0.008;
constexpr double HEAVY_INTERVAL = 0.25;

py::object deque_class() {
  return get(module("collections"_n), "deque"_n);
}

bool is_queue(py::handle eq) {
  if (!PyDict_Check(eq.ptr())) return false;
  const auto has = [&](Name part, py::handle type) {
    const py::object found = find(eq, part);
    return found && is_a(found, type);
  };
  return has("geo"_n, deque_class()) && has("rest"_n, deque_class()) &&
         has("set"_n, reinterpret_cast<PyObject *>(&PySet_Type));
}

py::set waiting(const py::dict &eq) {
  return py::reinterpret_borrow<py::set>(item(eq, "set"_n));
}

py::object first_out(const py::dict &eq, Name part) {
  py::object pair = call(item(eq, part), "popleft"_n);
  check(PySet_Discard(waiting(eq).ptr(), pair.ptr()));
  return pair;
}

/// The next export, null if what waits has to wait on.
py::object next_export(double now) {
  const py::dict eq = _eq();
  if (truth(item(eq, "geo"_n))) return first_out(eq, "geo"_n);
  if (now - S_real(key::full_t) < HEAVY_INTERVAL || _user_in_unreal()) return {};
  set_S(key::full_t, now);
  return first_out(eq, "rest"_n);
}

bool is_empty() {
  const py::dict eq = _eq();
  return !truth(item(eq, "geo"_n)) && !truth(item(eq, "rest"_n));
}

void send_material(const std::string &path) {
  std::string file;
  const auto failure = failure_of([&] { file = _export_material(path); });
  Record answer = message("mat_file").set("path"_n, path).set("file"_n, file);
  if (failure) answer.set("error"_n, failure->text());
  _send(answer);
  if (failure) _warn(failure->text());
}

/// The same mesh as a GLB file, for the materials that an FBX file can't carry.
void add_material_file(Record &answer, const std::string &path) {
  const auto failure =
      failure_of([&] { answer.set("mat_file"_n, _export_asset(path, "full", true)); });
  if (failure) _warn("materials of " + path + ": " + failure->text());
}

Record mesh_file(const std::string &path, const std::string &phase) {
  const std::string file = _export_asset(path, phase);
  const py::object name = to_py(path);
  Record answer = message("mesh_file")
                      .set("asset"_n, path)
                      .set("file"_n, file)
                      .set("key"_n, item(_asset_entry(name), "key"_n))
                      .set("phase"_n, phase);
  const py::object sm = invoke(unreal("load_asset"_n), name);
  if (exists(sm)) answer.set("slot_mats"_n, _slot_mats(sm));
  if (phase != "geo" && extension_of(file) == ".fbx" && S_flag(key::ue_textures, true)) {
    add_material_file(answer, path);
  }
  return answer;
}

void send_mesh(const std::string &path, const std::string &phase) {
  const auto failure = failure_of([&] { _send(mesh_file(path, phase)); });
  if (!failure) return;
  _send(message("mesh_file")
            .set("asset"_n, path)
            .set("file"_n, "")
            .set("phase"_n, phase)
            .set("error"_n, failure->text()));
  _warn(failure->text());
}

}  // namespace

py::dict _eq() {
  py::object eq = S(key::eq);
  if (!is_queue(eq)) {
    eq = Record()
             .set("geo"_n, invoke(deque_class()))
             .set("rest"_n, invoke(deque_class()))
             .set("set"_n, py::set());
    set_S(key::eq, eq);
  }
  return as_map(eq, "the export queue");
}

void _eq_add(py::handle p, py::handle ph) {
  const py::dict eq = _eq();
  const py::tuple pair = py::make_tuple(p, ph);
  if (waiting(eq).contains(pair)) return;
  add(waiting(eq), pair);
  call(item(eq, equal(ph, to_py("geo")) ? "geo"_n : "rest"_n), "append"_n, pair);
}

void drop_full_exports() {
  const py::dict before = _eq();
  set_S(key::eq, nullptr);
  for (const Name part : {"geo"_n, "rest"_n}) {
    for (py::handle pair : list_of(item(before, part))) {
      if (!equal(nth(pair, 1), to_py("full"))) _eq_add(nth(pair, 0), nth(pair, 1));
    }
  }
}

void _export_tick(py::handle c) {
  if (is_empty() || has_output(c)) return;
  const double now = perf_counter();
  const double end = now + EXPORT_SLICE;
  while (!is_empty() && perf_counter() < end) {
    const py::object pair = next_export(now);
    if (!pair) return;
    const std::string path = text(nth(pair, 0));
    const std::string phase = text(nth(pair, 1));
    if (phase == "mat") return send_material(path);
    send_mesh(path, phase);
    // What an export made the editor do may have changed the peer.
    if (phase != "geo" || !S(key::conn).is(c)) return;
  }
}

void _h_need_mesh(const py::dict &m) {
  py::list phases;
  if (equal(S(key::ue_format), to_py("FBX"))) {
    append(phases, to_py("full"));
  } else if (!S_flag(key::ue_textures, true)) {
    append(phases, to_py("geo"));
  } else {
    if (!flag(m, "full"_n)) append(phases, to_py("geo"));
    append(phases, to_py("full"));
  }
  for (py::handle asset : texts_given(m, "assets"_n, "an asset's path")) {
    for (py::handle phase : phases) _eq_add(asset, phase);
  }
}

void _h_need_mat(const py::dict &m) {
  for (py::handle path : texts_given(m, "paths"_n, "a material's path")) {
    if (truth(path)) _eq_add(path, to_py("mat"));
  }
}

void bind_export_queue(py::module_ &m) {
  def(m, "_eq", &_eq);
  def(m, "_eq_add", &_eq_add, py::arg("p"), py::arg("ph"));
  def(m, "_export_tick", &_export_tick, py::arg("c"));
  bind_handler(m, "need_mesh", &_h_need_mesh, {.read_only = true});
  bind_handler(m, "need_mat", &_h_need_mat, {.read_only = true});
}

}  // namespace kestrix
