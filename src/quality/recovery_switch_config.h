// The thresholds by which a link is judged, read once when its judge starts.
#pragma once
#include <cstddef>

#include "common/types.h"

namespace moru_vyr::lsp {

struct RecoverySwitchConfig {
  static constexpr std::size_t kTextSize = 512;

  u16 short_cycle = 0;  // slots
  u16 long_cycle = 0;
  u32 max_delay_amp = 0;  // milliseconds
  u32 max_delay_avg = 0;
  u32 max_real_route_lost_ = 0;  // percent
  u32 lost_calc_unit_size = 0;   // milliseconds
  u32 max_link_except_rep_num = 0;
  u32 link_switch_min_inter = 0;  // milliseconds
  u32 max_link_switch_count = 0;
  u32 data_link_short_cycle_pkg_ = 0;  // packets
  u32 data_link_short_cycle_lost = 0;  // percent
  u32 data_link_long_cycle_pkg_ = 0;
  u32 data_link_long_cycle_lost_ = 0;

  // A link on trial has limits of its own for delay and loss.
  void ReadConfig(bool is_switch_session) noexcept;
  void Format(char (&text)[kTextSize]) const noexcept;
};

}  // namespace moru_vyr::lsp
