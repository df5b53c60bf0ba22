#include "link/rounding.h"

#include <array>
#include <cmath>

#include "python/object.h"

namespace kestrix {

namespace {

constexpr double POWERS[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr int MOST_DECIMALS = static_cast<int>(std::size(POWERS)) - 1;

// Added and taken away again, it leaves the nearest whole number, ties to even, of any smaller than
// 2^51: there is no room for a fraction beside it.
constexpr double WHOLE = 6755399441055744.0;    // 1.5 * 2^52
constexpr double LARGEST = 2251799813685248.0;  // 2^51

/// The nearest whole number, ties to even, for what is below LARGEST.
double nearest_whole(double scaled) {
  return (scaled + WHOLE) - WHOLE;
}

/// Whether nearest_whole of v * scale gives what rounding the exact product gives: not where the
/// product is too large, nor where it was itself rounded onto a half.
bool is_plain(double scaled, double whole) {
  const auto small = static_cast<unsigned>(std::abs(scaled) < LARGEST);
  const auto clear = static_cast<unsigned>(std::abs(scaled - whole) != 0.5);
  return (small & clear) != 0;  // without a branch
}

// Adding zero makes a negative zero positive.

double round_slowly(double v, int n) {
  return real(call(to_py(v), "__round__"_n, n)) + 0.0;
}

}  // namespace

double _r(double v, int n) {
  if (n < 0 || n > MOST_DECIMALS) return round_slowly(v, n);
  const double scale = POWERS[n];
  const double scaled = v * scale;
  double whole = nearest_whole(scaled);
  if (!is_plain(scaled, whole)) {
    if (!(std::abs(scaled) < LARGEST)) return std::isfinite(v) ? round_slowly(v, n) : v;
    // What the product lost decides, and only an exact half goes to the even neighbour, as `whole`
    // has.
    const double lost = std::fma(v, scale, -scaled);
    if (lost != 0.0) whole = lost > 0.0 ? std::floor(scaled) + 1.0 : std::ceil(scaled) - 1.0;
  }
  return whole / scale + 0.0;  // both exact, so this is the double nearest to the decimal
}

void round_all(std::span<double> values, std::span<const std::uint8_t> decimals) {
  // In pieces and without branches, so that the compiler takes several at once.
  constexpr size_t PIECE = 16;
  for (size_t first = 0; first < values.size(); first += PIECE) {
    const size_t count = std::min(PIECE, values.size() - first);
    std::array<double, PIECE> scales;
    std::array<double, PIECE> rounded;
    scales.fill(1.0);
    rounded.fill(0.0);
    for (size_t i = 0; i < count; ++i) {
      scales[i] = POWERS[decimals[first + i]];
      rounded[i] = values[first + i];
    }
    bool plain = true;
    for (size_t i = 0; i < PIECE; ++i) {
      const double scaled = rounded[i] * scales[i];
      const double whole = nearest_whole(scaled);
      plain &= is_plain(scaled, whole);
      rounded[i] = whole / scales[i] + 0.0;
    }
    for (size_t i = 0; i < count; ++i) {
      values[first + i] = plain ? rounded[i] : _r(values[first + i], decimals[first + i]);
    }
  }
}

}  // namespace kestrix
