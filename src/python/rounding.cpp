#include "python/rounding.h"

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

double positive_zero(double v) {
  return v == 0.0 ? 0.0 : v;
}

double round_slowly(double v, int n) {
  return positive_zero(real(call(to_py(v), "__round__"_n, n)));
}

}  // namespace

double _r(double v, int n) {
  if (n < 0 || n > MOST_DECIMALS) return round_slowly(v, n);
  const double scale = POWERS[n];
  const double scaled = v * scale;
  if (!(std::abs(scaled) < LARGEST)) return std::isfinite(v) ? round_slowly(v, n) : v;
  double whole = (scaled + WHOLE) - WHOLE;
  if (const double rest = scaled - whole; std::abs(rest) == 0.5) {
    // The product itself was rounded onto the half: what it lost decides, and only an exact half
    // goes to the even neighbour, as `whole` has.
    const double lost = std::fma(v, scale, -scaled);
    if (lost != 0.0) whole = lost > 0.0 ? std::floor(scaled) + 1.0 : std::ceil(scaled) - 1.0;
  }
  return positive_zero(whole / scale);  // both exact, so this is the double nearest to the decimal
}

}  // namespace kestrix
