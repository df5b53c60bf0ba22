#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <string>
#include <vector>

#include "link/json.h"
#include "link/json_block.h"

namespace kestrix {

namespace {

// Deeper lines go to the standard module, which knows the interpreter's own limit.
constexpr int MAX_DEPTH = 200;
// Longer strings are rarely the same twice, and would cost memory to keep.
constexpr size_t SHARED_LENGTH = 32;
constexpr double POWERS[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7};

/// Thrown for what isn't taken here: wrong, or right but rare.
struct Refused {};

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_plain(char c) {
  return c >= ' ' && c < 0x7F && c != '"' && c != '\\';
}

/// A bit for each of 16 bytes that isn't a digit.
unsigned not_digits(const char *text) {
  // The digits become the lowest ten of the signed numbers.
  const __m128i values = _mm_sub_epi8(block_at(text), _mm_set1_epi8('0' - 128));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(values, _mm_set1_epi8(9 - 128))));
}

/// The numbers that two words of eight digits spell, with NUL for zeros in front.
__m128d two_numbers(std::uint64_t low, std::uint64_t high) {
  const __m128i text = _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
  const __m128i digits = _mm_subs_epu8(text, _mm_set1_epi8('0'));
  // Of each two bytes the lower is the first digit: ten times it joins the second in the upper one.
  const __m128i pairs = _mm_srli_epi16(_mm_mullo_epi16(digits, _mm_set1_epi16(10 * 256 + 1)), 8);
  const __m128i fours = _mm_madd_epi16(pairs, _mm_set1_epi32((1 << 16) + 100));
  const __m128i packed = _mm_packs_epi32(fours, fours);
  return _mm_cvtepi32_pd(_mm_madd_epi16(packed, _mm_set1_epi32((1 << 16) + 10000)));
}

/// A new reference, or null and a Python error.
PyObject *make_ascii(std::string_view text) {
  PyObject *const made = PyUnicode_New(static_cast<Py_ssize_t>(text.size()), 0x7F);
  if (made) std::memcpy(PyUnicode_1BYTE_DATA(made), text.data(), text.size());
  return made;
}

/// The short ASCII strings that came last: the same keys, kinds and folders come again and again,
/// and one object serves all of their uses.
template <int BITS>
class Shared {
 public:
  Shared() = default;
  Shared(const Shared &) = delete;
  Shared &operator=(const Shared &) = delete;
  ~Shared() {
    for (PyObject *text : texts_) Py_XDECREF(text);
  }

  /// A new reference, or null and a Python error. Eight bytes from the text's first on can be read.
  PyObject *get(std::string_view text) {
    const size_t size = text.size();
    std::uint64_t head = word_at(text.data());
    std::uint64_t tail = size;
    if (size < 8) {
      head &= (std::uint64_t{1} << (8 * size)) - 1;
    } else {
      tail ^= std::rotl(word_at(text.data() + size - 8), 23);
    }
    const size_t slot = (head ^ tail) * 0x9E3779B97F4A7C15 >> (64 - BITS);
    PyObject *&seen = texts_[slot];
    Ends &ends = ends_[slot];
    const bool same = seen && ends.head == head && ends.tail == tail &&
                      static_cast<size_t>(PyUnicode_GET_LENGTH(seen)) == size &&
                      (size <= 16 || std::memcmp(PyUnicode_1BYTE_DATA(seen) + 8, text.data() + 8,
                                                 size - 16) == 0);
    if (!same) {
      PyObject *const made = make_ascii(text);
      if (!made) return nullptr;
      Py_XSETREF(seen, made);
      ends = {head, tail};
    }
    return Py_NewRef(seen);
  }

 private:
  // What says apart most texts, and all of up to 16 bytes.
  struct Ends {
    std::uint64_t head;
    std::uint64_t tail;
  };
  std::array<PyObject *, size_t{1} << BITS> texts_{};
  std::array<Ends, size_t{1} << BITS> ends_;  // where there is a text
};

/// The keys of all messages are few: they are kept for the life of the process.
Shared<10> &shared_keys() {
  static auto *const keys = new Shared<10>();
  return *keys;
}

/// Reads one line from front to back, straight into Python objects.
class Reader {
 public:
  explicit Reader(std::string_view line) : at_(line.data()), end_(line.data() + line.size()) {}
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;
  ~Reader() {
    while (kept()) Py_DECREF(*--top_);
  }

  py::object line() {
    py::object whole = own(value(0));
    skip_space();
    if (at_ != end_) throw Refused();
    return whole;
  }

 private:
  void skip_space() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r' || *at_ == '\n')) ++at_;
  }

  /// The next character that isn't white space, or NUL at the end.
  char next() {
    if (at_ != end_ && *at_ > ' ') return *at_;
    skip_space();
    return at_ != end_ ? *at_ : '\0';
  }

  bool take_if(char c) {
    if (next() != c) return false;
    ++at_;
    return true;
  }

  /// Whether a comma follows, and not the end of the list or object.
  bool more(char close) {
    if (take_if(',')) return true;
    if (!take_if(close)) throw Refused();
    return false;
  }

  /// Takes over a new reference, until the list that it belongs to is complete.
  void keep(PyObject *item) {
    if (!item) throw py::error_already_set();
    if (top_ == limit_) grow(item);
    *top_++ = item;
  }

  void grow(PyObject *item) {
    py::object held = py::reinterpret_steal<py::object>(item);
    const size_t count = kept();
    pending_.resize(2 * pending_.size());
    top_ = pending_.data() + count;
    limit_ = pending_.data() + pending_.size();
    held.release();
  }

  size_t kept() const { return static_cast<size_t>(top_ - pending_.data()); }

  // What follows gives a new reference, or null and a Python error.

  PyObject *value(int depth) {
    switch (next()) {
      case '"':
        ++at_;
        return string(values_);
      case '{':
        return map(depth + 1);
      case '[':
        return list(depth + 1);
      case 't':
        return word("true", Py_True);
      case 'f':
        return word("false", Py_False);
      case 'n':
        return word("null", Py_None);
      default:
        return number();
    }
  }

  PyObject *word(std::string_view name, PyObject *meaning) {
    if (!std::string_view(at_, static_cast<size_t>(end_ - at_)).starts_with(name)) throw Refused();
    at_ += name.size();
    return Py_NewRef(meaning);
  }

  PyObject *list(int depth) {
    if (depth > MAX_DEPTH) throw Refused();
    ++at_;
    const size_t first = kept();
    if (!take_if(']')) {
      do {
        // From the sign to the nines in one comparison, as signs can't be foreseen.
        const char c = next();
        keep(c >= '-' && c <= '9' ? number() : value(depth));
      } while (more(']'));
    }
    const size_t count = kept() - first;
    py::object items = own(PyList_New(static_cast<Py_ssize_t>(count)));
    top_ -= count;
    std::copy_n(top_, count, reinterpret_cast<PyListObject *>(items.ptr())->ob_item);
    return items.release().ptr();
  }

  PyObject *map(int depth) {
    if (depth > MAX_DEPTH) throw Refused();
    ++at_;
    py::object entries = own(PyDict_New());
    if (!take_if('}')) {
      do {
        if (!take_if('"')) throw Refused();
        const py::object key = own(string(shared_keys()));
        if (!take_if(':')) throw Refused();
        check(PyDict_SetItem(entries.ptr(), key.ptr(), own(value(depth)).ptr()));
      } while (more('}'));
    }
    return entries.release().ptr();
  }

  /// A number. Nearly all are of up to eight digits, a point and up to seven digits: these are read
  /// without a branch on what can't be foreseen, signs and lengths.
  PyObject *number() {
    if (end_ - at_ < 32) return any_number();
    const std::uint64_t negative = *at_ == '-';
    const char *const begin = at_ + negative;
    const unsigned others = not_digits(begin) | 3U << 16;
    const auto whole = static_cast<unsigned>(std::countr_zero(others));
    const auto all = static_cast<unsigned>(std::countr_zero(others & (others - 1)));
    const unsigned decimals = all - whole - 1;
    const unsigned most = *begin == '0' ? 1 : 8;
    const char behind = begin[all];
    // Too large by wrapping around if there are no digits.
    if (begin[whole] != '.' || whole - 1 >= most || decimals - 1 >= 7 ||
        (behind != ',' && behind != ']' && behind != '}')) {
      return any_number();
    }
    at_ = begin + all;
    const __m128d parts = two_numbers(word_at(begin) << (64 - 8 * whole),
                                      word_at(begin + whole + 1) << (64 - 8 * decimals));
    // At most 15 digits: all is exact but for the quotient, which then is the nearest double.
    const double tens = POWERS[decimals];
    const double size =
        (_mm_cvtsd_f64(parts) * tens + _mm_cvtsd_f64(_mm_unpackhi_pd(parts, parts))) / tens;
    return PyFloat_FromDouble(
        std::bit_cast<double>(std::bit_cast<std::uint64_t>(size) | (negative << 63)));
  }

  /// At least one digit.
  void skip_digits() {
    const char *const first = at_;
    while (at_ != end_ && is_digit(*at_)) ++at_;
    if (at_ == first) throw Refused();
  }

  PyObject *any_number() {
    const char *const begin = at_;
    if (at_ != end_ && *at_ == '-') ++at_;
    const char *const first = at_;
    skip_digits();
    if (at_ - first > 1 && *first == '0') throw Refused();
    const char *const whole_end = at_;
    if (at_ != end_ && *at_ == '.') {
      ++at_;
      skip_digits();
    }
    if (at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
      ++at_;
      if (at_ != end_ && (*at_ == '+' || *at_ == '-')) ++at_;
      skip_digits();
    }
    // What is out of range isn't wrong: 1e400 is infinite, and integers have no end.
    if (at_ == whole_end) {
      long long whole = 0;
      if (std::from_chars(begin, at_, whole).ec != std::errc()) throw Refused();
      return PyLong_FromLongLong(whole);
    }
    double real = 0;
    if (std::from_chars(begin, at_, real).ec != std::errc()) throw Refused();
    return PyFloat_FromDouble(real);
  }

  void skip_plain() {
    for (; end_ - at_ >= 16; at_ += 16) {
      if (const unsigned hits = not_plain(at_)) {
        at_ += std::countr_zero(hits);
        return;
      }
    }
    while (at_ != end_ && is_plain(*at_)) ++at_;
  }

  /// What stands behind a quotation mark, and the other one.
  template <int BITS>
  PyObject *string(Shared<BITS> &shared) {
    const char *const begin = at_;
    skip_plain();
    if (at_ == end_) throw Refused();
    if (*at_ != '"') return mixed_string(begin);
    const std::string_view text(begin, static_cast<size_t>(at_++ - begin));
    if (text.size() > SHARED_LENGTH || end_ - begin < 8) return make_ascii(text);
    return shared.get(text);
  }

  /// A string with escapes, or with what isn't ASCII.
  PyObject *mixed_string(const char *begin) {
    std::string text(begin, at_);
    while (at_ != end_ && *at_ != '"') {
      const char c = *at_++;
      if (c == '\\') {
        unescape(text);
      } else if (static_cast<unsigned char>(c) < ' ') {
        throw Refused();
      } else {
        text += c;
      }
      const char *const run = at_;
      skip_plain();
      text.append(run, at_);
    }
    if (at_++ == end_) throw Refused();
    PyObject *const made =
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), nullptr);
    if (!made && PyErr_ExceptionMatches(PyExc_UnicodeDecodeError)) {
      PyErr_Clear();
      throw Refused();
    }
    return made;
  }

  /// Appends what an escape stands for, its backslash being behind.
  void unescape(std::string &text) {
    constexpr std::string_view letters = "\"\\/bfnrt";
    constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
    if (at_ == end_) throw Refused();
    const char letter = *at_++;
    if (letter == 'u') return append_utf8(text, code_point());
    const size_t found = letters.find(letter);
    if (found == std::string_view::npos) throw Refused();
    text += meanings[found];
  }

  /// The character of one \u escape, or of two that are a surrogate pair.
  std::uint32_t code_point() {
    const std::uint32_t high = unit();
    if (high < 0xD800 || high > 0xDFFF) return high;
    if (!std::string_view(at_, static_cast<size_t>(end_ - at_)).starts_with("\\u")) throw Refused();
    at_ += 2;
    const std::uint32_t low = unit();
    if (high > 0xDBFF || low < 0xDC00 || low > 0xDFFF) throw Refused();  // a surrogate on its own
    return 0x10000 + (((high & 0x3FF) << 10) | (low & 0x3FF));
  }

  /// Four hexadecimal digits.
  std::uint32_t unit() {
    std::uint32_t code = 0;
    if (end_ - at_ < 4 || std::from_chars(at_, at_ + 4, code, 16).ptr != at_ + 4) throw Refused();
    at_ += 4;
    return code;
  }

  static void append_utf8(std::string &text, std::uint32_t code) {
    const auto follow = [&](int shift) {
      text += static_cast<char>(0x80 | ((code >> shift) & 0x3F));
    };
    if (code < 0x80) {
      text += static_cast<char>(code);
    } else if (code < 0x800) {
      text += static_cast<char>(0xC0 | (code >> 6));
      follow(0);
    } else if (code < 0x10000) {
      text += static_cast<char>(0xE0 | (code >> 12));
      follow(6);
      follow(0);
    } else {
      text += static_cast<char>(0xF0 | (code >> 18));
      follow(12);
      follow(6);
      follow(0);
    }
  }

  const char *at_;
  const char *const end_;
  // The items of all lists that are open; references are owned.
  std::vector<PyObject *> pending_ = std::vector<PyObject *>(64);
  PyObject **top_ = pending_.data();
  PyObject **limit_ = top_ + pending_.size();
  Shared<6> values_;
};

}  // namespace

py::object json_decode(std::string_view line) {
  try {
    return Reader(line).line();
  } catch (const Refused &) {
  }
  return call(module("json"_n), "loads"_n, to_py(line));
}

}  // namespace kestrix
