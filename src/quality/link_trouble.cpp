#include "quality/link_trouble.h"

#include "quality/lost_calc.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kMostLoss = 100;  // percent; what is above is a code

}  // namespace

LinkTrouble FindTrouble(const LinkFigures& figures, const LinkLimits& limits) noexcept {
  // Nothing expected is no loss unknown: that is what a dead link looks like.
  const bool small_unknown = figures.small_lost > kMostLoss && figures.small_lost != kLostNoRange;
  const u32 small_lost = small_unknown ? 0 : figures.small_lost;
  if (!small_unknown && figures.small_real == 0 && figures.route_short_real == 0) {
    return LinkTrouble::kDead;
  }
  if (figures.small_real >= limits.short_cycle_pkg && small_lost >= limits.short_cycle_lost) {
    return LinkTrouble::kShortLoss;
  }
  const u32 long_lost = figures.long_lost > kMostLoss ? 0 : figures.long_lost;
  if (figures.long_real >= limits.long_cycle_pkg && long_lost >= limits.long_cycle_lost) {
    return LinkTrouble::kLongLoss;
  }
  if (figures.long_real < limits.long_cycle_pkg && figures.route_lost >= limits.real_route_lost &&
      figures.route_lost < kLostTooFew) {
    return LinkTrouble::kRouteLoss;
  }
  return LinkTrouble::kNone;
}

}  // namespace moru_vyr::lsp
