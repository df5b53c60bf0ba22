// JSON between Python objects and bytes: what the standard json module gives, faster.
#pragma once

#include <string>

#include "python/object.h"

namespace kestrix {

/// Appends the JSON text of `value` to `out`, byte for byte what json.dumps(value, separators=(",",
/// ":")) gives: ASCII only, floats as repr spells them, NaN and Infinity allowed. Dicts, lists,
/// tuples, strings, numbers, booleans and None; TypeError for anything else, RecursionError where
/// json would find a circular reference. After an error `out` is as it was.
void json_encode(std::string &out, py::handle value);

/// The object that one line of UTF-8 JSON holds, as json.loads gives it. What the fast parser
/// refuses is given to the standard module, whose verdict and error text hold.
py::object json_decode(std::string_view line);

}  // namespace kestrix
