// One path that a kind of datagram takes between a client and the node, and its impairments, drawn
// at random from a seed.
#pragma once
#include "node/socket.h"

namespace node {

// Shares are in percent.
struct Impairment {
  u32 delay_ms = 0;
  u32 jitter_ms = 0;  // up to this much more, order kept
  u32 loss = 0;
  u32 duplicate = 0;
  u32 reorder = 0;        // this share is overtaken by what follows, …
  u32 reorder_by_ms = 0;  // … being this much later
};

// When each copy of a datagram arrives; no copy: it is lost.
struct Fate {
  static constexpr int kMostCopies = 2;

  int copies = 0;
  u64 due[kMostCopies] = {};
};

class Lane {
 public:
  explicit Lane(u64 seed) : state_(seed) {}

  Fate Decide(const Impairment& impairment, u64 now);
  // Draws whether an event with this share happens.
  bool Rolls(u32 percent) { return Draw(100) < percent; }

 private:
  // Below `bound`, which is not 0.
  u32 Draw(u32 bound);

  u64 state_;
  u64 last_due_ = 0;
};

}  // namespace node
