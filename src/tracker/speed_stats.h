// The results of the probes of one accelerated socket. The speed test fetches the record, changes
// it and returns the whole record; the Tracker computes the loss and reports the rest.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

// One half of the route. Delays in milliseconds; `amp` is their standard deviation. Fine figures
// are of answers below the limit for delays, over figures of those at or above it, all figures of
// both.
struct SpeedStatsHalf {
  u32 delay_avg = 0;
  u32 delay_max = 0;
  u32 delay_min = 0;  // 0: no answer yet
  u32 delay_amp = 0;
  double delay_sum = 0;
  double delay_squares = 0;
  double lost_avg = 0;  // percent
  u32 total_recv = 0;
  u32 total_send = 0;  // less those that were answered over the limit

  u32 last_send_tick = 0;
  u32 last_send_seq = 0;
  u32 pending = 0;  // 1: the last probe has not been answered

  u32 over_delay_avg = 0;
  u32 over_delay_max = 0;
  u32 over_delay_min = 0;
  u32 over_delay_amp = 0;
  double over_delay_sum = 0;
  double over_delay_squares = 0;
  u32 over_count = 0;

  u32 all_delay_avg = 0;
  u32 all_delay_max = 0;
  u32 all_delay_min = 0;
  u32 all_delay_amp = 0;
  double all_delay_sum = 0;
  double all_delay_squares = 0;
  u32 all_send_count = 0;
  u32 all_recv_count = 0;
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
