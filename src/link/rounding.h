// Decimal rounding as Python's round() does it.
#pragma once

#include <cstdint>
#include <span>

namespace kestrix {

/// v rounded to n decimals, ties to even on the exact binary value; never negative zero. The same
/// double as Python's round(v, n).
double _r(double v, int n);

/// Rounds each value to its own number of decimals, 0 to 22.
void round_all(std::span<double> values, std::span<const std::uint8_t> decimals);

}  // namespace kestrix
