// Arithmetic of loss rates, in percent.
#pragma once
#include "common/types.h"

namespace common {

// The loss of two links in series that lose independently: 50 and 50 give 75. Truncated. Computed
// in integers: in floating point 10 and 20 would give 27, and a whole percentage could come out one
// too low. Values above 100 are processed as if they were percentages.
constexpr int CombineLoss(u8 a, u8 b) noexcept {
  const int kept = (100 - a) * (100 - b);
  return (10000 - kept) / 100;
}

}  // namespace common
