#include "link/cache.h"

#include "link/files.h"

namespace kestrix {

namespace {

bool is_word(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

/// Every character of UTF-8 text that `keep` refuses becomes one "_", whatever its length in bytes.
template <class Keep>
std::string underscored(std::string_view name, Keep keep) {
  std::string out;
  for (const char c : name) {
    if ((static_cast<unsigned char>(c) & 0xC0) == 0x80) continue;  // inside a character
    out += keep(c) ? c : '_';
  }
  return out;
}

std::string saved_folder() {
  return attempt(
      [] {
        py::object paths = unreal("Paths"_n);
        return text(
            call(paths, "convert_relative_path_to_full"_n, call(paths, "project_saved_dir"_n)));
      },
      std::string());
}

py::object work_out_root() {
  py::object path = get(module("os"_n), "path"_n);
  const std::string saved = saved_folder();
  if (!saved.empty()) {
    return call(path, "join"_n, call(path, "normpath"_n, saved), "Ondrel", "cache");
  }
  py::object home = call(get(module("os"_n), "environ"_n), "get"_n, "LOCALAPPDATA");
  if (!exists(home) || !truth(home)) home = call(path, "expanduser"_n, "~");
  const std::string project =
      underscored(_project_name(), [](char c) { return is_word(c) || c == '.' || c == '-'; });
  return call(path, "join"_n, home, "Hollim", "cache", project);
}

}  // namespace

std::string cache_root() {
  py::object remembered = get(this_module(), "_CACHE"_n);
  if (!truth(remembered)) call(remembered, "append"_n, work_out_root());
  return text(nth(remembered, 0));
}

std::string cache_dir() {
  const std::string root = cache_root();
  for (const char *folder : {"ue", "blender"}) make_folder(join_path(root, folder));
  return root;
}

std::string _safe(std::string_view name, int n) {
  std::string out = underscored(name, is_word);
  const size_t first = out.find_first_not_of('_');
  out = first == std::string::npos ? "Mesh"
                                   : out.substr(first, out.find_last_not_of('_') - first + 1);
  if (out[0] >= '0' && out[0] <= '9') out = "M_" + out;
  return out.substr(0, static_cast<size_t>(std::max(n, 0)));
}

void bind_cache(py::module_ &m) {
  m.attr("MAX_CACHE_NAME") = MAX_CACHE_NAME;
  m.attr("_CACHE") = py::list();
  def(m, "cache_dir", &cache_dir);
  def(
      m, "_safe", [](py::handle name, int n) { return _safe(text(name), n); }, py::arg("name"),
      py::arg("n") = MAX_CACHE_NAME);
}

}  // namespace kestrix
