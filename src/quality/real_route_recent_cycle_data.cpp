#include "quality/real_route_recent_cycle_data.h"

#include <winsock2.h>

#include <algorithm>
#include <cmath>

#include "common/log.h"
#include "quality/link_thresholds.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

constexpr double kSumNotMeasured = kDelayNotMeasured;

const char* BoolText(bool value) noexcept { return value ? "true" : "false"; }

}  // namespace

RealRouteRecentCycleData::RealRouteRecentCycleData(bool averages) : averages_(averages) {
  const AccConfig& config = *GetAccConfig();
  real_route_cycle_size_ = thresholds::NormTestInterval(config);
  lost_calc_cycle_ = thresholds::LongCycle(config);
  max_high_freq_test_count_ = config.max_high_freq_test_count;
  watching_time_span_ = u32{config.watching_time_span} * 1000;
  cycle_start_tick_ = GetTickCount();
  LSP_LOG(4,
          "RealRouteRecentCycleData::RealRouteRecentCycleData, lost_calc_cycle=%d, "
          "real_route_cycle_size_=%d, max_high_freq_test_count_=%d, watching_time_span_=%d",
          lost_calc_cycle_, real_route_cycle_size_, max_high_freq_test_count_, watching_time_span_);
}

void RealRouteRecentCycleData::Update(u32 delay, bool is_high_freq, u8 relay_idx) noexcept {
  AddDelay(delay, is_high_freq);
  CalcDelay();
  if (relay_idx != 1) CalcWatching();
}

void RealRouteRecentCycleData::Reset() noexcept {
  delay_avg_ = 0;
  delay_amp_ = 0;
  cur_delay_sum_ = 0;
  cur_delay_square_sum_ = 0;
  cur_count_ = 0;
  cycle_start_tick_ = GetTickCount();
  cycles_.clear();
  cur_high_freq_ = false;
}

void RealRouteRecentCycleData::AddDelay(u32 delay, bool is_high_freq) noexcept {
  const u32 now = GetTickCount();
  LSP_LOG(0, "cur tick=%d, is high freq test=%s", now, BoolText(is_high_freq));
  if (is_high_freq) cur_high_freq_ = true;
  if (now - cycle_start_tick_ >= real_route_cycle_size_) {
    LSP_LOG(0, "delay=%d, is high freq test_=%s", cur_delay_sum_, BoolText(cur_high_freq_));
    CloseCycle();
    // One cycle per call, even if it is late: the cycles after a pause are short.
    cycle_start_tick_ += real_route_cycle_size_;
  } else if (now < cycle_start_tick_) {
    cycle_start_tick_ = now;  // the tick counter has begun again
  }
  ++cur_count_;
  cur_delay_sum_ += delay;
  cur_delay_square_sum_ += static_cast<double>(delay * delay);
  if (cycles_.size() > lost_calc_cycle_) cycles_.pop_front();
}

void RealRouteRecentCycleData::CloseCycle() noexcept {
  const u32 parts = averages_ ? std::max(cur_count_, 1u) : 1;
  cur_count_ = 0;
  if (cur_delay_sum_ == 0) return;
  try {
    cycles_.push_back({cur_delay_sum_ / parts, cur_delay_square_sum_ / parts, cur_high_freq_});
  } catch (...) {
    // No memory: a cycle without an entry, as one without probes is.
  }
  cur_delay_sum_ = 0;
  cur_delay_square_sum_ = 0;
  cur_high_freq_ = false;
}

// Kept: 9999 stands for "not measured" and is a possible sum too, so a window that adds up to
// exactly that counts as not measured.
void RealRouteRecentCycleData::CalcDelay() noexcept {
  const std::size_t count = cycles_.size();
  double total = kSumNotMeasured;
  double square_total = kSumNotMeasured;
  if (count >= lost_calc_cycle_) {
    total = 0;
    square_total = 0;
    for (const RecentCycle& cycle : cycles_) {
      total += cycle.delay_sum;
      square_total += cycle.delay_square_sum;
    }
  }
  const auto n = static_cast<double>(count);
  delay_avg_ = total == kSumNotMeasured ? kDelayNotMeasured : static_cast<u32>(total / n);
  if (square_total == kSumNotMeasured) {
    delay_amp_ = kDelayNotMeasured;
    return;
  }
  if (count > 1) {
    const double avg = delay_avg_;
    const double variance = avg * avg + square_total / n - 2.0 * total * avg / n;
    delay_amp_ = variance > 0 ? static_cast<u32>(std::sqrt(variance)) : 0;
  }
  LSP_LOG(0,
          "RealRouteRecentCycleData::Update, delay_avg=%d, delay_square_accum=%g, "
          "total_recv_count=%d, delay_accum=%g, delay_amp=%d",
          delay_avg_, square_total, static_cast<int>(count), total, delay_amp_);
}

void RealRouteRecentCycleData::CalcWatching() noexcept {
  if (watch_start_tick_ != 0 && watch_start_tick_ + watching_time_span_ < GetTickCount()) {
    watch_start_tick_ = 0;
    LSP_LOG(0, "start watch time=%d", watch_start_tick_);
  }
  if (watch_start_tick_ != 0 || cycles_.size() < max_high_freq_test_count_) return;
  u32 high = 0;
  for (const RecentCycle& cycle : cycles_) high += cycle.is_high_freq ? 1 : 0;
  LSP_LOG(0, "count high=%d, max high =%d", high, max_high_freq_test_count_);
  if (high < max_high_freq_test_count_) return;
  watch_start_tick_ = GetTickCount();
  LSP_LOG(0, "from zero, start watch time=%d", watch_start_tick_);
}

}  // namespace moru_vyr::lsp
