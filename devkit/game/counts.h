// Counts numbered datagrams: received, duplicated, reordered.
#pragma once

#include <cstdint>
#include <vector>

namespace game {

// Numbers from 0 on. Counts each number once, however often it arrives.
class Counts {
 public:
  // Whether this number has arrived for the first time.
  bool Add(uint32_t seq);

  uint32_t received() const { return received_; }
  uint32_t duplicated() const { return duplicated_; }
  uint32_t reordered() const { return reordered_; }  // arrived after a higher number

 private:
  // A higher number cannot be a valid count, and must not cost memory.
  static constexpr uint32_t kMostSeq = 1u << 24;

  std::vector<bool> seen_;
  uint32_t next_ = 0;  // one more than the highest so far
  uint32_t received_ = 0;
  uint32_t duplicated_ = 0;
  uint32_t reordered_ = 0;
};

struct PingFigures {
  double min_ms = 0, avg_ms = 0, max_ms = 0;
  double p50_ms = 0, p99_ms = 0;
  double jitter_ms = 0;  // mean difference from one to the next
};

// In the order in which they were measured. All zero if there are none.
PingFigures Summarize(const std::vector<uint32_t>& round_trips_us);

}  // namespace game
