#include "materials/file_textures.h"

#include "assets/content.h"
#include "link/cache.h"
#include "link/files.h"
#include "materials/gltf_values.h"

namespace kestrix {

namespace {

constexpr int TEXTURE_NAME = 64;

/// What a number in a sampler is called in the editor.
struct SamplerWord {
  long long number;
  const char *word;
};
constexpr SamplerWord FILTERS[] = {
    {9728, "TF_NEAREST"}, {9985, "TF_BILINEAR"}, {9987, "TF_TRILINEAR"}};
constexpr SamplerWord WRAPS[] = {{33071, "TA_CLAMP"}, {33648, "TA_MIRROR"}};

/// A texture's part in a material. `word`: +1 its numbers are colours, -1 they aren't, 0 says
/// nothing.
struct Role {
  enum Place { MATERIAL, PBR, SPECULAR, CLEAR_COAT, GLOSSINESS, TRANSMISSION, VOLUME };
  Place place;
  const char *key;
  int colours;
  bool normal = false;
};

// Later roles of a texture override earlier ones.
constexpr Role ROLES[] = {
    {Role::MATERIAL, "normalTexture", 0, true},
    {Role::CLEAR_COAT, "clearcoatNormalTexture", 0, true},
    {Role::PBR, "baseColorTexture", 1},
    {Role::GLOSSINESS, "diffuseTexture", 1},
    {Role::MATERIAL, "emissiveTexture", 1},
    {Role::SPECULAR, "specularColorTexture", 1},
    {Role::SPECULAR, "specularTexture", 1},
    {Role::PBR, "metallicRoughnessTexture", -1},
    {Role::MATERIAL, "occlusionTexture", -1},
    {Role::CLEAR_COAT, "clearcoatTexture", -1},
    {Role::CLEAR_COAT, "clearcoatRoughnessTexture", -1},
    {Role::TRANSMISSION, "transmissionTexture", -1},
    {Role::VOLUME, "thicknessTexture", 1},
};

py::dict object_of(Role::Place place, const py::dict &material) {
  const auto extension = [&](Name name) {
    return object_at(object_at(material, "extensions"_n), name);
  };
  switch (place) {
    case Role::PBR:
      return object_at(material, "pbrMetallicRoughness"_n);
    case Role::SPECULAR:
      return extension("KHR_materials_specular"_n);
    case Role::CLEAR_COAT:
      return extension("KHR_materials_clearcoat"_n);
    case Role::GLOSSINESS:
      return extension("KHR_materials_pbrSpecularGlossiness"_n);
    case Role::TRANSMISSION:
      return extension("KHR_materials_transmission"_n);
    case Role::VOLUME:
      return extension("KHR_materials_volume"_n);
    case Role::MATERIAL:
      break;
  }
  return material;
}

/// The member of an editor's enum for map[key].
template <size_t N>
py::object member_for(const SamplerWord (&words)[N], py::handle map, Name key, Name enum_class,
                      const char *otherwise) {
  const py::object number = given(map, key);
  const char *word = otherwise;
  for (const SamplerWord &row : words) {
    if (number && equal(number, to_py(row.number))) word = row.word;
  }
  return get(unreal(enum_class), to_py(word));
}

/// The file of an image, "" if it has none beside the document.
std::string file_of(py::handle image, const std::string &src_dir) {
  const py::object uri = PyDict_Check(image.ptr()) ? given(image, "uri"_n) : py::object();
  if (!uri || !PyUnicode_Check(uri.ptr()) || !truth(uri)) return {};
  if (text(uri).starts_with("data:")) return {};
  const std::string file = join_path(src_dir, call(module("urllib.parse"_n), "unquote"_n, uri));
  return truth(call(get(module("os"_n), "path"_n), "isfile"_n, file)) ? file : "";
}

std::string stem_of(const std::string &file) {
  return text(nth(call(get(module("os"_n), "path"_n), "splitext"_n, base_name(file)), 0));
}

std::string lowered(const std::string &name) {
  return text(call(to_py(name), "lower"_n));
}

/// What the image would be called if it were alone.
std::string plain_name(py::handle image, const std::string &file, const std::string &avoid) {
  const py::object given_name = given(image, "name"_n);
  const bool named = given_name && truth(given_name);
  const std::string name = _safe(named ? text(given_name) : stem_of(file), TEXTURE_NAME);
  return lowered(name) == lowered(avoid) ? name + "_Tex" : name;
}

/// The asset's name for copy number `copy` of one of the images: a number goes behind it where an
/// earlier image that is another file has the name, else each build would import one over the
/// other. The editor's names ignore case.
std::string asset_name(const py::list &images, py::handle wanted, const std::string &src_dir,
                       const std::string &avoid, int copy) {
  py::dict file_by_name;
  std::string found;
  for (py::handle image : images) {
    const std::string file = file_of(image, src_dir);
    if (file.empty()) continue;
    const std::string plain = plain_name(image, file, avoid);
    std::string name = plain;
    for (int n = 2;; ++n) {
      const py::object key = to_py(lowered(name));
      const py::object other = find(file_by_name, key);
      if (!other) put(file_by_name, key, file);
      if (!other || equal(other, to_py(file))) break;
      name = plain + "_" + std::to_string(n);
    }
    if (image.is(wanted)) found = name;
  }
  for (int n = 2; copy > 0; ++n) {
    const std::string name = found + "_" + std::to_string(n);
    if (file_by_name.contains(to_py(lowered(name)))) continue;
    if (--copy == 0) return name;
  }
  return found;
}

/// The MD5 of a file's content.
py::object content_digest(const std::string &file) {
  const py::object opened = call(module("io"_n), "open"_n, file, "rb");
  py::object digest;
  in_context(opened, [&] {
    digest = call(call(module("hashlib"_n), "file_digest"_n, opened, "md5"), "hexdigest"_n);
  });
  return digest;
}

py::dict settings_for(py::handle sampler, py::handle srgb, bool normal) {
  const py::object compression = unreal("TextureCompressionSettings"_n);
  Record wanted;
  wanted.set("flip_green_channel"_n, normal)
      .set("compression_settings"_n, get(compression, normal ? "TC_NORMALMAP"_n : "TC_DEFAULT"_n))
      .set("filter"_n, member_for(FILTERS, sampler, "minFilter"_n, "TextureFilter"_n, "TF_DEFAULT"))
      .set("address_x"_n, member_for(WRAPS, sampler, "wrapS"_n, "TextureAddress"_n, "TA_WRAP"))
      .set("address_y"_n, member_for(WRAPS, sampler, "wrapT"_n, "TextureAddress"_n, "TA_WRAP"));
  if (!srgb.is_none() || normal) wanted.set("srgb"_n, truth(srgb));
  return wanted;
}

/// Where a texture of a document comes from; no file where there is none to be had.
struct Source {
  Source(py::handle js, py::handle index, const std::string &src_dir)
      : images(list_at(js, "images"_n)), sampler(py::dict()) {
    const py::object texture = element(list_at(js, "textures"_n), index);
    if (!texture || !PyDict_Check(texture.ptr())) return;
    image = element_at(images, texture, "source"_n);
    if (image) file = file_of(image, src_dir);
    const py::object found = element_at(list_at(js, "samplers"_n), texture, "sampler"_n);
    if (found && PyDict_Check(found.ptr())) sampler = found;
  }
  py::list images;
  py::object image, sampler;
  std::string file;
};

/// Whether no setting of the one is another in the other.
bool go_together(py::handle a, const py::dict &b) {
  bool agree = true;
  each_entry(b, [&](const py::object &property, const py::object &value) {
    const py::object other = find(a, property);
    agree = agree && (!other || equal(other, value));
  });
  return agree;
}

}  // namespace

bool set_differing(py::handle object, const py::dict &wanted) {
  py::dict change;
  each_entry(wanted, [&](const py::object &property, const py::object &value) {
    if (!equal(call(object, "get_editor_property"_n, property), value)) {
      put(change, property, value);
    }
  });
  if (!size(change)) return false;
  call(object, "set_editor_properties"_n, change);
  return true;
}

py::dict _gltf_texture_roles(py::handle gm, py::handle used) {
  const py::dict material = as_map(gm, "a material");
  const py::list indices = list_of(used);
  call(indices, "sort"_n);
  py::dict roles;
  for (py::handle index : indices) put(roles, index, py::make_tuple(py::none(), false));
  for (const Role &role : ROLES) {
    const py::object info = find(object_of(role.place, material), to_py(role.key));
    const py::object index = reference_at(info, "index"_n);
    const py::object now = index && PyLong_Check(index.ptr()) ? find(roles, index) : py::object();
    if (!now) continue;
    const py::object srgb = role.colours ? to_py(role.colours > 0) : nth(now, 0);
    put(roles, index, py::make_tuple(srgb, role.normal || truth(nth(now, 1))));
  }
  return roles;
}

py::dict texture_copies(py::handle js, const py::dict &roles, const std::string &src_dir,
                        const std::string &avoid) {
  py::dict settings_by_name;  // of the asset -> the settings of each copy
  py::dict copies;
  each_entry(roles, [&](const py::object &index, const py::object &role) {
    const Source source(js, index, src_dir);
    if (source.file.empty()) return;
    const py::object key = to_py(asset_name(source.images, source.image, src_dir, avoid, 0));
    if (!find(settings_by_name, key)) put(settings_by_name, key, py::list());
    py::list all = as_list(item(settings_by_name, key));
    const py::dict wanted = settings_for(source.sampler, nth(role, 0), truth(nth(role, 1)));
    size_t copy = 0;
    while (copy < all.size() && !go_together(all[copy], wanted)) ++copy;
    if (copy == all.size()) append(all, py::dict());
    call(py::object(all[copy]), "update"_n, wanted);
    put(copies, index, copy);
  });
  return copies;
}

py::object _gltf_file_texture(py::handle js, py::handle idx, const std::string &src_dir,
                              const std::string &folder, py::handle srgb, bool normal,
                              const std::string &avoid, int copy) {
  const Source source(js, idx, src_dir);
  if (source.file.empty()) return py::none();
  const std::string name = asset_name(source.images, source.image, src_dir, avoid, copy);
  const std::string path = folder + "/" + name;
  const py::object digest = content_digest(source.file);
  const py::dict digests = S_map(key::tex_md5);

  py::object asset = asset_exists(path) ? load_asset(path) : py::none();
  const py::object before = find(digests, to_py(path));
  if (!is_a(asset, "Texture2D"_n) || !before || !equal(before, digest)) {
    import_asset(to_py(source.file), folder, name, true);
    asset = load_asset(path);
    if (!is_a(asset, "Texture2D"_n)) return py::none();
    put(digests, to_py(path), digest);
  }
  if (set_differing(asset, settings_for(source.sampler, srgb, normal))) save_asset(asset);
  return asset;
}

void bind_file_textures(py::module_ &m) {
  const auto words = [](auto &rows) {
    py::dict map;
    for (const SamplerWord &row : rows) put(map, to_py(row.number), row.word);
    return map;
  };
  m.attr("_GL_FILTER") = words(FILTERS);
  m.attr("_GL_WRAP") = words(WRAPS);
  def(m, "_gltf_texture_roles", &_gltf_texture_roles, py::arg("gm"), py::arg("used"));
  def(m, "_gltf_file_texture", &_gltf_file_texture, py::arg("js"), py::arg("idx"),
      py::arg("src_dir"), py::arg("folder"), py::arg("srgb").none(true), py::arg("normal"),
      py::arg("avoid"), py::arg("copy") = 0);
}

}  // namespace kestrix
