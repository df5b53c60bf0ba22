// The interpreter's clocks, looked up at each use so that a test can put its own in place.
#pragma once

#include "python/object.h"

namespace kestrix {

/// Monotonic seconds.
inline double perf_counter() {
  return real(call(module("time"_n), "perf_counter"_n));
}

/// Seconds since the epoch.
inline double wall_clock() {
  return real(call(module("time"_n), "time"_n));
}

}  // namespace kestrix
