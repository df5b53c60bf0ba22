#include "link/files.h"

namespace kestrix {

namespace {

py::object os_path() {
  return get(module("os"_n), "path"_n);
}

}  // namespace

bool is_filled(const std::string &file) {
  return attempt(
      [&] { return integer(get(call(module("os"_n), "stat"_n, file), "st_size"_n)) > 0; }, false);
}

std::string extension_of(const std::string &file) {
  return text(call(nth(call(os_path(), "splitext"_n, file), 1), "lower"_n));
}

std::string base_name(const std::string &file) {
  return text(call(os_path(), "basename"_n, file));
}

void make_folder(const std::string &folder) {
  get(module("os"_n), "makedirs"_n)(folder, py::arg("exist_ok") = true);
}

}  // namespace kestrix
