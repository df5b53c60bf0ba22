#include "assets/catalogue.h"

#include "link/xf.h"

namespace kestrix {

namespace {

py::list rounded_point(py::handle vector) {
  py::list out;
  for (const Name axis : {"x"_n, "y"_n, "z"_n}) append(out, to_py(_r(real(vector, axis), 3)));
  return out;
}

py::list point(double x, double y, double z) {
  py::list out;
  for (const double v : {x, y, z}) append(out, to_py(v));
  return out;
}

std::string content_key(const std::string &path, const std::string &stamp, const py::list &low,
                        const py::list &high) {
  const long long revision = integer(given_or(S_map(key::asset_rev), to_py(path), 0));
  const std::string content =
      path + "|" + stamp + "|" + text(low) + "|" + text(high) + "|" + std::to_string(revision);
  py::object digest = call(module("hashlib"_n), "md5"_n, py::bytes(content));
  return text(call(digest, "hexdigest"_n)).substr(0, 12);
}

}  // namespace

std::string _package_file(std::string_view asset_path) {
  constexpr std::string_view game = "/Game/";
  if (!asset_path.starts_with(game)) return {};
  const std::string_view package = asset_path.substr(0, asset_path.find('.'));
  py::object paths = unreal("Paths"_n);
  py::object content =
      call(paths, "convert_relative_path_to_full"_n, call(paths, "project_content_dir"_n));
  return text(call(get(module("os"_n), "path"_n), "join"_n, content,
                   std::string(package.substr(game.size())) + ".uasset"));
}

std::string _file_stamp(std::string_view path) {
  const std::string file = _package_file(path);
  if (file.empty()) return "engine";
  return attempt(
      [&] {
        py::object status = call(module("os"_n), "stat"_n, file);
        return text(py::int_(get(status, "st_mtime"_n))) + "_" + text(get(status, "st_size"_n));
      },
      std::string("engine"));
}

py::dict _asset_entry(py::handle path) {
  const std::string name = text(path);
  const std::string stamp = _file_stamp(name);
  py::dict entries = S_map(key::assets);
  if (py::object cached = find(entries, path);
      cached && equal(item(cached, "stamp"_n), to_py(stamp))) {
    return as_map(cached, "an asset entry");
  }
  py::list low = point(-50, -50, 0);
  py::list high = point(50, 50, 100);
  std::string key = "missing";
  const auto failure = failure_of([&] {
    py::object mesh = invoke(unreal("load_asset"_n), path);
    if (mesh.is_none()) return;
    py::object box = call(mesh, "get_bounding_box"_n);
    py::list box_low = rounded_point(get(box, "min"_n));
    high = rounded_point(get(box, "max"_n));
    low = box_low;
    key = content_key(name, stamp, low, high);
  });
  py::dict entry = Record()
                       .set("path"_n, path)
                       .set("bmin"_n, low)
                       .set("bmax"_n, high)
                       .set("key"_n, key)
                       .set("stamp"_n, stamp);
  if (failure) return entry;  // not for good: the next caller tries again
  put(entries, path, entry);
  return entry;
}

void bind_catalogue(py::module_ &m) {
  m.def(
      "_package_file",
      [](py::handle path) -> py::object {
        const std::string file = _package_file(text(path));
        return file.empty() ? py::none() : to_py(file);
      },
      py::arg("asset_path"), "The asset's .uasset file, or None outside /Game/.");
  m.def(
      "_file_stamp", [](py::handle path) { return _file_stamp(text(path)); }, py::arg("path"),
      "Time and size of the asset's file, or 'engine'.");
  m.def("_asset_entry", &_asset_entry, py::arg("path"), "The catalogue's entry of an asset.");
}

}  // namespace kestrix
