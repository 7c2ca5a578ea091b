#include "tracker/speed_stats.h"

#include <windows.h>

#include <algorithm>
#include <cmath>

namespace moru_vyr::lsp {
namespace {

constexpr u32 kInFlightMs = 2000;

}  // namespace

void DelayFigures::Add(u32 delay) noexcept {
  ++count;
  max = std::max(max, delay);
  min = min == 0 ? delay : std::min(min, delay);
  sum += delay;
  squares += static_cast<double>(delay) * delay;
  avg = static_cast<u32>(sum / count);
  if (count < 2) return;
  const u32 avg_square = avg * avg;
  // Truncated averages: the exact difference may be a little below zero.
  const double variance = avg_square + squares / count - 2.0 * sum * avg / count;
  amp = variance > 0 ? static_cast<u32>(std::sqrt(variance)) : 0;
}

void UpdateLoss(SpeedStatsHalf* half, bool in_flight) noexcept {
  if (in_flight && GetTickCount() < half->last_send_tick + kInFlightMs && half->pending != 0 &&
      half->total_send != 0) {
    --half->total_send;
  }
  half->lost_avg = 0;
  const u32 sent = half->total_send;
  const u32 received = half->fine.count;
  if (sent != 0 && sent >= received) half->lost_avg = (sent - received) * 100.0 / sent;
}

}  // namespace moru_vyr::lsp
