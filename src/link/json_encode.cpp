#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "link/json.h"
#include "python/errors.h"

namespace kestrix {

namespace {

constexpr char HEX[] = "0123456789abcdef";

/// Gathers small pieces and hands them to the string in large ones.
class Writer {
 public:
  explicit Writer(std::string &out) : out_(out) {}
  ~Writer() { out_.append(stage_, used_); }
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;

  /// Room for n bytes (at most the stage's size), which took() then makes part of the text.
  char *room(size_t n) {
    if (used_ + n > sizeof stage_) {
      out_.append(stage_, used_);
      used_ = 0;
    }
    return stage_ + used_;
  }
  void took(const char *end) { used_ = static_cast<size_t>(end - stage_); }
  void add(char c) {
    *room(1) = c;
    ++used_;
  }
  void add(std::string_view text) {
    char *at = room(text.size());
    took(std::copy(text.begin(), text.end(), at));
  }

 private:
  std::string &out_;
  char stage_[4096];
  size_t used_ = 0;
};

void encode_value(Writer &out, py::handle value);

char *put_unit(char *at, unsigned unit) {
  const char text[] = {
      '\\', 'u', HEX[unit >> 12 & 15], HEX[unit >> 8 & 15], HEX[unit >> 4 & 15], HEX[unit & 15]};
  return std::copy(std::begin(text), std::end(text), at);
}

/// Writes one character, at most 12 bytes; gives where it ends.
char *put_character(char *at, Py_UCS4 c) {
  constexpr std::string_view special = "\"\\\n\r\t\f\b";
  constexpr std::string_view letters = "\"\\nrtfb";
  if (c < 0x80) {
    const size_t found = special.find(static_cast<char>(c));
    if (found != std::string_view::npos) {
      *at++ = '\\';
      *at++ = letters[found];
      return at;
    }
  }
  if (c >= ' ' && c <= '~') {
    *at++ = static_cast<char>(c);
    return at;
  }
  if (c < 0x10000) return put_unit(at, c);
  return put_unit(put_unit(at, 0xD800 + ((c - 0x10000) >> 10)), 0xDC00 + ((c - 0x10000) & 0x3FF));
}

/// Whether eight ASCII characters all stand for themselves: none is a control character, a
/// quotation mark, a backslash or DEL. Looks at all eight at once; a zero byte after the XOR is a
/// hit, shown by its high bit.
bool all_plain(const char *text) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t highs = 0x8080808080808080;
  std::uint64_t word = 0;
  std::memcpy(&word, text, sizeof word);
  const auto hits = [&](unsigned char c) { return (word ^ ones * c) - ones; };
  return (((word - ones * ' ') | hits('"') | hits('\\') | hits(0x7F)) & highs) == 0;
}

void encode_ascii(Writer &out, const char *text, size_t length) {
  size_t at = 0;
  while (at < length) {
    if (length - at >= 8 && all_plain(text + at)) {
      char *room = out.room(8);
      std::memcpy(room, text + at, 8);
      out.took(room + 8);
      at += 8;
    } else {
      out.took(put_character(out.room(12), static_cast<unsigned char>(text[at++])));
    }
  }
}

void encode_str(Writer &out, py::handle text) {
  if (PyUnicode_READY(text.ptr()) < 0) throw py::error_already_set();
  const Py_ssize_t length = PyUnicode_GET_LENGTH(text.ptr());
  out.add('"');
  if (PyUnicode_IS_ASCII(text.ptr())) {
    encode_ascii(out, reinterpret_cast<const char *>(PyUnicode_1BYTE_DATA(text.ptr())),
                 static_cast<size_t>(length));
  } else {
    const int kind = PyUnicode_KIND(text.ptr());
    const void *data = PyUnicode_DATA(text.ptr());
    for (Py_ssize_t at = 0; at < length; ++at) {
      out.took(put_character(out.room(12), PyUnicode_READ(kind, data, at)));
    }
  }
  out.add('"');
}

/// Writes a number of at most six decimals below a billion, which nearly all are; false for others.
/// Its decimal has at most 15 digits, so no other one as short reads back as the same double: it is
/// what repr gives.
bool encode_short_decimal(Writer &out, double v) {
  const double size = std::abs(v);
  if (!(size < 1e9) || (size < 1e-4 && size != 0.0)) return false;
  const auto millionths = static_cast<std::uint64_t>(size * 1e6 + 0.5);
  if (static_cast<double>(millionths) / 1e6 != size) return false;
  char *at = out.room(24);
  if (std::signbit(v)) *at++ = '-';
  at = std::to_chars(at, at + 12, millionths / 1000000).ptr;
  *at++ = '.';
  auto rest = static_cast<unsigned>(millionths % 1000000);
  for (unsigned place = 100000; place && (rest || place == 100000); place /= 10) {
    *at++ = static_cast<char>('0' + rest / place);
    rest %= place;
  }
  out.took(at);
  return true;
}

/// repr(v): the shortest digits that read back as v; fixed from 1e-4 up to below 1e16.
void encode_float(Writer &out, double v) {
  if (encode_short_decimal(out, v)) return;
  if (!std::isfinite(v)) return out.add(std::isnan(v) ? "NaN" : v > 0 ? "Infinity" : "-Infinity");
  char text[40];  // d.ddde±xx
  const char *const end =
      std::to_chars(text, text + sizeof text, v, std::chars_format::scientific).ptr;
  const char *at = text;
  if (*at == '-') out.add(*at++);
  const char *mark = at;
  while (*mark != 'e') ++mark;
  char digits[24];
  size_t count = 0;
  for (; at != mark; ++at) {
    if (*at != '.') digits[count++] = *at;
  }
  int exponent = 0;
  std::from_chars(mark + (mark[1] == '+' ? 2 : 1), end, exponent);
  std::string repr;
  if (exponent < -4 || exponent >= 16) {
    repr += digits[0];
    if (count > 1) repr.append(1, '.').append(digits + 1, count - 1);
    repr.append(mark, end);
  } else if (exponent < 0) {
    repr.append("0.").append(static_cast<size_t>(-exponent - 1), '0').append(digits, count);
  } else if (const size_t whole = static_cast<size_t>(exponent) + 1; count <= whole) {
    repr.append(digits, count).append(whole - count, '0').append(".0");
  } else {
    repr.append(digits, whole).append(1, '.').append(digits + whole, count - whole);
  }
  out.add(repr);
}

void encode_int(Writer &out, py::handle value) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (overflow) {
    // Not the object's own repr: an enum's isn't JSON. Up to 4300 digits, so not by way of the
    // stage.
    const py::object digits = own(PyLong_Type.tp_repr(value.ptr()));
    for (const char c : view(digits)) out.add(c);
    return;
  }
  if (number == -1 && PyErr_Occurred()) throw py::error_already_set();
  char *at = out.room(24);
  out.took(std::to_chars(at, at + 24, number).ptr);
}

/// Whether the value was a number, a boolean or None, which are spelled alike as values and as
/// keys.
bool encode_scalar(Writer &out, py::handle value) {
  PyObject *const v = value.ptr();
  if (PyFloat_Check(v)) {
    encode_float(out, PyFloat_AS_DOUBLE(v));
  } else if (v == Py_None) {
    out.add("null");
  } else if (v == Py_True) {
    out.add("true");
  } else if (v == Py_False) {
    out.add("false");
  } else if (PyLong_Check(v)) {
    encode_int(out, value);
  } else {
    return false;
  }
  return true;
}

void encode_key(Writer &out, py::handle key) {
  if (PyUnicode_Check(key.ptr())) return encode_str(out, key);
  out.add('"');
  if (!encode_scalar(out, key)) {
    fail_type("keys must be str, int, float, bool or None, not " +
              std::string(Py_TYPE(key.ptr())->tp_name));
  }
  out.add('"');
}

void encode_sequence(Writer &out, py::handle value) {
  out.add('[');
  for (Py_ssize_t at = 0; at < PySequence_Fast_GET_SIZE(value.ptr()); ++at) {
    if (at) out.add(',');
    encode_value(out, PySequence_Fast_GET_ITEM(value.ptr(), at));
  }
  out.add(']');
}

void encode_map(Writer &out, py::handle value) {
  out.add('{');
  PyObject *key = nullptr;
  PyObject *entry = nullptr;
  bool first = true;
  for (Py_ssize_t at = 0; PyDict_Next(value.ptr(), &at, &key, &entry); first = false) {
    if (!first) out.add(',');
    encode_key(out, key);
    out.add(':');
    encode_value(out, entry);
  }
  out.add('}');
}

void encode_value(Writer &out, py::handle value) {
  if (encode_scalar(out, value)) return;
  if (PyUnicode_Check(value.ptr())) return encode_str(out, value);
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
    Writer writer(out);
    encode_value(writer, value);
  } catch (...) {
    out.resize(before);
    throw;
  }
}

}  // namespace kestrix
