// Text actors: their text, size, alignment and colour.
//
// The record: "body" (text), "size" (world size, editor units, 3 decimals), "halign" ("left",
// "center", "right"), "valign" ("top", "center", "bottom", "quad_top"), "color" ([r, g, b, a], 0 to
// 255).
#pragma once

#include "link/host.h"
#include "mirror/draft.h"

namespace kestrix {

/// The actor's text component, or None.
py::object _text_comp(py::handle actor);

/// The word for an enum value: of the (word, part of the enum's name) pairs the first whose part
/// occurs in the value's text, or the first of all.
py::object _enum_key(py::handle v, py::handle keys);

/// Reads the text's record; nothing without a component.
void read_text(Draft &draft, py::handle actor);

/// The actor's text record; empty without a text component.
py::dict _text_props(py::handle actor);

/// Writes the fields that the record has; an unknown word aligns left or top, a colour of three
/// gets alpha 255. Opens no transaction.
void _apply_text(py::handle actor, py::handle p);

void bind_text_actors(py::module_ &m);

}  // namespace kestrix
