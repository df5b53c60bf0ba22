#include "mirror/text_actors.h"

#include "link/table.h"

namespace kestrix {

namespace {

struct Alignment {
  const char *word;
  const char *part;    // of the enum member's name, by which it is recognised
  const char *member;  // the enum member that is set
};
constexpr std::array HALIGN{Alignment{"left", "LEFT", "EHTA_LEFT"},
                            Alignment{"center", "CENTER", "EHTA_CENTER"},
                            Alignment{"right", "RIGHT", "EHTA_RIGHT"}};
constexpr std::array VALIGN{Alignment{"top", "TEXT_TOP", "EVRTA_TEXT_TOP"},
                            Alignment{"center", "TEXT_CENTER", "EVRTA_TEXT_CENTER"},
                            Alignment{"bottom", "TEXT_BOTTOM", "EVRTA_TEXT_BOTTOM"},
                            Alignment{"quad_top", "QUAD_TOP", "EVRTA_QUAD_TOP"}};

template <size_t N>
py::tuple pairs(const std::array<Alignment, N> &table) {
  py::list out;
  for (const Alignment &row : table) append(out, py::make_tuple(row.word, row.part));
  return py::tuple(out);
}

/// The enum member for a word of the record.
template <size_t N>
py::object member(const std::array<Alignment, N> &table, Name enum_class, py::handle word) {
  return get(unreal(enum_class), to_py(row_or_first(table, text(word)).member));
}

py::object color_of(py::handle numbers) {
  const py::list channels = list_of(numbers);
  const auto channel = [&](size_t i) { return py::int_(py::object(channels[i])); };
  return unreal("Color"_n)(py::arg("r") = channel(0), py::arg("g") = channel(1),
                           py::arg("b") = channel(2),
                           py::arg("a") = channels.size() > 3 ? channel(3) : py::int_(255));
}

}  // namespace

py::object _text_comp(py::handle actor) {
  py::object component;
  if (attempt([&] { component = prop(actor, "text_render"_n); })) return component;
  return call(actor, "get_component_by_class"_n, unreal("TextRenderComponent"_n));
}

py::object _enum_key(py::handle v, py::handle keys) {
  py::object name = call(str(v), "upper"_n);
  for (py::handle pair : list_of(keys)) {
    if (check(PySequence_Contains(name.ptr(), nth(pair, 1).ptr()))) return nth(pair, 0);
  }
  return nth(nth(keys, 0), 0);
}

void read_text(Draft &draft, py::handle actor) {
  py::object component = _text_comp(actor);
  if (!exists(component)) return;
  py::object color = prop(component, "text_render_color"_n);
  py::list channels;
  for (const Name channel : {"r"_n, "g"_n, "b"_n, "a"_n}) {
    append(channels, py::int_(get(color, channel)));
  }
  draft.set("body"_n, str(prop(component, "text"_n)))
      .set("size"_n, real(prop(component, "world_size"_n)), 3)
      .set("halign"_n, _enum_key(prop(component, "horizontal_alignment"_n), pairs(HALIGN)))
      .set("valign"_n, _enum_key(prop(component, "vertical_alignment"_n), pairs(VALIGN)))
      .set("color"_n, channels);
}

py::dict _text_props(py::handle actor) {
  Draft draft;
  read_text(draft, actor);
  return draft.to_record();
}

void _apply_text(py::handle actor, py::handle p) {
  py::object component = _text_comp(actor);
  if (!exists(component)) return;
  call(component, "modify"_n);
  if (py::object body = given(p, "body"_n)) {
    call(component, "set_text"_n, invoke(unreal("Text"_n), body));
  }
  if (py::object size = given(p, "size"_n)) {
    call(component, "set_world_size"_n, in_float_range(real(size), "size"));
  }
  if (py::object word = given(p, "halign"_n); word && truth(word)) {
    call(component, "set_horizontal_alignment"_n, member(HALIGN, "HorizTextAligment"_n, word));
  }
  if (py::object word = given(p, "valign"_n); word && truth(word)) {
    call(component, "set_vertical_alignment"_n, member(VALIGN, "VerticalTextAligment"_n, word));
  }
  if (py::object color = given(p, "color"_n); color && truth(color)) {
    call(component, "set_text_render_color"_n, color_of(color));
  }
}

void bind_text_actors(py::module_ &m) {
  m.attr("_HALIGN") = pairs(HALIGN);
  m.attr("_VALIGN") = pairs(VALIGN);
  def(m, "_text_comp", &_text_comp, py::arg("actor"));
  def(m, "_enum_key", &_enum_key, py::arg("v"), py::arg("keys"));
  def(m, "_text_props", &_text_props, py::arg("actor"));
  def(m, "_apply_text", &_apply_text, py::arg("actor"), py::arg("p"));
}

}  // namespace kestrix
