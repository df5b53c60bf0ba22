#include "session/handshake.h"

#include "assets/export_queue.h"
#include "editor/self_update.h"
#include "editor/toolbar.h"
#include "link/cache.h"
#include "link/host.h"
#include "link/scope.h"
#include "mirror/snapshot.h"

namespace kestrix {

namespace {

/// The ids in "have", None if it isn't a list.
py::object have_of(py::handle m) {
  py::object have = given_or(m, "have"_n, nullptr);
  return PyList_Check(have.ptr()) ? have : py::none();
}

/// The peer's name for itself, "?" if it gives none.
py::object client_of(py::handle m) {
  py::object client = given_or(m, "client"_n, nullptr);
  return PyUnicode_Check(client.ptr()) ? client : to_py("?");
}

/// The peer's process id, None if it gives none.
py::object pid_of(py::handle m) {
  py::object pid = given_or(m, "pid"_n, nullptr);
  return PyLong_Check(pid.ptr()) ? pid : py::none();
}

}  // namespace

void _h_hello(const py::dict &m) {
  const long long version = integer(given_or(m, "version"_n, 1));
  py::object scope = given_or(m, "scope"_n, nullptr);
  if (PyDict_Check(scope.ptr())) set_S(key::scope, _parse_scope(scope));
  set_S(key::client, client_of(m));
  set_S(key::client_ver, version);
  set_S(key::client_ready, version < 2);
  set_S(key::client_have, have_of(m));
  set_S(key::greeted, true);
  set_S(key::client_pid, pid_of(m));
  set_S(key::asking, nullptr);
  _send(message("hello")
            .set("version"_n, VERSION)
            .set("project"_n, _project_name())
            .set("cache"_n, cache_dir())
            .set("link_root"_n, LINK_ROOT)
            .set("pid"_n, call(module("os"_n), "getpid"_n))
            .set("ov_slots"_n, true)
            .set("coll"_n, true)
            .set("expo"_n, true)
            .set("rel"_n, _plugin_release())
            .set("dev"_n, !_dev_install().empty()));
  _toolbar_update();
  _snapshot();
}

void _h_synced(const py::dict &) {
  set_S(key::client_ready, true);
}

void _h_resync(const py::dict &m) {
  set_S(key::client_have, have_of(m));
  _snapshot();
}

void _h_scope(const py::dict &m) {
  py::dict scope = _parse_scope(m);
  py::dict old = copy_of(S_map(key::scope));
  drop(old, "center"_n);
  if (equal(scope, old)) return;
  set_S(key::scope, scope);
  if (!truth(S(key::world)) || S_flag(key::paused)) return;
  if (!equal(_scope_core(scope), _scope_core(old))) _snapshot();
}

void _h_sel_mode(const py::dict &m) {
  set_S(key::sel_sync, flag(m, "on"_n));
  set_S(key::sel_last, nullptr);
}

void _h_opts(const py::dict &m) {
  py::object format = given_or(m, "ue_format"_n, "");
  if (equal(format, to_py("GLB")) || equal(format, to_py("FBX"))) set_S(key::ue_format, format);
  if (py::object textures = given(m, "ue_textures"_n)) {
    set_S(key::ue_textures, truth(textures));
    if (!truth(textures)) drop_full_exports();
  }
}

void bind_handshake(py::module_ &m) {
  bind_handler(m, "hello", &_h_hello);
  bind_handler(m, "synced", &_h_synced);
  bind_handler(m, "resync", &_h_resync);
  bind_handler(m, "scope", &_h_scope);
  bind_handler(m, "sel_mode", &_h_sel_mode);
  bind_handler(m, "opts", &_h_opts);
}

}  // namespace kestrix
