// Decimal rounding as Python's round() does it.
#pragma once

namespace kestrix {

/// v rounded to n decimals, ties to even on the exact binary value; never negative zero. The same
/// double as Python's round(v, n).
double _r(double v, int n);

}  // namespace kestrix
