#include "session/server.h"

#include <cstdio>
#include <vector>

#include "editor/cache_pruning.h"
#include "editor/frame_rate.h"
#include "editor/toolbar.h"
#include "lights_cameras/viewport_camera.h"
#include "link/cache.h"
#include "mirror/mirrored.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// How many ports start tries.
constexpr int PORTS = 6;
constexpr int LAST_PORT = 65535;
constexpr int BACKLOG = 2;
// Seconds in which a candidate has to say "hello".
constexpr double HELLO_TIME = 5.0;
// Peers below this version know no refusal.
constexpr long long REFUSAL_VERSION = 6;

/// A listening socket on that port, or null if it can't be had.
py::object listen_on(long long port) {
  py::object socket = module("socket"_n);
  py::object server =
      call(socket, "socket"_n, get(socket, "AF_INET"_n), get(socket, "SOCK_STREAM"_n));
  const bool bound = attempt([&] {
    // Windows lets a second editor share a port unless told not to. Elsewhere only the connections
    // of an ended run would keep the port, and reusing it is safe: a port with a listener stays
    // taken.
    py::object option = get_if(socket, "SO_EXCLUSIVEADDRUSE"_n);
    if (!option) option = get(socket, "SO_REUSEADDR"_n);
    call(server, "setsockopt"_n, get(socket, "SOL_SOCKET"_n), option, 1);
    call(server, "bind"_n, py::make_tuple(HOST, port));
    call(server, "listen"_n, BACKLOG);
    call(server, "setblocking"_n, false);
  });
  if (bound) return server;
  attempt([&] { call(server, "close"_n); });
  return {};
}

/// "127.0.0.1:51234"
std::string address_of(py::handle conn) {
  py::object addr = get(conn, "addr"_n);
  return text(nth(addr, 0)) + ":" + text(nth(addr, 1));
}

/// Whether the peer's process still holds its end; closes the connection if not. A peek tells,
/// where the end of the stream hasn't been read yet.
void close_if_dead(py::handle conn) {
  py::object data =
      try_call(get(conn, "sock"_n), "recv"_n, 1, get(module("socket"_n), "MSG_PEEK"_n));
  const bool alive = data ? truth(data) : would_block();
  if (!alive) call(conn, "close"_n);
}

/// The first "hello" among the messages, or null.
py::object hello_in(const py::list &msgs) {
  for (py::handle m : msgs) {
    if (PyDict_Check(m.ptr()) && type_of(m) == "hello") return to_py(m);
  }
  return {};
}

/// Whether the candidate with this "hello" replaces the current peer.
bool wins(py::handle hello) {
  if (py::object current = live_conn()) close_if_dead(current);
  if (!live_conn() || flag(hello, "takeover"_n)) return true;
  // With a version that it couldn't be greeted with, it doesn't cost the peer its place.
  return attempt([&] { return integer(given_or(hello, "version"_n, 1)) < REFUSAL_VERSION; }, false);
}

void refuse(py::handle conn) {
  send_to(
      conn,
      message("refused").set(
          "msg"_n, "Another Blender is linked to this Unreal editor - press Connect to take over"));
  flush(conn);
  call(conn, "close"_n);
  _log("refused a second Blender (" + address_of(conn) + "): another one is linked");
}

std::string cost_report() {
  py::list cost = S_list(key::cost);
  if (cost.size() != 3) return {};
  const double ticks = real(cost[1]);
  if (ticks == 0) return {};
  char report[120];
  std::snprintf(report, sizeof report, ", tick cost avg %.2f ms / worst %.1f ms over %.0f ticks",
                real(cost[0]) / ticks * 1e3, real(cost[2]) * 1e3, ticks);
  set_S(key::cost, list_of(py::make_tuple(0.0, 0, 0.0)));
  return report;
}

std::string unused_report() {
  py::list paths;
  for (py::handle path : list_of(S_set(key::unused))) {
    if (PyUnicode_Check(path.ptr()) &&
        truth(call(unreal("EditorAssetLibrary"_n), "does_asset_exist"_n, path))) {
      append(paths, path);
    }
  }
  if (paths.empty()) return {};
  check(PyList_Sort(paths.ptr()));
  return "\n  material assets no longer used (not deleted, AUTO_DELETE is off):\n    " +
         text(call(to_py("\n    "), "join"_n, paths));
}

/// A value of the state, null for none, which takes its place.
py::object taken(StateKey key) {
  py::object value = S(key);
  if (value.is_none()) return {};
  set_S(key, nullptr);
  return value;
}

/// Takes the entries that `fits` refuses out of a map.
template <class Fits>
void keep_fitting(const py::dict &map, Fits fits) {
  for (py::handle pair : pairs_of(map)) {
    if (!fits(nth(pair, 1))) drop(map, nth(pair, 0));
  }
}

/// Makes a state that anybody may have edited one that start() can go on from: also what it keeps
/// from run to run holds what it should.
void heal() {
  heal_state();
  keep_fitting(S_map(key::assets), [](py::handle entry) {
    return PyDict_CheckExact(entry.ptr()) && given(entry, "path"_n);
  });
  keep_fitting(S_map(key::asset_rev), [](py::handle revision) {
    return attempt([&] { return integer(revision) >= 0; }, false);
  });
  const py::list cost = S_list(key::cost);
  const bool counted = attempt(
      [&] { return real(cost[0]) >= 0 && integer(cost[1]) >= 0 && real(cost[2]) >= 0; }, false);
  if (!counted) drop_S(key::cost);
  _fps_heal();
  drop_S(key::land_box);
  drop_S(key::scan_quota);
  for (const StateKey key : {key::handle, key::server, key::conn}) set_S(key, nullptr);
}

/// A connection beside a live peer.
struct Candidate {
  py::object entry;  // of "cands"
  py::object conn;
  double since;  // seconds
};

/// The open connections in "cands", which is empty afterwards; what isn't one is left out.
std::vector<Candidate> take_candidates() {
  std::vector<Candidate> candidates;
  for (py::handle entry : list_of(S_list(key::cands))) {
    attempt([&] {
      Candidate one{to_py(entry), nth(entry, 0), real(nth(entry, 1))};
      if (!is_closed(one.conn)) candidates.push_back(std::move(one));
    });
  }
  set_S(key::cands, py::list());
  return candidates;
}

/// Binds _on_cam_moved to the editor's event, once in the interpreter's life.
void hook_camera() {
  if (S_flag(key::cam_hooked)) return;
  attempt([] {
    call(get(_les(), "on_editor_camera_moved"_n), "add_callable"_n,
         get(this_module(), "_on_cam_moved"_n));
    set_S(key::cam_hooked, true);
  });
}

/// Binds _on_reimport to the editor's event, once in the interpreter's life.
void hook_reimport() {
  if (S_flag(key::reimport_hooked)) return;
  attempt([] {
    call(get(subsystem("ImportSubsystem"_n), "on_asset_reimport"_n), "add_callable"_n,
         get(this_module(), "_on_reimport"_n));
    set_S(key::reimport_hooked, true);
  });
}

}  // namespace

py::object start(py::handle port) {
  const long long base = truth(port) ? integer(port) : PORT;
  if (base < 1 || base > LAST_PORT) fail("a port is a number from 1 to 65535", PyExc_ValueError);
  stop(true);
  heal();
  if (const auto failure = failure_of(&_prune_cache)) {
    _warn("cache cleanup: " + failure->text());
  }
  _reset_scan_state();
  set_S(key::xf_out, py::dict());
  set_S(key::sent_assets, py::set());
  set_S(key::in_tick, false);
  for (long long p = base; p < base + PORTS && S(key::server).is_none(); ++p) {
    py::object server = listen_on(p);
    if (!server) continue;
    set_S(key::server, server);
    set_S(key::port, p);
  }
  if (S(key::server).is_none()) {
    _warn("no free port in " + std::to_string(base) + ".." + std::to_string(base + PORTS - 1));
    _toolbar_update();
    return py::none();
  }
  try {
    set_S(key::handle,
          invoke(unreal("register_slate_post_tick_callback"_n), get(this_module(), "_tick"_n)));
  } catch (...) {
    stop(true);  // no listener that nobody serves
    throw;
  }
  _toolbar_update();
  hook_camera();
  hook_reimport();
  const std::string cache = attempt([] { return cache_dir(); }, std::string("can't be made"));
  _log("listening on " + std::string(HOST) + ":" + text(S(key::port)) + " (cache " + cache + ")");
  return S(key::port);
}

void stop(bool quiet) {
  attempt([] {
    if (py::object handle = taken(key::handle)) {
      invoke(unreal("unregister_slate_post_tick_callback"_n), handle);
    }
  });
  attempt([] {
    if (py::object conn = taken(key::conn)) {
      Finally done([] { _set_throttle(false); });
      _fps_forget_peer();
      call(conn, "close"_n);
    }
  });
  attempt([&] {
    if (py::object server = taken(key::server)) {
      attempt([&] { call(server, "close"_n); });
      if (quiet) return;
      _log("stopped");
      _toolbar_update();
    }
  });
}

std::string status() {
  std::string report = S(key::server).is_none() ? "stopped" : "listening on " + text(S(key::port));
  if (live_conn()) {
    report += ", Blender connected (" + std::to_string(size(S_map(key::known))) + " actors linked)";
  }
  if (S_flag(key::paused)) report += ", paused for PIE";
  report += cost_report();
  report += unused_report();
  _log(report);
  return report;
}

void _accept() {
  py::object accepted = try_call(S(key::server), "accept"_n);
  if (!accepted) {
    would_block();
    return;
  }
  py::object conn = invoke(get(this_module(), "_Conn"_n), nth(accepted, 0), nth(accepted, 1));
  if (!live_conn()) return _take(conn);
  py::list entry;
  append(entry, conn);
  append(entry, to_py(perf_counter()));
  py::list cands = S_list(key::cands);
  append(cands, entry);
}

void _cands_tick() {
  const std::vector<Candidate> candidates = take_candidates();
  for (size_t k = 0; k < candidates.size(); ++k) {
    const Candidate &one = candidates[k];
    const py::list msgs = read_from(one.conn);
    py::object hello = hello_in(msgs);
    if (!hello) {
      if (perf_counter() - one.since < HELLO_TIME) {
        py::list cands = S_list(key::cands);
        append(cands, one.entry);
      } else {
        call(one.conn, "close"_n);
      }
      continue;
    }
    if (!wins(hello)) {
      refuse(one.conn);
      continue;
    }
    // The others must see the end of their stream, before anything the winner says can fail.
    for (size_t later = k + 1; later < candidates.size(); ++later) {
      call(candidates[later].conn, "close"_n);
    }
    for (const Candidate &other : take_candidates()) call(other.conn, "close"_n);
    _take(one.conn);
    dispatch(msgs, one.conn, false);
    return;
  }
}

void _take(py::handle conn) {
  py::object old = taken(key::conn);
  if (old && !old.is(conn)) call(old, "close"_n);
  _reset_scan_state();
  _fps_forget_peer();
  drop_S(key::pending_world);  // of messages that went with the old peer
  drop_S(key::busy_what);      // the new one has been told nothing,
  drop_S(key::brush_seen);     // nor how the brush is set
  set_S(key::greeted, false);
  set_S(key::client_ready, false);
  set_S(key::xf_out, py::dict());
  set_S(key::sent_assets, py::set());
  set_S(key::conn, conn);  // last: one that was half taken isn't the peer
  _set_throttle(true);
  _log("Blender connected from " + address_of(conn));
}

void _set_throttle(bool connected) {
  const auto failure = failure_of([&] {
    py::object saved = S(key::throttle_saved);
    if (!connected && saved.is_none()) return;
    py::object settings = invoke(unreal("load_object"_n), nullptr,
                                 "/Script/UnrealEd.Default__EditorPerformanceSettings");
    if (connected) {
      if (saved.is_none())
        set_S(key::throttle_saved, prop(settings, "bThrottleCPUWhenNotForeground"_n));
      set_prop(settings, "bThrottleCPUWhenNotForeground"_n, false);
    } else {
      set_prop(settings, "bThrottleCPUWhenNotForeground"_n, saved);
      set_S(key::throttle_saved, nullptr);
    }
  });
  if (failure) _warn("throttle setting: " + failure->text());
}

void bind_server(py::module_ &m) {
  def(m, "start", &start, py::arg("port") = py::none());
  def(m, "stop", &stop, py::arg("quiet") = false);
  def(m, "status", &status);
  def(m, "_accept", &_accept);
  def(m, "_cands_tick", &_cands_tick);
  def(m, "_take", &_take, py::arg("conn"));
  def(m, "_set_throttle", &_set_throttle, py::arg("connected"));
}

}  // namespace kestrix
