#include "editor/cache_pruning.h"

#include <cstdio>

#include "link/cache.h"
#include "python/clock.h"

namespace kestrix {

namespace {

struct Age {
  const char *folder;  // of the cache folder
  int days;
};
constexpr std::array PRUNE_DAYS{Age{"blender", 7}, Age{"import", 7}, Age{"ue", 30}};
constexpr double SECONDS_PER_DAY = 86400.0;

struct Removed {
  long long files = 0;
  long long bytes = 0;
};

/// Removes the file if it is older than that many seconds. One that is in use or has gone meanwhile
/// is left alone.
void prune_file(py::handle path, double now, double age, Removed &removed) {
  py::object os = module("os"_n);
  const auto failure = failure_of([&] {
    py::object status = call(os, "stat"_n, path);
    if (now - real(status, "st_mtime"_n) <= age) return;
    call(os, "remove"_n, path);
    ++removed.files;
    removed.bytes += integer(get(status, "st_size"_n));
  });
  if (failure && !failure->is(PyExc_OSError)) failure->raise();
}

}  // namespace

void _prune_cache() {
  const std::string root = cache_dir();
  const double now = wall_clock();
  Removed removed;
  py::object os = module("os"_n);
  py::object join = get(get(os, "path"_n), "join"_n);
  for (const Age &row : PRUNE_DAYS) {
    each(call(os, "walk"_n, invoke(join, root, row.folder)), [&](const py::object &visited) {
      py::object folder = nth(visited, 0);
      each(nth(visited, 2), [&](const py::object &name) {
        prune_file(invoke(join, folder, name), now, row.days * SECONDS_PER_DAY, removed);
      });
    });
  }
  if (!removed.files) return;
  char report[120];
  std::snprintf(report, sizeof report,
                "cache: removed %lld exchange files unused for a while (%.0f MB)", removed.files,
                static_cast<double>(removed.bytes) / 1e6);
  _log(report);
}

void bind_cache_pruning(py::module_ &m) {
  py::list rows;
  for (const Age &row : PRUNE_DAYS) append(rows, py::make_tuple(row.folder, row.days));
  m.attr("PRUNE_DAYS") = py::tuple(rows);
  def(m, "_prune_cache", &_prune_cache);
}

}  // namespace kestrix
