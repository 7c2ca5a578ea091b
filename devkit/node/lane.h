// The path of one kind of datagram between a client and the node, with its impairments, which are
// drawn at random from a seed.
#pragma once
#include "node/socket.h"

namespace node {

// Shares are in percent.
struct Impairment {
  u32 delay_ms = 0;
  u32 jitter_ms = 0;  // added to the delay, up to this much; datagrams stay in order
  u32 loss = 0;
  u32 duplicate = 0;
  u32 reorder = 0;        // the share of datagrams that later ones overtake
  u32 reorder_by_ms = 0;  // the extra delay of such a datagram
};

// The arrival time of each copy of a datagram; empty if it is lost.
struct Fate {
  static constexpr int kMostCopies = 2;

  int copies = 0;
  u64 due[kMostCopies] = {};
};

class Lane {
 public:
  explicit Lane(u64 seed) : state_(seed) {}

  // A datagram that is delayed is so from `since` milliseconds after `now`.
  Fate Decide(const Impairment& impairment, u64 now, u64 since = 0);
  // Draws whether an event with this share happens.
  bool Rolls(u32 percent) { return Draw(100) < percent; }

 private:
  // Below `bound`, which is not 0.
  u32 Draw(u32 bound);

  u64 state_;
  u64 last_due_ = 0;
};

}  // namespace node
