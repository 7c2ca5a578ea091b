#include "node/loss_meter.h"

namespace node {
namespace {

// Numbers wrap, so order is a matter of distance.
std::int32_t Distance(u32 from, u32 to) { return static_cast<std::int32_t>(to - from); }

}  // namespace

void LossMeter::Advance(u64 now) {
  const u64 current = now / kSlotMs + kSlots;  // so that there are slots before the first
  if (current <= slot_) return;
  const u32 end = highest();
  if (current - slot_ >= kSlots) slot_ = current - kSlots;
  while (slot_ < current) At(++slot_) = {end, 0};
}

void LossMeter::Note(u32 seq, u64 now) {
  Advance(now);
  std::int32_t ahead = Distance(highest(), seq);
  constexpr auto kFar = static_cast<std::int32_t>(kSpan);
  if (ahead >= kFar || ahead <= -kFar) {
    seen_.reset();
    slots_.fill({seq - 1, 0});
    ahead = 1;
  }
  if (ahead <= 0) return CountLate(seq);
  for (u32 number = highest() + 1; number != seq; ++number) seen_.reset(number % kSpan);
  seen_.set(seq % kSpan);
  At(slot_).end = seq;
  ++At(slot_).received;
}

void LossMeter::CountLate(u32 seq) {
  if (seen_.test(seq % kSpan)) return;
  seen_.set(seq % kSpan);
  for (u64 slot = slot_; slot > slot_ - (kSlots - 1); --slot) {
    if (Distance(At(slot - 1).end, seq) <= 0) continue;
    ++At(slot).received;
    return;
  }
}

u8 LossMeter::Percent(u64 now) {
  Advance(now);
  if (computed_in_ == slot_) return percent_;
  computed_in_ = slot_;
  const u64 newest = slot_ - kRecentSlots;
  const u32 expected = At(newest).end - At(newest - kWindowSlots).end;
  u32 received = 0;
  for (u64 slot = newest; slot > newest - kWindowSlots; --slot) received += At(slot).received;
  percent_ = kNotKnown;
  if (expected >= kLeastExpected)
    percent_ = static_cast<u8>(received < expected ? u64{expected - received} * 100 / expected : 0);
  return percent_;
}

}  // namespace node
