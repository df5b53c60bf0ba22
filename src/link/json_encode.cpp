#include <array>
#include <charconv>
#include <cmath>

#include "link/json.h"
#include "python/errors.h"

namespace kestrix {

namespace {

constexpr char HEX[] = "0123456789abcdef";

void encode_value(std::string &out, py::handle value);

void append_unit(std::string &out, unsigned unit) {
  const char text[] = {
      '\\', 'u', HEX[unit >> 12 & 15], HEX[unit >> 8 & 15], HEX[unit >> 4 & 15], HEX[unit & 15]};
  out.append(text, sizeof text);
}

void append_escaped(std::string &out, Py_UCS4 c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\b':
      out += "\\b";
      return;
    default:
      break;
  }
  if (c >= ' ' && c <= '~') {
    out += static_cast<char>(c);
  } else if (c < 0x10000) {
    append_unit(out, c);
  } else {
    append_unit(out, 0xD800 + ((c - 0x10000) >> 10));
    append_unit(out, 0xDC00 + ((c - 0x10000) & 0x3FF));
  }
}

constexpr std::array<bool, 256> plain_characters() {
  std::array<bool, 256> plain{};
  for (int c = ' '; c <= '~'; ++c) plain[static_cast<size_t>(c)] = c != '"' && c != '\\';
  return plain;
}

void encode_str(std::string &out, py::handle text) {
  static constexpr std::array<bool, 256> PLAIN = plain_characters();
  check(PyUnicode_READY(text.ptr()));
  const Py_ssize_t length = PyUnicode_GET_LENGTH(text.ptr());
  out += '"';
  if (PyUnicode_IS_ASCII(text.ptr())) {
    const char *data = reinterpret_cast<const char *>(PyUnicode_1BYTE_DATA(text.ptr()));
    Py_ssize_t from = 0;
    for (Py_ssize_t at = 0; at < length; ++at) {
      if (PLAIN[static_cast<unsigned char>(data[at])]) continue;
      out.append(data + from, static_cast<size_t>(at - from));
      append_escaped(out, static_cast<unsigned char>(data[at]));
      from = at + 1;
    }
    out.append(data + from, static_cast<size_t>(length - from));
  } else {
    const int kind = PyUnicode_KIND(text.ptr());
    const void *data = PyUnicode_DATA(text.ptr());
    for (Py_ssize_t at = 0; at < length; ++at) append_escaped(out, PyUnicode_READ(kind, data, at));
  }
  out += '"';
}

/// repr(v): the shortest digits that read back as v; fixed from 1e-4 up to below 1e16.
void encode_float(std::string &out, double v) {
  if (!std::isfinite(v)) {
    out += std::isnan(v) ? "NaN" : v > 0 ? "Infinity" : "-Infinity";
    return;
  }
  char text[40];  // d.ddde±xx
  const char *const end =
      std::to_chars(text, text + sizeof text, v, std::chars_format::scientific).ptr;
  const char *at = text;
  if (*at == '-') {
    out += '-';
    ++at;
  }
  const char *mark = at;
  while (*mark != 'e') ++mark;
  char digits[24];
  size_t count = 0;
  for (; at != mark; ++at) {
    if (*at != '.') digits[count++] = *at;
  }
  int exponent = 0;
  std::from_chars(mark + (mark[1] == '+' ? 2 : 1), end, exponent);
  if (exponent < -4 || exponent >= 16) {
    out += digits[0];
    if (count > 1) out.append(1, '.').append(digits + 1, count - 1);
    out.append(mark, end);
  } else if (exponent < 0) {
    out.append("0.").append(static_cast<size_t>(-exponent - 1), '0').append(digits, count);
  } else {
    const size_t whole = static_cast<size_t>(exponent) + 1;
    if (count <= whole) {
      out.append(digits, count).append(whole - count, '0').append(".0");
    } else {
      out.append(digits, whole).append(1, '.').append(digits + whole, count - whole);
    }
  }
}

void encode_int(std::string &out, py::handle value) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (overflow) {
    out += view(own(PyLong_Type.tp_repr(value.ptr())));  // an enum's own repr isn't JSON
    return;
  }
  if (number == -1 && PyErr_Occurred()) throw py::error_already_set();
  char text[24];
  out.append(text, std::to_chars(text, text + sizeof text, number).ptr);
}

/// Whether the value was a number, a boolean or None, which are spelled alike as values and as
/// keys.
bool encode_scalar(std::string &out, py::handle value) {
  PyObject *const v = value.ptr();
  if (PyFloat_Check(v)) {
    encode_float(out, PyFloat_AS_DOUBLE(v));
  } else if (v == Py_None) {
    out += "null";
  } else if (v == Py_True) {
    out += "true";
  } else if (v == Py_False) {
    out += "false";
  } else if (PyLong_Check(v)) {
    encode_int(out, value);
  } else {
    return false;
  }
  return true;
}

void encode_key(std::string &out, py::handle key) {
  if (PyUnicode_Check(key.ptr())) {
    encode_str(out, key);
    return;
  }
  out += '"';
  if (!encode_scalar(out, key)) {
    fail_type("keys must be str, int, float, bool or None, not " +
              std::string(Py_TYPE(key.ptr())->tp_name));
  }
  out += '"';
}

void encode_sequence(std::string &out, py::handle value) {
  out += '[';
  for (Py_ssize_t at = 0; at < PySequence_Fast_GET_SIZE(value.ptr()); ++at) {
    if (at) out += ',';
    encode_value(out, PySequence_Fast_GET_ITEM(value.ptr(), at));
  }
  out += ']';
}

void encode_map(std::string &out, py::handle value) {
  out += '{';
  PyObject *key = nullptr;
  PyObject *entry = nullptr;
  bool first = true;
  for (Py_ssize_t at = 0; PyDict_Next(value.ptr(), &at, &key, &entry); first = false) {
    if (!first) out += ',';
    encode_key(out, key);
    out += ':';
    encode_value(out, entry);
  }
  out += '}';
}

void encode_value(std::string &out, py::handle value) {
  if (PyUnicode_Check(value.ptr())) return encode_str(out, value);
  if (encode_scalar(out, value)) return;
  const bool is_map = PyDict_Check(value.ptr());
  if (!is_map && !PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr())) {
    fail_type("Object of type " + std::string(Py_TYPE(value.ptr())->tp_name) +
              " is not JSON serializable");
  }
  // Not negative but 1 is its failure.
  if (Py_EnterRecursiveCall(" while encoding a JSON object")) throw py::error_already_set();
  Finally leave([] { Py_LeaveRecursiveCall(); });
  if (is_map) {
    encode_map(out, value);
  } else {
    encode_sequence(out, value);
  }
}

}  // namespace

void json_encode(std::string &out, py::handle value) {
  const size_t before = out.size();
  try {
    encode_value(out, value);
  } catch (...) {
    out.resize(before);
    throw;
  }
}

}  // namespace kestrix
