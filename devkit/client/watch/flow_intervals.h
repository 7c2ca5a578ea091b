// What the probes found between two reports, taken from their figures since the start.
#pragma once

#include <optional>
#include <vector>

#include "client/watch/flow.h"

namespace client {

struct IntervalSection {
  std::optional<double> delay;  // milliseconds, on average
  double error = 0;             // how far off it can be
  std::optional<double> lost;   // percent
};

// What lies between a point and the one before it of the same node.
struct Interval {
  IntervalSection frontend, backend;
  bool is_burst = false;  // far more probes than usual
};

// One for each point. Averages are reported in whole milliseconds, so the difference of two of them
// tells the less the more probes stand behind them: a delay is given once it is right to within
// kMostErrorMs, for the time since the one that was given before.
inline constexpr double kMostErrorMs = 5;
std::vector<Interval> IntervalsOf(const std::vector<FlowPoint>& points);

}  // namespace client
