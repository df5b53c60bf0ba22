#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "link/json.h"
#include "link/json_block.h"
#include "python/errors.h"

namespace kestrix {

namespace {

constexpr char HEX[] = "0123456789abcdef";
constexpr size_t LONGEST_FLOAT = 32;
// From so many bytes on a text is taken for a snapshot, and given so many more at once.
constexpr size_t LARGE = 256 << 10;
constexpr size_t LARGE_ROOM = 16 << 20;

/// Gathers small pieces and hands them to the string in large ones. Where the next one goes is
/// passed along from call to call, so that it stays in a register.
class Writer {
 public:
  explicit Writer(std::string &out) : out_(out) {}
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;

  char *begin() { return stage_; }
  /// Where the next n bytes may be written (a few hundred at most), `at` being the end so far.
  char *room(char *at, size_t n) {
    if (static_cast<size_t>(stage_ + sizeof stage_ - at) >= n) return at;
    end(at);
    return stage_;
  }
  void end(const char *at) {
    const auto count = static_cast<size_t>(at - stage_);
    // Each move to a larger room costs more than the room, of which only what is written is used.
    if (out_.size() > LARGE && out_.capacity() - out_.size() < count) {
      out_.reserve(out_.size() + std::max(out_.size(), LARGE_ROOM));
    }
    out_.append(stage_, count);
  }

 private:
  std::string &out_;
  char stage_[8192];
};

// What follows takes the end of the text so far and gives the new one.

char *encode_value(Writer &out, char *at, PyObject *value);

char *put(char *at, std::string_view text) {
  return std::copy(text.begin(), text.end(), at);
}

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

/// Copies up to 15 bytes.
char *put_rest(char *at, const char *text, size_t length) {
  if (length & 8) {
    std::memcpy(at, text, 8);
    at += 8;
    text += 8;
  }
  if (length & 4) {
    std::memcpy(at, text, 4);
    at += 4;
    text += 4;
  }
  return std::copy_n(text, length & 3, at);
}

/// Writes the data of a compact ASCII string, behind its object's header.
char *encode_ascii(Writer &out, char *at, const char *text, size_t length) {
  static_assert(sizeof(PyASCIIObject) >= 16);
  const auto put_each = [&](const char *from, size_t count) {
    for (const char c : std::string_view(from, count)) {
      at = put_character(at, static_cast<unsigned char>(c));
    }
  };
  constexpr size_t most = size_t{16} * 6;
  const char *const end = text + length;
  for (; end - text >= 16; text += 16) {
    at = out.room(at, most);
    if (not_plain(text)) {
      put_each(text, 16);
    } else {
      std::memcpy(at, text, 16);
      at += 16;
    }
  }
  at = out.room(at, most);
  const auto rest = static_cast<size_t>(end - text);
  // The last 16 bytes, of which some may lie in the header.
  if (not_plain(end - 16) >> (16 - rest)) {
    put_each(text, rest);
    return at;
  }
  return put_rest(at, text, rest);
}

char *encode_str(Writer &out, char *at, PyObject *text) {
  if (PyUnicode_READY(text) < 0) throw py::error_already_set();
  const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
  at = out.room(at, 1);
  *at++ = '"';
  if (PyUnicode_IS_COMPACT_ASCII(text)) {
    at = encode_ascii(out, at, reinterpret_cast<const char *>(PyUnicode_1BYTE_DATA(text)),
                      static_cast<size_t>(length));
  } else {
    const int kind = PyUnicode_KIND(text);
    const void *data = PyUnicode_DATA(text);
    for (Py_ssize_t i = 0; i < length; ++i) {
      at = put_character(out.room(at, 12), PyUnicode_READ(kind, data, i));
    }
  }
  at = out.room(at, 1);
  *at++ = '"';
  return at;
}

/// The eight digits of two numbers below 10**8, as bytes of 0 to 9, the first of them the lowest:
/// halved until there is one digit each. Quotients are by multiplication, exact for numbers of that
/// many digits.
__m128i digits_of(std::uint64_t low, std::uint64_t high) {
  const __m128i eights = _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
  const __m128i upper =
      _mm_srli_epi64(_mm_mul_epu32(eights, _mm_set1_epi64x(3518437209)), 45);  // / 10000
  const __m128i lower = _mm_sub_epi64(eights, _mm_mul_epu32(upper, _mm_set1_epi64x(10000)));
  const __m128i fours = _mm_or_si128(upper, _mm_slli_epi64(lower, 32));
  const __m128i hundreds =
      _mm_srli_epi16(_mm_mulhi_epu16(fours, _mm_set1_epi16(5243)), 3);  // / 100
  const __m128i below = _mm_sub_epi16(fours, _mm_mullo_epi16(hundreds, _mm_set1_epi16(100)));
  const __m128i pairs = _mm_or_si128(hundreds, _mm_slli_epi32(below, 16));
  const __m128i tens = _mm_mulhi_epu16(pairs, _mm_set1_epi16(6554));  // / 10
  const __m128i ones = _mm_sub_epi16(pairs, _mm_mullo_epi16(tens, _mm_set1_epi16(10)));
  return _mm_or_si128(tens, _mm_slli_epi16(ones, 8));
}

void store_word(char *at, std::uint64_t word) {
  std::memcpy(at, &word, sizeof word);
}

/// Writes a number of at most six decimals below 10**8, which nearly all are, in at most 18 bytes;
/// null for others. Its decimal has at most 14 digits, so no other one as short reads back as the
/// same double: it is what repr gives. There is no branch on the sign and on how many digits there
/// are, which can't be foreseen.
char *put_short_decimal(char *at, double v) {
  const double size = std::abs(v);
  if (!(size < 1e8) || (size < 1e-4 && size != 0.0)) return nullptr;
  const std::int64_t millionths = _mm_cvtsd_si64(_mm_set_sd(size * 1e6));  // the nearest
  if (static_cast<double>(millionths) / 1e6 != size) return nullptr;
  const auto count = static_cast<std::uint64_t>(millionths);
  const __m128i digits = digits_of(count / 1000000, count % 1000000 * 100);
  const auto whole = static_cast<std::uint64_t>(_mm_cvtsi128_si64(digits));
  const auto part = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_srli_si128(digits, 8)));
  *at = '-';
  at += std::signbit(v);
  // Without the zeros in front, but for the last digit, and those behind, but for the first.
  const int skipped = std::countr_zero(whole | (std::uint64_t{1} << 56)) & 0x38;
  store_word(at, (whole >> skipped) + each_byte('0'));
  at += 8 - skipped / 8;
  *at++ = '.';
  store_word(at, part + each_byte('0'));
  return at + 8 - std::countl_zero(part | 1) / 8;
}

/// repr(v), in at most LONGEST_FLOAT bytes: the shortest digits that read back as v; fixed from
/// 1e-4 up to below 1e16.
char *put_float(char *at, double v) {
  if (char *const end = put_short_decimal(at, v)) return end;
  if (!std::isfinite(v)) return put(at, std::isnan(v) ? "NaN" : v > 0 ? "Infinity" : "-Infinity");
  char text[LONGEST_FLOAT];  // d.ddde±xx
  const char *const end =
      std::to_chars(text, text + sizeof text, v, std::chars_format::scientific).ptr;
  const char *from = text;
  if (*from == '-') *at++ = *from++;
  const char *mark = from;
  while (*mark != 'e') ++mark;
  char digits[24];
  size_t count = 0;
  for (; from != mark; ++from) {
    if (*from != '.') digits[count++] = *from;
  }
  int exponent = 0;
  std::from_chars(mark + (mark[1] == '+' ? 2 : 1), end, exponent);
  const std::string_view all(digits, count);
  if (exponent < -4 || exponent >= 16) {
    *at++ = all[0];
    if (count > 1) at = put(put(at, "."), all.substr(1));
    return put(at, {mark, end});
  }
  if (exponent < 0) {
    at = std::fill_n(put(at, "0."), -exponent - 1, '0');
    return put(at, all);
  }
  const size_t whole = static_cast<size_t>(exponent) + 1;
  if (count <= whole) return put(std::fill_n(put(at, all), whole - count, '0'), ".0");
  return put(put(put(at, all.substr(0, whole)), "."), all.substr(whole));
}

char *encode_int(Writer &out, char *at, PyObject *value) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (overflow) {
    // Not the object's own repr: an enum's isn't JSON. May be longer than the writer's stage.
    const py::object digits = own(PyLong_Type.tp_repr(value));
    for (const char c : view(digits)) {
      at = out.room(at, 1);
      *at++ = c;
    }
    return at;
  }
  if (number == -1 && PyErr_Occurred()) throw py::error_already_set();
  at = out.room(at, 24);
  return std::to_chars(at, at + 24, number).ptr;
}

/// A number, a boolean or None, which are spelled alike as values and as keys; null for others.
char *encode_scalar(Writer &out, char *at, PyObject *value) {
  if (PyFloat_Check(value)) {
    return put_float(out.room(at, LONGEST_FLOAT), PyFloat_AS_DOUBLE(value));
  }
  if (value == Py_None) return put(out.room(at, 5), "null");
  if (value == Py_True) return put(out.room(at, 5), "true");
  if (value == Py_False) return put(out.room(at, 5), "false");
  return PyLong_Check(value) ? encode_int(out, at, value) : nullptr;
}

char *encode_key(Writer &out, char *at, PyObject *key) {
  if (PyUnicode_Check(key)) return encode_str(out, at, key);
  at = encode_scalar(out, put(out.room(at, 1), "\""), key);
  if (!at) {
    fail_type("keys must be str, int, float, bool or None, not " +
              std::string(Py_TYPE(key)->tp_name));
  }
  return put(out.room(at, 1), "\"");
}

char *encode_sequence(Writer &out, char *at, PyObject *value) {
  at = put(out.room(at, 1), "[");
  // What an items() within adds to the list isn't written: it might never end.
  const Py_ssize_t most = PySequence_Fast_GET_SIZE(value);
  for (Py_ssize_t i = 0; i < most && i < PySequence_Fast_GET_SIZE(value); ++i) {
    at = out.room(at, 1 + LONGEST_FLOAT);
    if (i) *at++ = ',';
    PyObject *const item = PySequence_Fast_GET_ITEM(value, i);
    at = PyFloat_CheckExact(item) ? put_float(at, PyFloat_AS_DOUBLE(item))
                                  : encode_value(out, at, item);
  }
  return put(out.room(at, 1), "]");
}

char *encode_entry(Writer &out, char *at, PyObject *key, PyObject *value) {
  at = encode_key(out, at, key);
  return encode_value(out, put(out.room(at, 1), ":"), value);
}

char *encode_map(Writer &out, char *at, PyObject *value) {
  at = put(out.room(at, 1), "{");
  if (PyDict_CheckExact(value)) {
    PyObject *key = nullptr;
    PyObject *entry = nullptr;
    const Py_ssize_t size = PyDict_GET_SIZE(value);
    Py_ssize_t place = 0;
    for (Py_ssize_t i = 0; i < size && PyDict_Next(value, &place, &key, &entry); ++i) {
      if (i) at = put(out.room(at, 1), ",");
      at = encode_entry(out, at, key, entry);
      // The items() of a class within may change this one, and never let it end.
      if (PyDict_GET_SIZE(value) != size) fail("dictionary changed size during iteration");
    }
  } else if (PyDict_GET_SIZE(value)) {
    // A class of its own may have its own order.
    const py::object items = own(PyMapping_Items(value));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.ptr()); ++i) {
      const py::object pair = to_py(py::handle(PyList_GET_ITEM(items.ptr(), i)));
      if (!PyTuple_Check(pair.ptr()) || PyTuple_GET_SIZE(pair.ptr()) != 2) {
        fail("items must return 2-tuples", PyExc_ValueError);
      }
      if (i) at = put(out.room(at, 1), ",");
      at = encode_entry(out, at, PyTuple_GET_ITEM(pair.ptr(), 0), PyTuple_GET_ITEM(pair.ptr(), 1));
    }
  }
  return put(out.room(at, 1), "}");
}

char *encode_value(Writer &out, char *at, PyObject *value) {
  if (PyUnicode_Check(value)) return encode_str(out, at, value);
  if (char *const end = encode_scalar(out, at, value)) return end;
  const bool is_map = PyDict_Check(value);
  if (!is_map && !PyList_Check(value) && !PyTuple_Check(value)) {
    fail_type("Object of type " + std::string(Py_TYPE(value)->tp_name) +
              " is not JSON serializable");
  }
  // Not negative but 1 is its failure.
  if (Py_EnterRecursiveCall(" while encoding a JSON object")) throw py::error_already_set();
  Finally leave([] { Py_LeaveRecursiveCall(); });
  // Held, as the items() of a dict's class may do anything, even to what this one is part of. For a
  // list of a class of its own: what iterating over it gives.
  const py::object held =
      is_map ? to_py(py::handle(value)) : own(PySequence_Fast(value, "not a sequence"));
  return is_map ? encode_map(out, at, held.ptr()) : encode_sequence(out, at, held.ptr());
}

}  // namespace

void json_encode(std::string &out, py::handle value) {
  const size_t before = out.size();
  try {
    Writer writer(out);
    writer.end(encode_value(writer, writer.begin(), value.ptr()));
  } catch (...) {
    out.resize(before);
    throw;
  }
}

}  // namespace kestrix
