#include "materials/importer_repair.h"

#include "assets/content.h"
#include "assets/importing.h"
#include "link/cache.h"
#include "link/json.h"
#include "materials/build.h"
#include "materials/gltf_values.h"
#include "materials/instances.h"

namespace kestrix {

namespace {

constexpr int ASSET_NAME = 64;

/// Writes single parameters of those that the instance offers.
class Writer {
 public:
  explicit Writer(py::handle mi) : mi_(to_py(mi)) {
    for (const Name lister : {"get_scalar_parameter_names"_n, "get_vector_parameter_names"_n,
                              "get_texture_parameter_names"_n}) {
      call(have_, "update"_n, parameter_names(mi, lister));
    }
  }
  bool has(const std::string &name) const { return have_.contains(to_py(name)); }
  void scalar(const std::string &name, py::handle value) const {
    write("set_material_instance_scalar_parameter_value"_n, name,
          [&] { return to_py(in_float_range(real(value), name)); });
  }
  void vector(const std::string &name, py::handle value) const {
    write("set_material_instance_vector_parameter_value"_n, name, [&] { return colour_of(value); });
  }
  void texture(const std::string &name, py::handle value) const {
    write("set_material_instance_texture_parameter_value"_n, name, [&] { return to_py(value); });
  }

 private:
  template <class F>
  void write(Name setter, const std::string &name, F &&value) const {
    if (has(name)) call(material_library(), setter, mi_, name, value());
  }
  py::object mi_;
  py::set have_;
};

py::list numbers(std::initializer_list<double> values) {
  return list_of_numbers(std::vector<double>(values));
}

void write_factors(const Writer &to, const py::dict &gm) {
  const py::dict pbr = object_at(gm, "pbrMetallicRoughness"_n);
  const py::dict strength =
      object_at(object_at(gm, "extensions"_n), "KHR_materials_emissive_strength"_n);
  to.vector("BaseColorFactor", given_or(pbr, "baseColorFactor"_n, numbers({1, 1, 1, 1})));
  to.scalar("MetallicFactor", given_or(pbr, "metallicFactor"_n, 1.0));
  to.scalar("RoughnessFactor", given_or(pbr, "roughnessFactor"_n, 1.0));
  to.vector("EmissiveFactor", given_or(gm, "emissiveFactor"_n, numbers({0, 0, 0})));
  to.scalar("EmissiveStrength", given_or(strength, "emissiveStrength"_n, 1.0));
  if (find(gm, "normalTexture"_n)) {
    to.scalar("NormalScale", given_or(object_at(gm, "normalTexture"_n), "scale"_n, 1.0));
  }
}

/// Textures by the key of their name; the first of equal keys.
py::dict by_name(const py::list &texs) {
  py::dict found;
  for (py::handle texture : texs) {
    const py::object key = to_py(_mat_key(call(texture, "get_name"_n)));
    if (!find(found, key)) put(found, key, texture);
  }
  return found;
}

/// The document's material that the importer has made the instance of: by its name, else the first.
py::dict material_of(const py::list &materials, py::handle mi) {
  const std::string wanted = _mat_key(call(mi, "get_name"_n));
  for (py::handle material : materials) {
    const py::object name = given_or(as_map(material, "a material"), "name"_n, "");
    if (_mat_key(name) == wanted || _mat_key(to_py(_safe(text(name), ASSET_NAME))) == wanted) {
      return as_map(material, "a material");
    }
  }
  return as_map(py::object(materials[0]), "a material");
}

/// Whether another image of the document has the same name: then names don't tell which is which.
bool is_ambiguous(const py::list &images, py::handle image, const std::string &key) {
  return std::any_of(images.begin(), images.end(), [&](py::handle other) {
    return !other.is(image) && PyDict_Check(other.ptr()) &&
           _mat_key(given_or(other, "name"_n, "")) == key;
  });
}

/// The imported texture of an image, null if none has its name, or more than one image.
py::object texture_of(const py::dict &named, const py::list &images, py::handle image) {
  const py::object name = given_or(image, "name"_n, "");
  if (is_ambiguous(images, image, _mat_key(name))) return {};
  const py::object found = find(named, to_py(_mat_key(to_py(_safe(text(name), ASSET_NAME)))));
  return found ? found : find(named, to_py(_mat_key(name)));
}

void write_transform(const Writer &to, const std::string &parameter, const py::dict &info) {
  const py::dict transform = object_at(object_at(info, "extensions"_n), "KHR_texture_transform"_n);
  const py::object offset = given_or(transform, "offset"_n, numbers({0, 0}));
  const py::object scale = given_or(transform, "scale"_n, numbers({1, 1}));
  py::list four;
  for (const py::object &pair : {offset, scale}) {
    for (const Py_ssize_t i : {0, 1}) append(four, nth(pair, i));
  }
  to.vector(parameter + "_OffsetScale", four);
  to.scalar(parameter + "_Rotation", given_or(transform, "rotation"_n, 0.0));
  to.scalar(parameter + "_TexCoord",
            given_or(transform, "texCoord"_n, given_or(info, "texCoord"_n, 0)));
}

/// The five chief textures; gives the names of those that the file doesn't have.
py::list write_textures(const Writer &to, py::handle js, const py::dict &gm, const py::list &texs) {
  const py::dict pbr = object_at(gm, "pbrMetallicRoughness"_n);
  const py::dict named = by_name(texs);
  const py::list images = list_at(js, "images"_n);
  const py::list textures = list_at(js, "textures"_n);
  const std::array references{
      std::pair{"BaseColorTexture", given(pbr, "baseColorTexture"_n)},
      std::pair{"MetallicRoughnessTexture", given(pbr, "metallicRoughnessTexture"_n)},
      std::pair{"NormalTexture", given(gm, "normalTexture"_n)},
      std::pair{"EmissiveTexture", given(gm, "emissiveTexture"_n)},
      std::pair{"OcclusionTexture", given(gm, "occlusionTexture"_n)}};
  py::list cleared;
  for (const auto &[parameter, reference] : references) {
    if (!to.has(parameter)) continue;
    if (!reference || !truth(reference)) {
      append(cleared, to_py(parameter));
      continue;
    }
    const py::dict info = as_map(reference, "a reference to a texture");
    const py::object texture = element_at(textures, info, "index"_n);
    const py::object image = texture ? element_at(images, texture, "source"_n) : texture;
    if (!image) continue;
    if (const py::object found = texture_of(named, images, image)) to.texture(parameter, found);
    write_transform(to, parameter, info);
  }
  return cleared;
}

/// Alpha's parameters: those of the file are set, the others reverted.
void write_alpha(const Writer &to, py::handle mi, const py::dict &scalars) {
  py::list revert;
  for (const char *name : {"AlphaMode", "AlphaCutoff"}) {
    const py::object value = find(scalars, to_py(name));
    if (value) {
      to.scalar(name, value);
    } else if (to.has(name)) {
      append(revert, to_py(name));
    }
  }
  _revert_params(mi, py::tuple(), revert);
}

}  // namespace

py::object _glb_json(const std::string &path) {
  constexpr Py_ssize_t head_size = 20;
  const py::object opened = call(module("io"_n), "open"_n, path, "rb");
  py::object js = py::none();
  in_context(opened, [&] {
    const std::string head = py::bytes(call(opened, "read"_n, head_size));
    if (!head.starts_with("glTF")) return;
    if (head.size() < head_size) fail("a GLB file ends in its head", PyExc_ValueError);
    std::uint32_t length = 0;
    for (size_t i = 0; i < 4; ++i) {
      length |= static_cast<std::uint32_t>(static_cast<unsigned char>(head[12 + i])) << (8 * i);
    }
    js = json_decode(std::string(py::bytes(call(opened, "read"_n, length))));
  });
  return js;
}

void _apply_gltf_params(py::handle mi, const std::string &glb_path, const py::list &texs) {
  const py::object js = _glb_json(glb_path);
  if (js.is_none()) return;
  const py::list materials = list_at(js, "materials"_n);
  if (materials.empty()) return;
  const py::dict gm = material_of(materials, mi);
  const py::dict values = _gltf_values(gm, js, _substrate());
  const py::object parent = load_asset(item(values, "parent"_n));
  if (exists(parent) && !equal(prop(mi, "parent"_n), parent)) {
    call(material_library(), "set_material_instance_parent"_n, mi, parent);
  }
  const Writer to(mi);  // knows the parameters of the parent of now
  set_prop(mi, "base_property_overrides"_n, base_overrides(mi, values));
  write_alpha(to, mi, as_map(item(values, "scalars"_n), "parameters"));
  write_factors(to, gm);
  _revert_params(mi, write_textures(to, js, gm, texs), py::tuple());
  call(material_library(), "update_material_instance"_n, mi);
  save_asset(mi);
}

void bind_importer_repair(py::module_ &m) {
  def(m, "_glb_json", &_glb_json, py::arg("path"));
  def(m, "_apply_gltf_params", &_apply_gltf_params, py::arg("mi"), py::arg("glb_path"),
      py::arg("texs"));
}

}  // namespace kestrix
