// A hint to the processor, for walks over more memory than its caches hold.
#pragma once

#include <xmmintrin.h>

#include <cstddef>

namespace kestrix {

constexpr size_t CACHE_LINE = 64;  // bytes

/// Has a line of memory come into the cache; any address will do, null too.
inline void prefetch(const void *address) {
  _mm_prefetch(static_cast<const char *>(address), _MM_HINT_T0);
}

}  // namespace kestrix
