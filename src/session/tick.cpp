#include "session/tick.h"

#include "assets/edited_meshes.h"
#include "assets/export_queue.h"
#include "editor/brush.h"
#include "editor/frame_rate.h"
#include "editor/toolbar.h"
#include "lights_cameras/viewport_camera.h"
#include "link/host.h"
#include "materials/clean_up.h"
#include "mirror/drags.h"
#include "mirror/snapshot.h"
#include "mirror/walk.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Seconds between looks at what changes slowly.
constexpr double SLOW_INTERVAL = 0.25;
// Seconds between fast scans of the selection.
constexpr double FAST_INTERVAL = 1.0 / 45.0;
// Seconds for which the fast scan rests after a failure.
constexpr double FAILED_PAUSE = 0.25;
// A failure that repeats every tick is reported this often, then once per ERROR_REPEAT.
constexpr long long ERROR_REPORTS = 20;
constexpr long long ERROR_REPEAT = 500;

py::object frame_count() {
  return call(unreal("SystemLibrary"_n), "get_frame_count"_n);
}

void count_cost(double seconds) {
  const py::list before = S_list(key::cost);
  const bool fresh = before.size() != 3;
  py::list cost;
  append(cost, to_py((fresh ? 0.0 : real(nth(before, 0))) + seconds));
  append(cost, to_py((fresh ? 0 : integer(nth(before, 1))) + 1));
  append(cost, to_py(std::max(fresh ? 0.0 : real(nth(before, 2)), seconds)));
  set_S(key::cost, cost);
}

void report(const Failure &failure) {
  const long long n = S_int(key::errors) + 1;
  set_S(key::errors, n);
  set_S(key::last_error, failure.traceback());
  if (n < ERROR_REPORTS || n % ERROR_REPEAT == 0) {
    _warn("tick error #" + std::to_string(n) + ": " + failure.text());
  }
}

void end_of_peer() {
  set_S(key::conn, nullptr);
  _fps_forget_peer();
  set_S(key::asking, nullptr);
  _set_throttle(false);
  _log("Blender disconnected");
  _toolbar_update();
}

void slow_block(double now) {
  set_S(key::slow_t, now);
  set_S(key::pie, _in_pie());
  _toolbar_update();
  _brush_watch();
}

/// Tells the peer that Play begins or ends.
void tell_paused(bool pie) {
  set_S(key::paused, pie);
  _send(message("status")
            .set("paused"_n, pie)
            .set("msg"_n, pie ? "Unreal is playing (PIE) - link paused" : ""));
  // Play may have left anything behind: end the scan pass, so that the level is listed again.
  if (!pie) set_S(key::scan_i, S_list(key::scan_ids).size());
}

void send_moves() {
  py::dict moves = S_map(key::xf_out);
  if (!size(moves)) return;
  _send(message("xf").set("items"_n, pairs_of(moves)));
  set_S(key::xf_out, py::dict());
}

/// A peer that said hello while no level was open gets its snapshot when one is.
void catch_up_with_level() {
  if (S_flag(key::greeted) && !_world_name().empty()) _snapshot();
}

/// Follows the open level, as far as one is open: none is while a level loads.
void level_work(py::handle conn, double dt, double now, bool slow) {
  const std::string world = _world_name();
  if (world.empty()) {
    set_S(key::slow_t, 0.0);
    return;
  }
  if (world != view(S(key::world))) _snapshot();
  if (!truth(S(key::world))) return;  // Play has begun
  if (slow && S_flag(key::cam_send)) _cam_pick_pane();
  if (now - S_real(key::fast_t) >= FAST_INTERVAL) {
    // A selection on which the scan fails mustn't take every tick of a slow editor.
    set_S(key::fast_t, now + FAILED_PAUSE);
    _scan_fast();
    set_S(key::fast_t, now);
    if (S_flag(key::cam_send)) _cam_tick();
  }
  _scan_step(dt);
  _drag_settle(false);
  if (slow) _dirty_meshes_tick(now);
  if (truth(S(key::trash))) _trash_work(now);
  send_moves();
  if (S(key::conn).is(conn)) _export_tick(conn);
}

}  // namespace

void _tick(py::handle dt) {
  if (S_flag(key::in_tick) || _editor_busy()) return;
  attempt([] { set_S(key::step_frame, frame_count()); });
  _fps_sample(dt);
  set_S(key::in_tick, true);
  Finally done([] { set_S(key::in_tick, false); });
  const auto failure = failure_of([&] {
    const double begun = perf_counter();
    _step(real(dt));
    count_cost(perf_counter() - begun);
  });
  if (failure) attempt([&] { report(*failure); });
}

void _step(double dt) {
  if (S(key::server).is_none()) return;
  _accept();
  if (truth(S(key::cands))) _cands_tick();
  const py::object conn = S(key::conn);
  if (conn.is_none()) return;
  if (is_closed(conn)) return end_of_peer();
  const double now = perf_counter();
  const bool slow = now - S_real(key::slow_t) >= SLOW_INTERVAL;
  if (slow) slow_block(now);
  const bool pie = S_flag(key::pie);
  if (pie != S_flag(key::paused)) tell_paused(pie);
  const bool loading = truth(S(key::world)) && !pie && _world_name().empty();
  const auto still_peer = [&] { return S(key::conn).is(conn); };
  dispatch(_coalesce(read_from(conn)), conn, pie || loading || truth(S(key::pending)));
  if (!pie && !loading && still_peer() && truth(S(key::pending))) _replay_pending();
  if (!still_peer()) return;
  if (!pie && !truth(S(key::world))) catch_up_with_level();
  if (!pie && truth(S(key::world))) level_work(conn, dt, now, slow);
  flush(conn);
}

bool _editor_busy() {
  const auto asked = attempt(
      [] {
        py::object library = _foliage_lib();
        py::object busy = library.is_none() ? library : get_if(library, "is_editor_busy"_n);
        if (!exists(busy)) return std::optional<bool>();
        return std::optional<bool>(truth(invoke(busy)));
      },
      std::optional<bool>());
  if (asked) return *asked;
  return attempt([] { return equal(frame_count(), S(key::step_frame)); }, false);
}

void bind_tick(py::module_ &m) {
  m.attr("FAST_INTERVAL") = FAST_INTERVAL;
  def(m, "_tick", &_tick, py::arg("dt"));
  def(m, "_step", &_step, py::arg("dt"));
  def(m, "_editor_busy", &_editor_busy);
}

}  // namespace kestrix
