#include "node/lane.h"

#include <algorithm>

namespace node {

u32 Lane::Draw(u32 bound) {
  state_ += 0x9E3779B97F4A7C15;
  u64 mixed = state_;
  mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
  mixed ^= mixed >> 31;
  return static_cast<u32>((mixed >> 32) * bound >> 32);
}

Fate Lane::Decide(const Impairment& impairment, u64 now, u64 since) {
  // Everything is drawn for every datagram, so that with one seed the third is lost whatever
  // else may happen to the others.
  const bool lost = Rolls(impairment.loss);
  const bool doubled = Rolls(impairment.duplicate);
  const bool overtaken = Rolls(impairment.reorder);
  const u32 jitter = Draw(impairment.jitter_ms + 1);
  if (lost) return {};
  const u32 wait = impairment.delay_ms + jitter;
  u64 due = std::max(now + (wait > 0 ? since + wait : 0), last_due_);
  if (overtaken) {
    due += impairment.reorder_by_ms;
  } else {
    last_due_ = due;
  }
  return {.copies = doubled ? 2 : 1, .due = {due, due}};
}

}  // namespace node
