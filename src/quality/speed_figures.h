// Adding an answered probe to one of the three sets of figures of half a route: the fine figures
// are of delays below the limit, the over figures of those at or above it, the all figures of both.
#pragma once
#include "common/types.h"
#include "tracker/speed_stats.h"

namespace moru_vyr::lsp {

void AddToFineFigures(SpeedStatsHalf* half, u32 delay) noexcept;
void AddToOverFigures(SpeedStatsHalf* half, u32 delay) noexcept;
void AddToAllFigures(SpeedStatsHalf* half, u32 delay) noexcept;

}  // namespace moru_vyr::lsp
