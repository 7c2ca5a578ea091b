// Arithmetic of loss rates, in percent.
#pragma once
#include "common/types.h"

namespace common {

// The loss of two links in a row that lose independently: 50 and 50 give 75.
//
// Truncated, not rounded, and in double precision throughout: 10 and 0 give 9, because the
// product is a little above 0.9. Thresholds are compared with these values, so the 32-bit product
// computes in SSE registers, which round at each step as every other machine does.
inline int CombineLoss(u8 a, u8 b) noexcept {
  const double kept_a = 1.0 - a / 100.0;
  const double kept_b = 1.0 - b / 100.0;
  return static_cast<int>(100.0 * (1.0 - kept_a * kept_b));
}

}  // namespace common
