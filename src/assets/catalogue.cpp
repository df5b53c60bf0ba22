#include "assets/catalogue.h"

#include "assets/collision.h"
#include "link/files.h"
#include "link/host.h"
#include "link/xf.h"

namespace kestrix {

namespace {

constexpr std::array<std::uint8_t, 3> POINT_DECIMALS{3, 3, 3};

py::list rounded(Point point) {
  round_all(point, POINT_DECIMALS);
  return list_of_numbers(point);
}

/// Says once per asset that the peer gets a stand-in for it.
void warn_unmeasured(py::handle path, const Failure &failure) {
  py::set reported = S_set(key::bad_actors);
  if (reported.contains(path)) return;
  add(reported, path);
  _warn("could not measure " + text(path) + ": " + failure.text());
}

std::string content_key(const std::string &path, const std::string &stamp, const py::list &low,
                        const py::list &high) {
  const long long revision = integer(given_or(S_map(key::asset_rev), to_py(path), 0));
  const std::string content =
      path + "|" + stamp + "|" + text(low) + "|" + text(high) + "|" + std::to_string(revision);
  return short_digest(content);
}

}  // namespace

std::string short_digest(const std::string &content) {
  py::object digest = call(module("hashlib"_n), "md5"_n, py::bytes(content));
  return text(call(digest, "hexdigest"_n)).substr(0, 12);
}

std::string _package_file(std::string_view asset_path) {
  constexpr std::string_view game = "/Game/";
  if (!asset_path.starts_with(game)) return {};
  const std::string_view package = asset_path.substr(0, asset_path.find('.'));
  py::object paths = unreal("Paths"_n);
  py::object content =
      call(paths, "convert_relative_path_to_full"_n, call(paths, "project_content_dir"_n));
  return join_path(content, std::string(package.substr(game.size())) + ".uasset");
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
  py::list low = list_of_numbers(Point{-50, -50, 0});
  py::list high = list_of_numbers(Point{50, 50, 100});
  std::string key = "missing";
  py::dict coll;
  const auto failure = failure_of([&] {
    py::object mesh = invoke(unreal("load_asset"_n), path);
    if (mesh.is_none()) return;
    py::object box = call(mesh, "get_bounding_box"_n);
    py::list box_low = rounded(point_of(get(box, "min"_n)));
    high = rounded(point_of(get(box, "max"_n)));
    low = box_low;
    key = content_key(name, stamp, low, high);
    if (is_ours(name)) coll = _coll_of(mesh);
  });
  Record entry = Record()
                     .set("path"_n, path)
                     .set("bmin"_n, low)
                     .set("bmax"_n, high)
                     .set("key"_n, key)
                     .set("stamp"_n, stamp);
  if (size(coll)) entry.set("coll"_n, coll);
  if (failure) {
    drop(entries, path);  // of a former file
    warn_unmeasured(path, *failure);
  } else {
    put(entries, path, entry);
  }
  return entry;
}

void note_change(py::handle path) {
  const py::dict revisions = S_map(key::asset_rev);
  put(revisions, path, integer(given_or(revisions, path, 0)) + 1);
  drop(S_map(key::assets), path);
}

bool is_catalogued(py::handle path) {
  return static_cast<bool>(find(S_map(key::assets), path));
}

void bind_catalogue(py::module_ &m) {
  def(
      m, "_package_file",
      [](py::handle path) -> py::object {
        const std::string file = _package_file(text(path));
        return file.empty() ? py::none() : to_py(file);
      },
      py::arg("asset_path"));
  def(
      m, "_file_stamp", [](py::handle path) { return _file_stamp(text(path)); }, py::arg("path"));
  def(m, "_asset_entry", &_asset_entry, py::arg("path"));
}

}  // namespace kestrix
