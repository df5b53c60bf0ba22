#include <simdjson.h>

#include <array>

#include "link/json.h"

namespace kestrix {

namespace {

namespace dom = simdjson::dom;

// Deeper lines go to the standard module, which knows the interpreter's own limit.
constexpr size_t MAX_DEPTH = 200;
// The parser's scratch memory is kept between lines up to this size, bytes.
constexpr size_t KEPT_CAPACITY = 4 << 20;
// An array or object reports at most this size.
constexpr size_t COUNTED = 0xFFFFFF;

/// Builds Python objects from a parsed line.
class Builder {
 public:
  py::object build(dom::element element) {
    switch (element.type()) {
      case dom::element_type::ARRAY:
        return list(dom::array(element));
      case dom::element_type::OBJECT:
        return map(dom::object(element));
      case dom::element_type::INT64:
        return own(PyLong_FromLongLong(int64_t(element)));
      case dom::element_type::UINT64:
        return own(PyLong_FromUnsignedLongLong(uint64_t(element)));
      case dom::element_type::DOUBLE:
        return own(PyFloat_FromDouble(double(element)));
      case dom::element_type::STRING:
        return to_py(std::string_view(element));
      case dom::element_type::BOOL:
        return py::bool_(bool(element));
      case dom::element_type::NULL_VALUE:
        break;
    }
    return py::none();
  }

 private:
  py::object list(dom::array array) {
    const size_t size = array.size();
    py::list items(size < COUNTED ? size : 0);
    Py_ssize_t at = 0;
    for (dom::element element : array) {
      py::object value = build(element);
      if (size < COUNTED) {
        PyList_SET_ITEM(items.ptr(), at++, value.release().ptr());
      } else {
        append(items, value);
      }
    }
    return items;
  }

  py::object map(dom::object object) {
    py::dict entries;
    for (const dom::key_value_pair entry : object) {
      check(PyDict_SetItem(entries.ptr(), key(entry.key).ptr(), build(entry.value).ptr()));
    }
    return entries;
  }

  /// A message has few distinct keys, so one string serves all of its uses.
  py::object key(std::string_view text) {
    size_t slot = text.size();
    for (const char c : text.substr(0, 4)) slot = slot * 31 + static_cast<unsigned char>(c);
    py::object &seen = keys_[slot % keys_.size()];
    if (!seen || view(seen) != text) seen = to_py(text);
    return seen;
  }

  std::array<py::object, 64> keys_;
};

/// The object, or null for a line that the fast parser doesn't take.
py::object decode_fast(std::string_view line) {
  static dom::parser parser;
  if (parser.max_depth() != MAX_DEPTH || parser.capacity() > KEPT_CAPACITY) {
    parser = dom::parser();
    if (parser.allocate(4096, MAX_DEPTH)) return {};
  }
  dom::element root;
  if (parser.parse(line.data(), line.size()).get(root)) return {};
  return Builder().build(root);
}

}  // namespace

py::object json_decode(std::string_view line) {
  if (py::object value = decode_fast(line)) return value;
  return call(module("json"_n), "loads"_n, to_py(line));
}

}  // namespace kestrix
