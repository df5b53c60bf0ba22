#include "editor/self_update.h"

namespace kestrix {

namespace {

py::object os_path() {
  return get(module("os"_n), "path"_n);
}

std::string module_folder() {
  py::object file = get_if(this_module(), "__file__"_n);
  if (!file || file.is_none()) return {};
  return text(call(os_path(), "dirname"_n, call(os_path(), "abspath"_n, file)));
}

}  // namespace

std::string _plugin_release() {
  return attempt(
      [] {
        py::object folder = get(this_module(), "_PLUGIN_DIR"_n);
        py::list names = list_of(call(module("os"_n), "listdir"_n, folder));
        check(PyList_Sort(names.ptr()));
        for (py::handle name : names) {
          if (!text(name).ends_with(".uplugin")) continue;
          py::object file = get(module("io"_n), "open"_n)(call(os_path(), "join"_n, folder, name),
                                                          py::arg("encoding") = "utf-8-sig");
          Finally done([&] { call(file, "close"_n); });
          py::object release = call(module("json"_n), "load"_n, file);
          return text(given_or(release, "VersionName"_n, ""));
        }
        return std::string();
      },
      std::string());
}

std::string _dev_install() {
  py::object path = os_path();
  const std::string folder = module_folder();
  if (truth(call(path, "isfile"_n, call(path, "join"_n, folder, "kestrix.py")))) {
    return "this is a development install (Python source) - update it from its repository";
  }
  py::object plugin = get(this_module(), "_PLUGIN_DIR"_n);
  py::object target = call(path, "realpath"_n, plugin);
  if (equal(call(path, "normcase"_n, target),
            call(path, "normcase"_n, call(path, "abspath"_n, plugin)))) {
    return {};
  }
  return "the plugin folder is a link to " + text(target) + " - update it there";
}

void bind_self_update(py::module_ &m) {
  // <plugin>/Content/Python/<this file>
  py::object folder = to_py(module_folder());
  for (int up = 0; up < 2; ++up) folder = call(os_path(), "dirname"_n, folder);
  m.attr("_PLUGIN_DIR") = folder;
  def(m, "_plugin_release", &_plugin_release);
  def(m, "_dev_install", &_dev_install);
}

}  // namespace kestrix
