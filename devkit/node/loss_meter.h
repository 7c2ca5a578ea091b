// How much of what a client sends does not arrive, told from the gaps in its numbers: over the last
// five seconds, leaving out the newest moments, whose stragglers may still come.
//
// No rule says over how long a node looks back. Games send some 20 datagrams a second: two seconds
// hold 40 of them, and a single one that is lost reads as 2 percent, from which on a client may
// take the link for a bad one. Five seconds hold 100, so that a percent is a datagram, and they are
// what a client itself looks back over where nothing else is configured.
#pragma once
#include <array>
#include <bitset>

#include "node/socket.h"

namespace node {

class LossMeter {
 public:
  static constexpr u8 kNotKnown = 101;
  static constexpr u32 kLeastExpected = 10;  // datagrams; a share of fewer says nothing
  static constexpr u64 kSlotMs = 100;
  static constexpr u32 kWindowSlots = 50;
  static constexpr u32 kRecentSlots = 3;  // the running one and two before it

  // A datagram with that number has come. A link's first number is 1.
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
  // Numbers further apart than this belong to a sender that has begun anew.
  static constexpr u32 kSpan = 16384;

  Slot& At(u64 slot) { return slots_[static_cast<std::size_t>(slot % kSlots)]; }
  void Advance(u64 now);
  void CountLate(u32 seq);
  u32 highest() { return At(slot_).end; }

  std::array<Slot, kSlots> slots_ = {};
  std::bitset<kSpan> seen_ = {};  // of the last kSpan numbers up to the highest
  u64 slot_ = kSlots;             // the running one
  u64 computed_in_ = 0;
  u8 percent_ = kNotKnown;
};

}  // namespace node
