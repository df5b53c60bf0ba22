#include "mirror/course.h"

namespace kestrix {

namespace {

// Where an actor is looked for before all are indexed: a few have gone, or come.
constexpr size_t NEAR = 32;

}  // namespace

Listed *Course::find(py::handle actor, size_t &at) {
  const size_t end = std::min(rows.size(), at + NEAR);
  for (size_t i = at; i < end; ++i) {
    if (!rows[i].actor.is(actor)) continue;
    at = i + 1;
    return &rows[i];
  }
  if (index.empty()) {
    for (size_t i = 0; i < rows.size(); ++i) index.emplace(rows[i].actor.ptr(), i);
  }
  const auto found = index.find(actor.ptr());
  if (found == index.end() || !rows[found->second].actor.is(actor)) return nullptr;  // or taken
  at = found->second + 1;
  return &rows[found->second];
}

Course &course() {
  static auto *const course = new Course;
  return *course;
}

}  // namespace kestrix
