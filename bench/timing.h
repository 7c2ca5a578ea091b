// How the benchmarks of whole processes measure and print times.
#pragma once
#include <algorithm>
#include <ctime>
#include <vector>

namespace bench {

inline double Seconds(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Spread {
  double median = 0;
  double p99 = 0;
};

// Zero for no values.
inline Spread SpreadOf(std::vector<double> times) {
  if (times.empty()) return {};
  std::sort(times.begin(), times.end());
  return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

}  // namespace bench
