// The delays of the last probes over one section of a route: their average and how much they vary,
// and whether so many bursts of probes were sent recently that no more should be.
//
// The unit is a cycle. All delays of a cycle make one entry, their sum. With one probe per cycle
// that is its delay; a burst raises it, and with it the average. Kept: thresholds are set for it.
//
// Owned by a RealRouteSpeedTest, used by its thread alone. Delays are milliseconds. Nothing but
// the constructor throws.
#pragma once
#include <deque>

#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr u32 kDelayNotMeasured = 9999;

// The sums over the probes of one cycle.
struct RecentCycle {
  u32 delay_sum = 0;
  double delay_square_sum = 0;
  bool is_high_freq = false;  // one of them belonged to a burst
};

class RealRouteRecentCycleData {
 public:
  // Reads the configuration of the process. `averages`: the entry of a cycle is the average of its
  // delays, not their sum.
  explicit RealRouteRecentCycleData(bool averages = false);

  // An answered probe. relay_idx 1 is the front section, which has no watch period.
  void Update(u32 delay, bool is_high_freq, u8 relay_idx) noexcept;
  // Forgets all delays. A watch period continues.
  void Reset() noexcept;

  // Whether bursts are to be refused. A watch period ends at the first Update after its time, or
  // here.
  bool IsWatching() const noexcept { return watch_start_tick_ > 0; }
  void StopWatching() noexcept { watch_start_tick_ = 0; }

  // kDelayNotMeasured while the window holds too few cycles.
  u32 delay_avg() const noexcept { return delay_avg_; }
  u32 delay_amp() const noexcept { return delay_amp_; }

 private:
  void AddDelay(u32 delay, bool is_high_freq) noexcept;
  void CloseCycle() noexcept;
  void CalcDelay() noexcept;
  void CalcWatching() noexcept;

  u32 real_route_cycle_size_ = 0;  // milliseconds
  u32 lost_calc_cycle_ = 0;        // entries that the window must hold before it has a result
  u32 delay_avg_ = 0;
  u32 cycle_start_tick_ = 0;
  u32 delay_amp_ = 0;
  const bool averages_;
  // The running cycle.
  u32 cur_count_ = 0;
  u32 cur_delay_sum_ = 0;
  double cur_delay_square_sum_ = 0;
  std::deque<RecentCycle> cycles_;  // the oldest first
  u32 max_high_freq_test_count_ = 0;
  u32 watching_time_span_ = 0;  // milliseconds
  u32 watch_start_tick_ = 0;    // 0: no watch period
  bool cur_high_freq_ = false;
};

}  // namespace moru_vyr::lsp
