#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <vector>

#include "link/json.h"

namespace kestrix {

namespace {

// Deeper lines go to the standard module, which knows the interpreter's own limit.
constexpr size_t MAX_DEPTH = 200;

/// Builds Python objects from the parser's events. An event that returns false ends the parse.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  bool Null() { return add(Py_NewRef(Py_None)); }
  bool Bool(bool value) { return add(Py_NewRef(value ? Py_True : Py_False)); }
  bool RawNumber(const char *text, rapidjson::SizeType length, bool) {
    return add(number(text, text + length));
  }
  bool String(const char *text, rapidjson::SizeType length, bool) {
    return add(PyUnicode_DecodeUTF8(text, length, nullptr));
  }
  bool Key(const char *text, rapidjson::SizeType length, bool) {
    levels_.back().key = key(text, length);
    return static_cast<bool>(levels_.back().key);
  }
  bool StartObject() { return open(PyDict_New()); }
  bool StartArray() { return open(PyList_New(0)); }
  bool EndObject(rapidjson::SizeType) { return shut(); }
  bool EndArray(rapidjson::SizeType) { return shut(); }

  py::object result;

 private:
  struct Level {
    py::object container;
    py::object key;  // of the value that comes next, in a dict
  };

  /// A message has few distinct keys, so one string serves all of its uses.
  py::object key(const char *text, size_t length) {
    size_t slot = length;
    for (size_t i = 0; i < std::min<size_t>(length, 4); ++i) {
      slot = slot * 31 + static_cast<unsigned char>(text[i]);
    }
    py::object &seen = keys_[slot % keys_.size()];
    if (!seen || view(seen) != std::string_view(text, length)) {
      seen = py::reinterpret_steal<py::object>(
          PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(length), nullptr));
    }
    return seen;
  }

  static PyObject *number(const char *begin, const char *end) {
    const std::string_view text(begin, static_cast<size_t>(end - begin));
    if (text.find_first_of(".eE") == std::string_view::npos) {
      long long value = 0;
      const auto [stop, error] = std::from_chars(begin, end, value);
      return error == std::errc() && stop == end ? PyLong_FromLongLong(value) : nullptr;
    }
    double value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    return error == std::errc() && stop == end ? PyFloat_FromDouble(value) : nullptr;
  }

  bool add(PyObject *made) {
    if (!made) return false;
    py::object value = py::reinterpret_steal<py::object>(made);
    if (levels_.empty()) {
      result = std::move(value);
      return true;
    }
    Level &level = levels_.back();
    if (PyList_CheckExact(level.container.ptr())) {
      return PyList_Append(level.container.ptr(), value.ptr()) == 0;
    }
    return PyDict_SetItem(level.container.ptr(), level.key.ptr(), value.ptr()) == 0;
  }

  bool open(PyObject *container) {
    if (!container || levels_.size() >= MAX_DEPTH) {
      Py_XDECREF(container);
      return false;
    }
    levels_.push_back({py::reinterpret_steal<py::object>(container), {}});
    return true;
  }

  bool shut() {
    py::object container = std::move(levels_.back().container);
    levels_.pop_back();
    return add(container.release().ptr());
  }

  std::vector<Level> levels_;
  std::array<py::object, 64> keys_;
};

/// The object, or null for a line that the fast parser doesn't take.
py::object decode_fast(std::string_view line) {
  constexpr unsigned flags = rapidjson::kParseIterativeFlag |
                             rapidjson::kParseNumbersAsStringsFlag |
                             rapidjson::kParseValidateEncodingFlag;
  rapidjson::MemoryStream stream(line.data(), line.size());
  rapidjson::Reader reader;
  Builder builder;
  const bool parsed = !reader.Parse<flags>(stream, builder).IsError();
  PyErr_Clear();
  // The parser takes a null byte for the end of its input.
  return parsed && stream.Tell() == line.size() ? builder.result : py::object();
}

}  // namespace

py::object json_decode(std::string_view line) {
  if (py::object value = decode_fast(line)) return value;
  py::object text = to_py(line);
  return call(module("json"_n), "loads"_n, text);
}

}  // namespace kestrix
