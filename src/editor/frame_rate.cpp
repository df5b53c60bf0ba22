#include "editor/frame_rate.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "editor/window_focus.h"
#include "link/wire.h"
#include "link/xf.h"
#include "python/clock.h"

namespace kestrix {

namespace {

// Frame times that a ring holds, and that a median needs.
constexpr int RING = 240;
constexpr size_t ENOUGH = 30;
// Every how many frames one is taken: asking for the window in front isn't free.
constexpr long long STRIDE = 4;
// A longer frame is a stall (a load, a dialog) and says nothing about the rate, seconds.
constexpr double LONGEST_FRAME = 0.5;
// Seconds between evaluations.
constexpr double INTERVAL = 2.0;
// Relative change that is worth a message.
constexpr double CHANGE = 0.05;
// Peers below this version don't know "ue_fps".
constexpr long long REPORT_VERSION = 7;

py::object new_ring() {
  return invoke(get(module("collections"_n), "deque"_n), py::tuple(), RING);
}

/// Whether the map is a sampler.
bool is_sampler(py::handle fps) {
  return attempt(
      [&] {
        py::object sent = item(fps, "sent"_n);
        py::object deque = get(module("collections"_n), "deque"_n);
        return is_a(item(fps, "fg"_n), deque) && is_a(item(fps, "all"_n), deque) &&
               std::isfinite(real(item(fps, "t"_n))) && integer(item(fps, "n"_n)) >= 0 &&
               (sent.is_none() || PyFloat_Check(sent.ptr()));
      },
      false);
}

/// The sampler, made on first use.
py::dict sampler() {
  py::object made = S(key::fps);
  if (made.is_none()) {
    made = Record()
               .set("fg"_n, new_ring())
               .set("all"_n, new_ring())
               .set("t"_n, 0.0)
               .set("sent"_n, nullptr)
               .set("n"_n, 0);
    set_S(key::fps, made);
  }
  return as_map(made, "the sampler");
}

/// The frame times that tell most: those with the editor in front, if there are enough; null if
/// there are too few of either.
py::object best_ring(const py::dict &fps) {
  for (const Name key : {"fg"_n, "all"_n}) {
    py::object ring = item(fps, key);
    if (py::len(ring) >= ENOUGH) return ring;
  }
  return {};
}

double median_of(py::handle ring) {
  std::vector<double> times;
  each(ring, [&](const py::object &time) { times.push_back(real(time)); });
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

/// Whether this rate is news to the connection.
bool is_news(const py::dict &fps, double rate, py::handle conn) {
  py::object sent = item(fps, "sent"_n);
  if (sent.is_none()) return true;
  py::object to = find(fps, "to"_n);
  return !to || !to.is(conn) || std::abs(rate - real(sent)) > CHANGE * real(sent);
}

void evaluate(const py::dict &fps) {
  py::object conn = live_conn();
  if (!conn || peer_version() < REPORT_VERSION) return;
  const double now = wall_clock();
  if (now - real(item(fps, "t"_n)) < INTERVAL) return;
  put(fps, "t"_n, now);
  py::object ring = best_ring(fps);
  if (!ring) return;
  const double rate = 1.0 / median_of(ring);
  if (!is_news(fps, rate, conn)) return;
  put(fps, "sent"_n, rate);
  put(fps, "to"_n, conn);
  _send(message("ue_fps").set("fps"_n, _r(rate, 1)));
}

void sample(py::handle dt) {
  const py::dict fps = sampler();
  if (!truth(dt)) return;
  const double seconds = real(dt);
  if (!(seconds > 0.0 && seconds <= LONGEST_FRAME)) return;
  const auto n =
      static_cast<long long>(static_cast<unsigned long long>(integer(item(fps, "n"_n))) + 1);
  put(fps, "n"_n, n);
  if (n % STRIDE == 0) {
    call(item(fps, _foreground() ? "fg"_n : "all"_n), "append"_n, seconds);
  }
  evaluate(fps);
}

}  // namespace

void _fps_sample(py::handle dt) {
  if (const auto failure = failure_of([&] { sample(dt); })) {
    attempt([&] {
      set_S(key::last_error, failure->traceback());
      drop_S(key::fps);  // made anew: whatever was in it
    });
  }
}

void _fps_forget_peer() {
  if (py::object fps = S(key::fps); !fps.is_none()) drop(fps, "to"_n);
}

void _fps_heal() {
  if (py::object fps = S(key::fps); !fps.is_none() && !is_sampler(fps)) drop_S(key::fps);
}

void bind_frame_rate(py::module_ &m) {
  def(m, "_fps_sample", &_fps_sample, py::arg("dt").none(true));
}

}  // namespace kestrix
