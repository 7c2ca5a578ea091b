// Datagrams in flight, each until it is due. Bounded: what does not fit is lost, as in any queue of
// a network.
#pragma once
#include <queue>
#include <string>
#include <vector>

#include "node/flow.h"

namespace node {

struct Parcel {
  u64 flow = 0;
  Flow::LaneName lane = Flow::kDataUp;
  bool is_copy = false;  // of a datagram that is in the line, too
  std::string bytes = {};
};

class DelayLine {
 public:
  static constexpr std::size_t kMostBytes = 64 * 1024 * 1024;
  static constexpr u64 kNever = ~u64{0};

  // False if there is no room.
  bool Add(u64 due, Parcel parcel);
  // kNever: nothing waits.
  u64 NextDue() const { return waiting_.empty() ? kNever : waiting_.top().due; }
  // Takes the first one that is due; false if there is none. Those due at the same time keep their
  // order.
  bool Take(u64 now, Parcel* parcel);

 private:
  struct Waiting {
    u64 due, number;
    mutable Parcel parcel;  // moved out of the queue's top, which is const

    bool operator<(const Waiting& other) const {
      return due != other.due ? due > other.due : number > other.number;
    }
  };

  // The size of a parcel in addition to its bytes; empty datagrams must count, too.
  static constexpr std::size_t kOverhead = 128;

  std::priority_queue<Waiting> waiting_;
  std::size_t bytes_ = 0;
  u64 number_ = 0;
};

}  // namespace node
