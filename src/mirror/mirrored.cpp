#include "mirror/mirrored.h"

#include "assets/catalogue.h"
#include "mirror/course.h"

namespace kestrix {

void _reset_scan_state() {
  S_map(key::assets);
  for (const StateKey key : {key::known, key::touched, key::kinds, key::scope, key::grass}) {
    set_S(key, py::dict());
  }
  for (const StateKey key : {key::scan_ids, key::pending}) set_S(key, py::list());
  for (const StateKey key : {key::paused, key::cam_send, key::sel_sync}) set_S(key, false);
  for (const StateKey key : {key::eq, key::cam_last, key::cam_probe, key::sel_last}) {
    set_S(key, nullptr);
  }
  drop_S(key::trash_pass);
  set_S(key::scan_i, 0);
  set_S(key::world, "");
  set_S(key::fast_t, 0.0);
  set_S(key::grass_noted, py::set());
  course() = Course();
}

void _remember(py::handle aid, py::handle a, py::handle inf) {
  // Nobody writes into a record that went out, so that the mirror may hold it itself.
  py::dict info = as_map(inf, "an actor's record");
  if (find(info, "comps"_n)) {
    info = copy_of(info);
    drop(info, "comps"_n);
  }
  put(S_map(key::known), aid, Record().set("actor"_n, a).set("info"_n, info));
}

py::object known_info(py::handle aid) {
  py::object entry = find(S_map(key::known), aid);
  return entry ? item(entry, "info"_n) : py::object();
}

void _send_assets(py::handle paths) {
  py::set wanted;
  each(paths, [&](const py::object &path) {
    if (truth(path)) add(wanted, path);
  });
  py::list sorted = list_of(wanted);
  check(PyList_Sort(sorted.ptr()));
  py::set sent = S_set(key::sent_assets);
  py::list entries;
  for (py::handle path : sorted) {
    if (!sent.contains(path)) append(entries, _asset_entry(path));
  }
  if (entries.empty()) return;
  _send(message("assets").set("items"_n, entries));
  // Marked only now: after a failure above the peer has heard of none of them. Of what couldn't be
  // measured it has a stand-in, until the asset is used again.
  for (py::handle entry : entries) {
    py::object path = item(entry, "path"_n);
    if (is_catalogued(path)) add(sent, path);
  }
}

void resend_asset(py::handle path) {
  check(PySet_Discard(S_set(key::sent_assets).ptr(), path.ptr()));
  py::list paths;
  append(paths, path);
  _send_assets(paths);
}

void bind_mirrored(py::module_ &m) {
  def(m, "_reset_scan_state", &_reset_scan_state);
  def(m, "_remember", &_remember, py::arg("aid"), py::arg("a"), py::arg("inf"));
  def(m, "_send_assets", &_send_assets, py::arg("paths"));
}

}  // namespace kestrix
