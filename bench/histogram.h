// Counts of durations, for percentiles of any number of them. A plain value: it goes through a
// pipe.
#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace bench {

// A value is known within 1/64 of itself: 64 buckets for each power of two, as in the usual
// histograms of a high dynamic range.
class Histogram {
 public:
  void Add(std::uint64_t value) {
    ++counts_[BucketOf(value)];
    ++count_;
  }

  void Add(const Histogram& other) {
    for (std::size_t i = 0; i < counts_.size(); ++i) counts_[i] += other.counts_[i];
    count_ += other.count_;
  }

  std::uint64_t count() const { return count_; }

  // The value that `share` of all values do not exceed; 0 without values.
  std::uint64_t Quantile(double share) const {
    if (count_ == 0) return 0;
    const auto wanted = static_cast<std::uint64_t>(share * static_cast<double>(count_));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      seen += counts_[i];
      if (seen > wanted || seen == count_) return EndOf(i);
    }
    return EndOf(counts_.size() - 1);
  }

 private:
  static constexpr unsigned kSubBits = 6;
  static constexpr std::uint64_t kSub = 1u << kSubBits;
  static constexpr unsigned kMostBits = 36;  // above a minute of nanoseconds
  static constexpr std::size_t kBuckets = (kMostBits - kSubBits + 1) * kSub;

  // Below kSub a value is its own bucket. Above, its leading bits are.
  static std::size_t BucketOf(std::uint64_t value) {
    value = std::min(value, (std::uint64_t{1} << kMostBits) - 1);
    if (value < kSub) return static_cast<std::size_t>(value);
    const unsigned shift = static_cast<unsigned>(std::bit_width(value)) - kSubBits - 1;
    return static_cast<std::size_t>((shift + 1) * kSub + (value >> shift) - kSub);
  }
  // The largest value of a bucket.
  static std::uint64_t EndOf(std::size_t bucket) {
    if (bucket < kSub) return bucket;
    const std::uint64_t shift = bucket / kSub - 1;
    return ((bucket % kSub + kSub + 1) << shift) - 1;
  }

  std::uint64_t count_ = 0;
  std::array<std::uint32_t, kBuckets> counts_ = {};
};

}  // namespace bench
