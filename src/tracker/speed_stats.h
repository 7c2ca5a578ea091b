// The results of the probes of one accelerated socket. The speed test fetches the record, changes
// it and returns the whole record; the Tracker computes the loss and reports the rest.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

// The delays of a set of answers, in milliseconds.
struct DelayFigures {
  u32 avg = 0;
  u32 max = 0;
  u32 min = 0;  // 0: no answer yet
  u32 amp = 0;  // the standard deviation
  double sum = 0;
  double squares = 0;
  u32 count = 0;

  void Add(u32 delay) noexcept;
};

// One half of the route.
struct SpeedStatsHalf {
  DelayFigures fine;    // of answers below the limit for delays
  DelayFigures over;    // of those at or above it
  DelayFigures all;     // of both
  u32 total_send = 0;   // less those that were answered over the limit
  double lost_avg = 0;  // percent
  u32 all_send_count = 0;

  u32 last_send_tick = 0;
  u32 last_send_seq = 0;
  u32 pending = 0;  // 1: the last probe has not been answered
};

struct SpeedStats {
  SpeedStatsHalf frontend;  // to the node that the client talks to
  SpeedStatsHalf backend;   // to the last node
  u32 topology_type = 0;    // 0 not known, 1 one node, 2 two nodes, -1 not understood
};

// Computes the loss again. `in_flight`: a probe sent in the last two seconds that has not been
// answered yet is subtracted from what was sent, since it is not lost so far.
void UpdateLoss(SpeedStatsHalf* half, bool in_flight) noexcept;

}  // namespace moru_vyr::lsp
