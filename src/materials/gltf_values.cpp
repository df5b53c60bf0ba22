#include "materials/gltf_values.h"

#include <cmath>
#include <vector>

namespace kestrix {

namespace {

// A value this near to the parent's is the parent's.
constexpr double SAME = 1e-8;

/// A glTF wrap mode and the number for it in the "_TilingMethod" parameters; REPEAT is 0.
struct Tiling {
  long long mode;
  double number;
};
constexpr Tiling TILINGS[] = {{33071, 1.0}, {33648, 2.0}};  // CLAMP_TO_EDGE, MIRRORED_REPEAT

/// One parameter of the parents: what of the file it takes, and what it is without.
struct Row {
  enum Kind { TEXTURE, SCALAR, COLOUR, OF_TEXTURE, HAS_TEXTURE };
  Kind kind;
  const char *parameter;
  const char *key = "";     // in the object that the group reads
  double read = 0.0;        // taken where the key is absent; a colour's in all channels
  double against = 0.0;     // the parent's
  int channels = 1;         // that the file gives of a colour
  const char *detail = "";  // OF_TEXTURE: the key in the texture's reference
  std::array<const char *, 3> textures{};  // HAS_TEXTURE: true if one of these is mapped
};

constexpr Row texture(const char *parameter, const char *key) {
  return {.kind = Row::TEXTURE, .parameter = parameter, .key = key};
}
constexpr Row scalar(const char *parameter, const char *key, double read, double against) {
  return {
      .kind = Row::SCALAR, .parameter = parameter, .key = key, .read = read, .against = against};
}
constexpr Row scalar(const char *parameter, const char *key, double read) {
  return scalar(parameter, key, read, read);
}
constexpr Row colour(const char *parameter, const char *key, int channels, double read) {
  return {
      .kind = Row::COLOUR, .parameter = parameter, .key = key, .read = read, .channels = channels};
}
constexpr Row of_texture(const char *parameter, const char *key, const char *detail) {
  return {.kind = Row::OF_TEXTURE,
          .parameter = parameter,
          .key = key,
          .read = 1.0,
          .against = 1.0,
          .detail = detail};
}
constexpr Row has_texture(const char *parameter, const char *a, const char *b = nullptr,
                          const char *c = nullptr) {
  return {.kind = Row::HAS_TEXTURE, .parameter = parameter, .textures = {a, b, c}};
}

// clang-format off
// Of the material itself or of its "pbrMetallicRoughness".
constexpr Row UNLIT[] = {
    texture("BaseColorTexture", "baseColorTexture"),
    has_texture("bHasBaseColorTexture", "BaseColorTexture"),
    colour("BaseColorFactor", "baseColorFactor", 4, 1.0),
};
constexpr Row NORMAL[] = {
    texture("NormalTexture", "normalTexture"),
    has_texture("bHasNormalTexture", "NormalTexture"),
    of_texture("NormalScale", "normalTexture", "scale"),
};
constexpr Row EMISSIVE[] = {
    texture("EmissiveTexture", "emissiveTexture"),
    has_texture("bHasEmissiveTexture", "EmissiveTexture"),
    colour("EmissiveFactor", "emissiveFactor", 3, 0.0),
};
constexpr Row OCCLUSION[] = {
    texture("OcclusionTexture", "occlusionTexture"),
    has_texture("bHasOcclusionTexture", "OcclusionTexture"),
    of_texture("OcclusionStrength", "occlusionTexture", "strength"),
};
constexpr Row METALLIC[] = {
    texture("BaseColorTexture", "baseColorTexture"),
    has_texture("bHasBaseColorTexture", "BaseColorTexture"),
    colour("BaseColorFactor", "baseColorFactor", 4, 1.0),
    texture("MetallicRoughnessTexture", "metallicRoughnessTexture"),
    has_texture("bHasMetallicRoughnessTexture", "MetallicRoughnessTexture"),
    scalar("MetallicFactor", "metallicFactor", 1.0),
    scalar("RoughnessFactor", "roughnessFactor", 1.0),
};

// Of an extension. Where a key that is absent and the parent differ, both are given.
constexpr Row EMISSIVE_STRENGTH[] = {
    scalar("EmissiveStrength", "emissiveStrength", 1.0),
};
constexpr Row SPECULAR_GLOSSINESS[] = {
    texture("DiffuseTexture", "diffuseTexture"),
    colour("DiffuseFactor", "diffuseFactor", 4, 1.0),
    texture("SpecularGlossinessTexture", "specularGlossinessTexture"),
    colour("SpecFactor", "specularFactor", 3, 1.0),
    scalar("GlossinessFactor", "glossinessFactor", 1.0),
    has_texture("bHasDiffuseSpecGlossTexture", "DiffuseTexture", "SpecularGlossinessTexture"),
};
constexpr Row SPECULAR[] = {
    texture("SpecularTexture", "specularTexture"),
    has_texture("bHasSpecularTexture", "SpecularTexture"),
    scalar("SpecularFactor", "specularFactor", 1.0, 0.5),
    texture("SpecularColorTexture", "specularColorTexture"),
    has_texture("bHasSpecularColorTexture", "SpecularColorTexture"),
    colour("SpecularColorFactor", "specularColorFactor", 3, 1.0),
};
constexpr Row IRIDESCENCE[] = {
    scalar("IridescenceIOR", "iridescenceIor", 1.3),
    texture("IridescenceTexture", "iridescenceTexture"),
    scalar("IridescenceFactor", "iridescenceFactor", 0.0),
    texture("IridescenceThicknessTexture", "iridescenceThicknessTexture"),
    scalar("IridescenceThicknessMinimum", "iridescenceThicknessMinimum", 100.0),
    scalar("IridescenceThicknessMaximum", "iridescenceThicknessMaximum", 400.0),
    has_texture("bHasIridescence", "IridescenceTexture"),
};
constexpr Row ANISOTROPY[] = {
    texture("AnisotropyTexture", "anisotropyTexture"),
    scalar("AnisotropyStrength", "anisotropyStrength", 0.0),
    scalar("AnisotropyRotation", "anisotropyRotation", 0.0),
};
constexpr Row IOR[] = {
    scalar("IOR", "ior", 1.0, 1.5),
};
constexpr Row VOLUME[] = {
    texture("ThicknessTexture", "thicknessTexture"),
    scalar("ThicknessFactor", "thicknessFactor", 0.0),
    scalar("AttenuationDistance", "attenuationDistance", 1.0, 10.0),
    colour("AttenuationColor", "attenuationColor", 3, 1.0),
    has_texture("bHasThicknessTexture", "ThicknessTexture"),
};
constexpr Row TRANSMISSION[] = {
    texture("TransmissionTexture", "transmissionTexture"),
    has_texture("bHasTransmissionTexture", "TransmissionTexture"),
    scalar("TransmissionFactor", "transmissionFactor", 0.0),
};
constexpr Row CLEAR_COAT[] = {
    texture("ClearCoatTexture", "clearcoatTexture"),
    scalar("ClearCoatFactor", "clearcoatFactor", 0.0),
    texture("ClearCoatRoughnessTexture", "clearcoatRoughnessTexture"),
    scalar("ClearCoatRoughnessFactor", "clearcoatRoughnessFactor", 0.0),
    texture("ClearCoatNormalTexture", "clearcoatNormalTexture"),
    of_texture("ClearCoatNormalScale", "clearcoatNormalTexture", "scale"),
    has_texture("bHasClearCoatTexture", "ClearCoatTexture", "ClearCoatRoughnessTexture",
                "ClearCoatNormalTexture"),
};
constexpr Row SHEEN[] = {
    texture("SheenColorTexture", "sheenColorTexture"),
    colour("SheenColorFactor", "sheenColorFactor", 3, 0.0),
    texture("SheenRoughnessTexture", "sheenRoughnessTexture"),
    scalar("SheenRoughnessFactor", "sheenRoughnessFactor", 0.0),
    has_texture("bHasSheenTexture", "SheenColorTexture", "SheenRoughnessTexture"),
};
// clang-format on

using Numbers = std::vector<double>;

double tiling_of(py::handle sampler, Name axis) {
  const py::object mode = given(sampler, axis);
  if (!mode) return 0.0;
  for (const Tiling &tiling : TILINGS) {
    if (equal(mode, to_py(tiling.mode))) return tiling.number;
  }
  return 0.0;
}

/// map[key], or the fallback without the key. As float() has it, but for NaN and what a 32-bit
/// float can't hold.
double number_at(py::handle map, py::handle key, double fallback) {
  const py::object value = find(map, key);
  return value ? in_float_range(real(value), text(key)) : fallback;
}

Numbers numbers_of(py::handle list) {
  Numbers values;
  each(list, [&](const py::object &value) {
    values.push_back(in_float_range(real(value), "a component"));
  });
  return values;
}

/// The two numbers of a texture's transform.
Numbers pair_at(py::handle transform, Name key, double fallback) {
  const py::object value = given(transform, key);
  if (!value || !truth(value)) return {fallback, fallback};
  Numbers pair = numbers_of(value);
  while (pair.size() > 2) pair.pop_back();
  return pair;
}

/// The parameters as they come together.
class Mapping {
 public:
  Mapping(py::handle js, bool has_texture_default)
      : textures_(list_at(js, "textures"_n)),
        samplers_(list_at(js, "samplers"_n)),
        has_texture_default_(has_texture_default) {}

  void scalar(const std::string &name, double value, double against) {
    if (std::abs(value - against) > SAME) put(scalars, to_py(name), value);
  }

  void vec(const std::string &name, Numbers value, const Numbers &against) {
    while (value.size() > against.size()) value.pop_back();
    const auto same = [](double a, double b) { return std::abs(a - b) <= SAME; };
    if (std::equal(value.begin(), value.end(), against.begin(), against.end(), same)) return;
    while (value.size() < 4) value.push_back(1.0);
    put(vectors, to_py(name), list_of_numbers(value));
  }

  void set_switch(const std::string &name, bool value, bool against = true) {
    if (value != against) put(switches, to_py(name), value);
  }

  void has_texture_switch(const std::string &name, bool value) {
    set_switch(name, value, has_texture_default_);
  }

  bool has(const char *texture) const { return textures.contains(to_py(texture)); }

  void tmap(const std::string &name, py::handle info) {
    const py::object index = reference_at(info, "index"_n);
    const py::object texture = index ? element(textures_, index) : index;
    if (!texture) return;
    put(textures, to_py(name), integer(index));
    scalar(name + "_TexCoord", number_at(info, "texCoord"_n, 0.0), 0.0);
    py::object sampler = element_at(samplers_, texture, "sampler"_n);
    if (!sampler) sampler = py::dict();
    vec(name + "_TilingMethod",
        {tiling_of(sampler, "wrapS"_n), tiling_of(sampler, "wrapT"_n), 0, 0}, {0, 0, 0, 0});
    const py::object transform = given(object_at(info, "extensions"_n), "KHR_texture_transform"_n);
    if (!transform) return;
    Numbers offset_scale = pair_at(transform, "offset"_n, 0.0);
    const Numbers scale = pair_at(transform, "scale"_n, 1.0);
    offset_scale.insert(offset_scale.end(), scale.begin(), scale.end());
    vec(name + "_OffsetScale", offset_scale, {0, 0, 1, 1});
    scalar(name + "_Rotation", number_at(transform, "rotation"_n, 0.0), 0.0);
  }

  void row(const Row &row, py::handle source) {
    const py::object key = to_py(row.key);
    switch (row.kind) {
      case Row::TEXTURE:
        return tmap(row.parameter, find(source, key));
      case Row::SCALAR:
        return scalar(row.parameter, number_at(source, key, row.read), row.against);
      case Row::COLOUR: {
        const Numbers parent(static_cast<size_t>(row.channels), row.read);
        const py::object value = find(source, key);
        return vec(row.parameter, value ? numbers_of(value) : parent, parent);
      }
      case Row::OF_TEXTURE: {
        const py::object value = reference_at(find(source, key), to_py(row.detail));
        const double number = value ? in_float_range(real(value), row.detail) : row.read;
        return scalar(row.parameter, number, row.against);
      }
      case Row::HAS_TEXTURE:
        return has_texture_switch(row.parameter,
                                  std::any_of(row.textures.begin(), row.textures.end(),
                                              [&](const char *name) { return name && has(name); }));
    }
  }

  /// A group's rows. TypeError if what they read is no object.
  void rows(std::span<const Row> group, py::handle source) {
    const py::dict object = as_map(source, "an object of a material");
    for (const Row &each_row : group) row(each_row, object);
  }

  py::dict scalars, vectors, textures, switches;

 private:
  py::list textures_, samplers_;
  bool has_texture_default_;
};

int alpha_of(py::handle gm) {
  const py::object mode = given(gm, "alphaMode"_n);
  if (!mode) return 0;
  return equal(mode, to_py("MASK")) ? 1 : equal(mode, to_py("BLEND")) ? 2 : 0;
}

/// What a material's extensions say of its shading; null for those that it hasn't.
struct Shading {
  explicit Shading(const py::dict &extensions)
      : unlit(extensions.contains("KHR_materials_unlit")),
        glossiness(given(extensions, "KHR_materials_pbrSpecularGlossiness"_n)),
        transmission(given(extensions, "KHR_materials_transmission"_n)),
        clear_coat(given(extensions, "KHR_materials_clearcoat"_n)),
        sheen(given(extensions, "KHR_materials_sheen"_n)) {}

  const char *word() const {
    return unlit          ? "Unlit"
           : glossiness   ? "SpecularGlossiness"
           : transmission ? "Transmission"
           : clear_coat   ? "ClearCoat"
           : sheen        ? "Sheen"
                          : "Default";
  }

  bool unlit;
  py::object glossiness, transmission, clear_coat, sheen;
};

std::string classic_parent(const Shading &shading, int alpha, bool two_sided) {
  constexpr std::array words{"Opaque", "Mask", "Blend"};
  const std::string word = shading.word();
  std::string name = "MI_" + word;
  if (word != "Transmission") name += std::string("_") + words[static_cast<size_t>(alpha)];
  if (two_sided) name += "_DS";
  std::string path = GLTF_PARENT_MI;
  for (int i = 0; i < 2; ++i) path.replace(path.find("%s"), 2, name);
  return path;
}

/// The rows of a lit material, group by group.
void map_lit(Mapping &to, const py::dict &gm, const py::dict &extensions, const Shading &shading,
             int alpha) {
  const py::dict pbr = object_at(gm, "pbrMetallicRoughness"_n);
  const auto optional = [&](Name extension, std::span<const Row> rows) {
    const py::object found = given(extensions, extension);
    if (found) to.rows(rows, found);
    return static_cast<bool>(found);
  };
  to.rows(NORMAL, gm);
  if (shading.transmission) {
    to.set_switch("bHasEmissiveTexture", false);
  } else {
    to.rows(EMISSIVE, gm);
    optional("KHR_materials_emissive_strength"_n, EMISSIVE_STRENGTH);
  }
  to.rows(OCCLUSION, gm);
  if (shading.glossiness) return to.rows(SPECULAR_GLOSSINESS, shading.glossiness);

  to.rows(METALLIC, pbr);
  if (!optional("KHR_materials_specular"_n, SPECULAR)) {
    to.set_switch("bHasSpecularTexture", false);
    to.set_switch("bHasSpecularColorTexture", false);
  }
  if (!optional("KHR_materials_iridescence"_n, IRIDESCENCE))
    to.set_switch("bHasIridescence", false);
  constexpr const char *turned = "bHasAnisotropyTextureAndOrRotation";
  if (optional("KHR_materials_anisotropy"_n, ANISOTROPY)) {
    const py::object anisotropy = item(extensions, "KHR_materials_anisotropy"_n);
    const bool rotated = number_at(anisotropy, "anisotropyRotation"_n, 0.0) != 0.0;
    to.has_texture_switch(turned, to.has("AnisotropyTexture") || rotated);
  } else {
    to.set_switch(turned, false);
  }
  if (const py::object ior = find(extensions, "KHR_materials_ior"_n)) to.rows(IOR, ior);
  optional("KHR_materials_volume"_n, VOLUME);
  if (shading.transmission) {
    to.rows(TRANSMISSION, shading.transmission);
    if (alpha != 2) put(to.scalars, "AlphaMode"_n, static_cast<double>(alpha));
  } else if (shading.clear_coat) {
    to.rows(CLEAR_COAT, shading.clear_coat);
  } else if (shading.sheen) {
    to.rows(SHEEN, shading.sheen);
  }
}

}  // namespace

py::dict object_at(py::handle map, py::handle key) {
  const py::object value = given(map, key);
  return value && truth(value) ? as_map(value, "an object of a glTF document") : py::dict();
}

py::list list_at(py::handle map, py::handle key) {
  const py::object value = given(map, key);
  return value ? as_list(value) : py::list();
}

py::object element(const py::list &list, py::handle i) {
  if (!PyLong_Check(i.ptr())) return {};
  const auto size = static_cast<long long>(list.size());
  int beyond = 0;
  const long long at = PyLong_AsLongLongAndOverflow(i.ptr(), &beyond);
  return !beyond && at >= 0 && at < size ? py::object(list[static_cast<size_t>(at)]) : py::object();
}

py::object element_at(const py::list &list, py::handle map, py::handle key) {
  const py::object i = find(map, key);
  return i ? element(list, i) : i;
}

py::object reference_at(py::handle info, py::handle key) {
  return info && PyDict_Check(info.ptr()) ? find(info, key) : py::object();
}

py::dict _gltf_values(py::handle gm, py::handle js, bool sub) {
  const py::dict material = as_map(gm, "a material");
  const py::dict extensions = object_at(material, "extensions"_n);
  const Shading shading(extensions);
  const int alpha = alpha_of(material);
  const bool two_sided = flag(material, "doubleSided"_n);
  const bool substrate = sub && !shading.unlit;

  // The has-texture switches' default goes by the project alone, for unlit materials too.
  Mapping to(js, !sub);
  py::object blend = py::none();
  if (substrate) {
    const bool clear = alpha != 0 || shading.transmission;
    blend = to_py(clear ? "BLEND_TRANSLUCENT_COLORED_TRANSMITTANCE" : "BLEND_OPAQUE");
    put(to.switches, "bHasDiffuseSpecGloss"_n, static_cast<bool>(shading.glossiness));
  }
  if (!shading.unlit && alpha == 1) {
    to.scalar("AlphaCutoff", number_at(material, "alphaCutoff"_n, 0.5), 0.0);
  }
  to.scalar("AlphaMode", alpha, 0.0);
  if (shading.unlit) {
    to.rows(UNLIT, object_at(material, "pbrMetallicRoughness"_n));
  } else {
    map_lit(to, material, extensions, shading, alpha);
  }
  return Record()
      .set("parent"_n,
           substrate ? GLTF_PARENT_SUBSTRATE : classic_parent(shading, alpha, two_sided))
      .set("blend"_n, blend)
      .set("two_sided"_n, substrate ? to_py(two_sided) : py::none())
      .set("scalars"_n, to.scalars)
      .set("vectors"_n, to.vectors)
      .set("textures"_n, to.textures)
      .set("switches"_n, to.switches);
}

void bind_gltf_values(py::module_ &m) {
  m.attr("GLTF_PARENT_SUBSTRATE") = GLTF_PARENT_SUBSTRATE;
  m.attr("GLTF_PARENT_MI") = GLTF_PARENT_MI;
  py::dict tilings;
  for (const Tiling &tiling : TILINGS) put(tilings, to_py(tiling.mode), tiling.number);
  m.attr("_GL_TILING") = tilings;
  def(m, "_gltf_values", &_gltf_values, py::arg("gm"), py::arg("js"), py::arg("sub"));
}

}  // namespace kestrix
