#include "client/watch/flow_intervals.h"

#include <algorithm>

namespace client {
namespace {

constexpr double kBurstFactor = 2;       // as many probes a second as usual
constexpr double kLeastBurstProbes = 4;  // beyond the usual ones

// The stretch from the last delay that was given, in one half of a flow's probes.
class Stretch {
 public:
  IntervalSection Next(const std::optional<Section>& now) {
    IntervalSection result;
    if (!now || now->answered < from_.answered || now->asked < before_.asked) {
      from_ = before_ = {};
      if (!now) return result;
    }
    result.lost = LostSince(*now);
    before_ = *now;
    const double count = now->answered - from_.answered;
    if (count == 0) return result;
    // Each average stands for a sum between n times it and n times one more.
    const double error = (double{1} * now->answered + from_.answered) / 2 / count;
    if (error > kMostErrorMs) return result;
    const double sum = (now->delay_avg + 0.5) * now->answered -
                       (from_.answered == 0 ? 0 : (from_.delay_avg + 0.5) * from_.answered);
    result.delay = std::max(0.0, sum / count);
    result.error = error;
    from_ = *now;
    return result;
  }

 private:
  std::optional<double> LostSince(const Section& now) const {
    const uint32_t asked = now.asked - before_.asked;
    if (asked == 0) return std::nullopt;
    const uint32_t answered =
        std::min(asked, now.answered - std::min(now.answered, before_.answered));
    return (asked - answered) * 100.0 / asked;
  }

  Section from_, before_;
};

double Seconds(const std::vector<FlowPoint>& points, size_t i) {
  return static_cast<double>(points[i].time_ms -
                             std::min(points[i].time_ms, points[i - 1].time_ms)) /
         1000;
}

// Probes between a point and the one before it. Negative: they cannot be compared.
double ProbesSince(const std::vector<FlowPoint>& points, size_t i) {
  const FlowPoint &now = points[i], &before = points[i - 1];
  if (now.stay != before.stay || !now.frontend || !before.frontend) return -1;
  if (now.frontend->asked < before.frontend->asked || now.time_ms <= before.time_ms) return -1;
  return now.frontend->asked - before.frontend->asked;
}

void FindBursts(const std::vector<FlowPoint>& points, std::vector<Interval>* intervals) {
  std::vector<double> rates;
  for (size_t i = 1; i < points.size(); ++i) {
    if (const double probes = ProbesSince(points, i); probes >= 0) {
      rates.push_back(probes / Seconds(points, i));
    }
  }
  if (rates.size() < 3) return;
  const auto middle = rates.begin() + static_cast<std::ptrdiff_t>(rates.size() / 2);
  std::nth_element(rates.begin(), middle, rates.end());
  for (size_t i = 1; i < points.size(); ++i) {
    const double usual = *middle * Seconds(points, i), probes = ProbesSince(points, i);
    (*intervals)[i].is_burst = probes > usual * kBurstFactor && probes >= usual + kLeastBurstProbes;
  }
}

}  // namespace

std::vector<Interval> IntervalsOf(const std::vector<FlowPoint>& points) {
  std::vector<Interval> intervals(points.size());
  Stretch front, back;
  for (size_t i = 0; i < points.size(); ++i) {
    if (i > 0 && points[i].stay != points[i - 1].stay) front = back = {};
    intervals[i].frontend = front.Next(points[i].frontend);
    intervals[i].backend = back.Next(points[i].backend);
  }
  FindBursts(points, &intervals);
  return intervals;
}

}  // namespace client
