#include "game/counts.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

namespace game {

bool Counts::Add(uint32_t seq) {
  if (seq >= kMostSeq) return false;
  if (seq >= seen_.size()) seen_.resize(seq + 1, false);
  if (seen_[seq]) {
    ++duplicated_;
    return false;
  }
  seen_[seq] = true;
  ++received_;
  if (seq < next_) ++reordered_;
  next_ = std::max(next_, seq + 1);
  return true;
}

PingFigures Summarize(const std::vector<uint32_t>& round_trips_us) {
  PingFigures figures;
  if (round_trips_us.empty()) return figures;
  const auto ms = [](double us) { return us / 1000; };
  std::vector<uint32_t> sorted = round_trips_us;
  std::sort(sorted.begin(), sorted.end());
  const size_t count = sorted.size();
  figures.min_ms = ms(sorted.front());
  figures.max_ms = ms(sorted.back());
  figures.avg_ms =
      ms(std::accumulate(sorted.begin(), sorted.end(), 0.0) / static_cast<double>(count));
  figures.p50_ms = ms(sorted[(count - 1) / 2]);
  figures.p99_ms = ms(sorted[(count - 1) * 99 / 100]);
  double moved = 0;
  for (size_t i = 1; i < count; ++i) {
    moved += std::abs(static_cast<double>(round_trips_us[i]) - round_trips_us[i - 1]);
  }
  if (count > 1) figures.jitter_ms = ms(moved / static_cast<double>(count - 1));
  return figures;
}

}  // namespace game
