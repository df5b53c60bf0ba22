// Lights: between the editor's colour, intensity and unit and a record that doesn't depend on them.
//
// The record: "type" ("sun", "spot", "rect", "point"), "color" (three numbers, linear light, 0 to
// 1), "shadows", "temp" (kelvin, 0.0 while the temperature is off). A sun has "lux" and "angle"
// (degrees); the others have "cd" (candela) and "radius" (attenuation, cm), then "src" (source
// radius, cm; point and spot), "inner" and "outer" (cone half angles in degrees; spot), "w" and "h"
// (cm; rect).
#pragma once

#include "link/host.h"
#include "mirror/draft.h"

namespace kestrix {

/// Linear light, 0.0 to 1.0, of an 8-bit sRGB channel: the sRGB transfer function of IEC 61966-2-1.
double _srgb_to_lin(double c);

/// Its inverse: the 8-bit channel, 0 to 255, of a linear light, which is clamped to 0.0 to 1.0.
int _lin_to_srgb8(double v);

/// The type word of a light actor.
std::string_view _light_type(py::handle actor);

/// Lumens per candela: the solid angle that the light fills, in steradians; pi for a rectangle,
/// whose intensity falls off with the cosine.
double _lm_per_cd(std::string_view lt, py::handle lc);

/// The emitter's area in square metres, by which nits and candela differ: a rectangle, a sphere, or
/// a capsule if the source has a length.
double _nits_area_m2(std::string_view lt, py::handle lc);

/// Candela of a value in one of the editor's LightUnits; any other unit counts as unitless, 625 per
/// candela. 0 EV is 1 candela; an EV is clamped to -60 to 60.
double _to_candela(std::string_view lt, py::handle lc, double value, py::handle units);

/// The inverse: candela as a value in that unit.
double _from_candela(std::string_view lt, py::handle lc, double cd, py::handle units);

/// Reads the light's record.
void read_light(Draft &draft, py::handle actor);

/// The light's record.
py::dict _light_props(py::handle actor);

/// Writes the fields that the record has and that fit the light. Opens no transaction. What raises
/// (the editor, a field that is no finite number) ends it where it stands.
void _apply_light(py::handle actor, py::handle p);

void bind_lights(py::module_ &m);

}  // namespace kestrix
