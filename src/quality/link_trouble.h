// Whether the traffic of a link looks bad enough for a burst of probes, and for what reason.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

// The figures of the windows. A loss is a percentage, or one of LostCalc's codes above 100.
struct LinkFigures {
  u32 small_lost = 0;        // of data, over the short window
  u32 small_real = 0;        // datagrams that arrived in it
  u32 long_lost = 0;         // of data, over the long window
  u32 long_real = 0;         // datagrams that arrived in it
  u32 route_short_real = 0;  // answers to probes over the short window
  u32 route_lost = 0;        // of probes, over the long window
};

// The losses, in percent, at which trouble begins, and how many datagrams a window must hold.
struct LinkLimits {
  u32 short_cycle_pkg = 0;
  u32 short_cycle_lost = 0;
  u32 long_cycle_pkg = 0;
  u32 long_cycle_lost = 0;
  u32 real_route_lost = 0;  // counts where the long window has fewer datagrams
};

enum class LinkTrouble { kNone, kDead, kShortLoss, kLongLoss, kRouteLoss };

// The first condition that holds, in this order.
LinkTrouble FindTrouble(const LinkFigures& figures, const LinkLimits& limits) noexcept;

}  // namespace moru_vyr::lsp
