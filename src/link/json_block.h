// Text taken 16 bytes at a time, for the JSON reader and writer.
#pragma once

#include <emmintrin.h>

#include <cstdint>
#include <cstring>

namespace kestrix {

/// A byte in each of a word's eight places.
constexpr std::uint64_t each_byte(unsigned char byte) {
  return 0x0101010101010101 * byte;
}

/// Eight bytes, the first of them the lowest.
inline std::uint64_t word_at(const char *text) {
  std::uint64_t word = 0;
  std::memcpy(&word, text, sizeof word);
  return word;
}

inline __m128i block_at(const char *text) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(text));
}

/// A bit for each of 16 bytes that doesn't stand for itself in a string: quotation marks,
/// backslashes, control characters, DEL, and what isn't ASCII.
inline unsigned not_plain(const char *text) {
  const __m128i block = block_at(text);
  const __m128i special = _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('"')),
                                       _mm_cmpeq_epi8(block, _mm_set1_epi8('\\')));
  // As signed numbers, bytes from 0x80 on are below the space.
  const __m128i outside = _mm_or_si128(_mm_cmplt_epi8(block, _mm_set1_epi8(' ')),
                                       _mm_cmpeq_epi8(block, _mm_set1_epi8(0x7F)));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(special, outside)));
}

}  // namespace kestrix
