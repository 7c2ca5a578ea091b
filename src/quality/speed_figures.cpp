#include "quality/speed_figures.h"

#include <algorithm>
#include <cmath>

namespace moru_vyr::lsp {
namespace {

// The fields that make up a set.
struct Figures {
  u32& avg;
  u32& max;
  u32& min;  // 0: none yet
  u32& amp;
  double& sum;
  double& squares;
  u32& count;
};

void Add(const Figures& set, u32 delay) noexcept {
  ++set.count;
  set.max = std::max(set.max, delay);
  set.min = set.min == 0 ? delay : std::min(set.min, delay);
  set.sum += delay;
  set.squares += static_cast<double>(delay) * delay;
  set.avg = static_cast<u32>(set.sum / set.count);
  if (set.count < 2) return;
  const u32 avg_square = set.avg * set.avg;
  // Truncated averages: the exact difference may be a little below zero.
  const double variance =
      avg_square + set.squares / set.count - 2.0 * set.sum * set.avg / set.count;
  set.amp = variance > 0 ? static_cast<u32>(std::sqrt(variance)) : 0;
}

}  // namespace

void AddToFineFigures(SpeedStatsHalf* half, u32 delay) noexcept {
  Add({half->delay_avg, half->delay_max, half->delay_min, half->delay_amp, half->delay_sum,
       half->delay_squares, half->total_recv},
      delay);
}

void AddToOverFigures(SpeedStatsHalf* half, u32 delay) noexcept {
  Add({half->over_delay_avg, half->over_delay_max, half->over_delay_min, half->over_delay_amp,
       half->over_delay_sum, half->over_delay_squares, half->over_count},
      delay);
}

void AddToAllFigures(SpeedStatsHalf* half, u32 delay) noexcept {
  Add({half->all_delay_avg, half->all_delay_max, half->all_delay_min, half->all_delay_amp,
       half->all_delay_sum, half->all_delay_squares, half->all_recv_count},
      delay);
}

}  // namespace moru_vyr::lsp
