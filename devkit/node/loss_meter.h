// The loss of a client's datagrams, computed from the gaps in their numbers over the last five
// seconds, without the most recent moments, whose late datagrams may still arrive.
//
// There is no rule for how far a node looks back. Games send about 20 datagrams a second. Two
// seconds contain 40 of them, so a single loss counts as 2 percent, at which a client may already
// judge the link bad. Five seconds contain 100, so a percent is one datagram; and five seconds is
// how far a client looks back by default.
#pragma once
#include <array>
#include <bitset>

#include "node/socket.h"

namespace node {

class LossMeter {
 public:
  static constexpr u8 kNotKnown = 101;
  static constexpr u32 kLeastExpected = 10;  // datagrams; the share of fewer means nothing
  static constexpr u64 kSlotMs = 100;
  static constexpr u32 kWindowSlots = 50;
  static constexpr u32 kRecentSlots = 3;  // the current one and the two before it

  // A datagram with that number has arrived. A link's first number is 1.
  void Note(u32 seq, u64 now);
  // 0 to 100, or kNotKnown.
  u8 Percent(u64 now);

 private:
  // The numbers above the end of the slot before, up to and including `end`.
  struct Slot {
    u32 end = 0;
    u32 received = 0;
  };

  static constexpr u32 kSlots = kWindowSlots + kRecentSlots + 1;
  // A larger gap means that the sender has started again.
  static constexpr u32 kSpan = 16384;

  Slot& At(u64 slot) { return slots_[static_cast<std::size_t>(slot % kSlots)]; }
  void Advance(u64 now);
  void CountLate(u32 seq);
  u32 highest() { return At(slot_).end; }

  std::array<Slot, kSlots> slots_ = {};
  std::bitset<kSpan> seen_ = {};  // of the last kSpan numbers up to the highest
  u64 slot_ = kSlots;             // the current one
  u64 computed_in_ = 0;
  u8 percent_ = kNotKnown;
};

}  // namespace node
