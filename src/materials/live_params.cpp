#include "materials/live_params.h"

#include "assets/content.h"
#include "materials/file_textures.h"
#include "materials/instances.h"
#include "mirror/actors.h"

namespace kestrix {

namespace {

// What an import may change of a texture.
constexpr std::array KEPT_SETTINGS{&operator""_n<"srgb">, &operator""_n<"compression_settings">,
                                   &operator""_n<"flip_green_channel">, &operator""_n<"filter">,
                                   &operator""_n<"address_x">, &operator""_n<"address_y"> };

void replace_pixels(py::handle texture, const std::string &path, py::handle file) {
  const std::string package(package_of(path));
  const size_t cut = package.rfind('/');
  py::dict wanted;
  for (const auto setting : KEPT_SETTINGS) put(wanted, setting(), prop(texture, setting()));
  import_asset(file, package.substr(0, cut), package.substr(cut + 1), false);
  const py::object now = load_asset(path);
  // The next build compares with nothing and imports the material's own image.
  drop(S_map(key::tex_md5), to_py(package));
  put(wanted, "defer_compression"_n, true);
  set_differing(now, wanted);
}

}  // namespace

void _h_mat_params(const py::dict &m) {
  const py::object mi = load_asset(item(m, "path"_n));
  if (!is_a(mi, "MaterialInstanceConstant"_n)) return;
  const py::object library = material_library();
  const py::set scalars = parameter_names(mi, "get_scalar_parameter_names"_n);
  const py::set vectors = parameter_names(mi, "get_vector_parameter_names"_n);
  each_entry(as_map(given_or(m, "params"_n, py::dict()), "\"params\""),
             [&](const py::object &name, const py::object &value) {
               if (PyList_Check(value.ptr())) {
                 if (!vectors.contains(name)) return;
                 call(library, "set_material_instance_vector_parameter_value"_n, mi, name,
                      colour_of(value));
               } else if (scalars.contains(name)) {
                 call(library, "set_material_instance_scalar_parameter_value"_n, mi, name,
                      in_float_range(real(value), text(name)));
               }
             });
  call(library, "update_material_instance"_n, mi);
  _invalidate_viewports();
}

void _h_tex(const py::dict &m) {
  const py::object path = item(m, "path"_n);
  const auto failure = failure_of([&] {
    const py::object texture = load_asset(path);
    if (is_a(texture, "Texture2D"_n)) replace_pixels(texture, text(path), item(m, "file"_n));
  });
  _send(message("tex_done").set("path"_n, path));
  if (failure) failure->raise();
  _invalidate_viewports();
}

void _h_mat_known(const py::dict &m) {
  py::list known;
  each(given_or(m, "items"_n, py::list()), [&](const py::object &pair) {
    const py::object path = nth(pair, 1);
    if (exists(path) && truth(path) && asset_exists(std::string(package_of(text(path))))) {
      append(known, nth(pair, 0));
    }
  });
  _send(message("mat_known").set("ok"_n, known));
}

void bind_live_params(py::module_ &m) {
  bind_handler(m, "mat_params", &_h_mat_params, {.latest = "path", .merges = "params"});
  bind_handler(m, "tex", &_h_tex, {.latest = "path"});
  bind_handler(m, "mat_known", &_h_mat_known);
}

}  // namespace kestrix
