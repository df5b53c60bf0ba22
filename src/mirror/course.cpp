#include "mirror/course.h"

namespace kestrix {

namespace {

// So many actors may have gone at once, and the others are still found.
constexpr size_t NEAR = 256;

}  // namespace

Listed *Course::find(py::handle actor, size_t &at) {
  const size_t end = std::min(rows.size(), at + NEAR);
  for (size_t i = at; i < end; ++i) {
    if (!rows[i].actor.is(actor)) continue;
    at = i + 1;
    return &rows[i];
  }
  return nullptr;
}

Course &course() {
  static auto *const course = new Course;
  return *course;
}

}  // namespace kestrix
