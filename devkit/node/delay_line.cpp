#include "node/delay_line.h"

#include <utility>

namespace node {

bool DelayLine::Add(u64 due, Parcel parcel) {
  const std::size_t cost = parcel.bytes.size() + kOverhead;
  if (bytes_ + cost > kMostBytes) return false;
  bytes_ += cost;
  waiting_.push({due, number_++, std::move(parcel)});
  return true;
}

bool DelayLine::Take(u64 now, Parcel* parcel) {
  if (waiting_.empty() || waiting_.top().due > now) return false;
  *parcel = std::move(waiting_.top().parcel);
  waiting_.pop();
  bytes_ -= parcel->bytes.size() + kOverhead;
  return true;
}

}  // namespace node
