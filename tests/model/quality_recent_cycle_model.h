// A second implementation of the delays of recent cycles: it remembers every probe with its cycle,
// and each question searches all that belong to the window. Time comes from the caller. To change
// it, read only real_route_recent_cycle_data.h and not the implementation.
#pragma once
#include <algorithm>
#include <cmath>
#include <vector>

#include "common/types.h"

namespace test {

using common::u32;
using common::u8;

class RecentCycleModel {
 public:
  struct Settings {
    u32 cycle_ms = 500;
    u32 window = 5;  // cycles
    u32 max_bursts = 0;
    u32 watch_ms = 0;
  };

  RecentCycleModel(const Settings& settings, u32 now) : settings_(settings), cycle_start_(now) {}

  void Update(u32 delay, bool is_burst, u8 relay_idx, u32 now) {
    Add(delay, is_burst, now);
    const std::vector<Cycle> window = Window();
    delay_avg = Average(window);
    delay_amp = Swing(window, delay_amp);
    if (relay_idx != 1) Watch(window, now);
  }

  void Reset(u32 now) {
    closed_.clear();
    running_ = {};
    cycle_start_ = now;
    delay_avg = delay_amp = 0;
  }
  bool IsWatching() const { return watch_start_ != 0; }
  void StopWatching() { watch_start_ = 0; }

  u32 delay_avg = 0;
  u32 delay_amp = 0;

 private:
  struct Cycle {
    std::vector<u32> delays;
    bool burst = false;

    u32 Sum() const {
      u32 sum = 0;
      for (const u32 delay : delays) sum += delay;
      return sum;
    }
    double Squares() const {
      double sum = 0;
      for (const u32 delay : delays) sum += static_cast<double>(delay * delay);
      return sum;
    }
  };

  void Add(u32 delay, bool is_burst, u32 now) {
    running_.burst = running_.burst || is_burst;
    if (now - cycle_start_ >= settings_.cycle_ms) {
      if (running_.Sum() != 0) {
        closed_.push_back(running_);
        running_ = {};
      }
      cycle_start_ += settings_.cycle_ms;
    } else if (now < cycle_start_) {
      cycle_start_ = now;
    }
    running_.delays.push_back(delay);
  }

  // At most that many cycles, the latest ones.
  std::vector<Cycle> Window() const {
    const std::size_t count = std::min<std::size_t>(closed_.size(), settings_.window);
    return {closed_.end() - static_cast<std::ptrdiff_t>(count), closed_.end()};
  }

  double Total(const std::vector<Cycle>& window) const {
    if (window.size() < settings_.window) return 9999;
    double total = 0;
    for (const Cycle& cycle : window) total += cycle.Sum();
    return total;
  }
  double SquareTotal(const std::vector<Cycle>& window) const {
    if (window.size() < settings_.window) return 9999;
    double total = 0;
    for (const Cycle& cycle : window) total += cycle.Squares();
    return total;
  }

  u32 Average(const std::vector<Cycle>& window) const {
    const double total = Total(window);
    if (total == 9999) return 9999;
    return static_cast<u32>(std::trunc(total / static_cast<double>(window.size())));
  }
  u32 Swing(const std::vector<Cycle>& window, u32 before) const {
    const double squares = SquareTotal(window);
    if (squares == 9999) return 9999;
    const auto n = static_cast<double>(window.size());
    if (n < 2) return before;
    const double avg = delay_avg;
    const double root = std::sqrt(avg * avg + squares / n - 2.0 * Total(window) * avg / n);
    return std::isnan(root) ? 0 : static_cast<u32>(std::trunc(root));
  }

  void Watch(const std::vector<Cycle>& window, u32 now) {
    if (watch_start_ != 0 && watch_start_ + settings_.watch_ms < now) watch_start_ = 0;
    if (watch_start_ != 0) return;
    const auto bursts =
        std::count_if(window.begin(), window.end(), [](const Cycle& c) { return c.burst; });
    if (window.size() >= settings_.max_bursts &&
        bursts >= static_cast<long>(settings_.max_bursts)) {
      watch_start_ = now;
    }
  }

  const Settings settings_;
  u32 cycle_start_;
  std::vector<Cycle> closed_;
  Cycle running_;
  u32 watch_start_ = 0;
};

}  // namespace test
