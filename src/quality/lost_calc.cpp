#include "quality/lost_calc.h"

#include <algorithm>

namespace moru_vyr::lsp {
namespace {

// Above the base of a slot and up to the highest number sent.
bool IsExpected(const LostCycle& slot, u32 seq) noexcept {
  return seq > slot.min_seq && seq <= slot.max_seq;
}

// Below the highest number seen: that one was counted when it came.
bool IsGap(const LostCycle& slot, u32 seq) noexcept {
  return seq > slot.min_seq && seq < slot.max_seq;
}

void Extend(LostCycle* slot, u32 seq) noexcept {
  if (seq > slot->max_seq) {
    slot->max_seq = seq;
  } else if (seq < slot->min_seq) {
    slot->min_seq = seq;
  }
}

void StoreCounts(u32 need_count, u32 real_count, u32* need, u32* real) noexcept {
  if (need != nullptr) *need = need_count;
  if (real != nullptr) *real = real_count;
}

}  // namespace

int LostCalc::Init(u32 start_time, u16 unit_ms, u16 cycle_size, u16 wait_ms, u32 min_pkgs,
                   bool send_tracked) noexcept {
  cycles_[0].start_time = start_time;
  unit_ms_ = unit_ms;
  cycle_size_ = cycle_size;
  wait_ms_ = wait_ms;
  min_pkgs_ = min_pkgs;
  send_tracked_ = send_tracked;
  if (unit_ms < kMinUnitMs || cycle_size == 0 || cycle_size > kSlots) return -1;
  return 0;
}

void LostCalc::Start(u32 seq) noexcept {
  cycle_count_ = 0;
  started_ = true;
  next().min_seq = seq;
  next().max_seq = seq;
}

void LostCalc::AddOneSend(u32 seq) noexcept {
  if (!send_tracked_) return;
  if (!started_) Start(seq);
  Extend(in_grace_ ? &next() : &cur(), seq);
}

void LostCalc::AddOneRecv(u32 seq) noexcept {
  if (send_tracked_) {
    CountSendTracked(seq);
  } else if (started_) {
    CountReceiveTracked(seq);
  } else {
    Start(seq);  // a base to count from; not counted itself
  }
}

// A duplicate within a range counts each time, so that more can come than was expected.
void LostCalc::CountSendTracked(u32 seq) noexcept {
  if (IsExpected(cur(), seq)) {
    ++cur().recv_count;
  } else if (in_grace_ && IsExpected(next(), seq)) {
    ++next().recv_count;
  } else if (IsExpected(prev(), seq)) {
    ++prev().recv_count;
  }
}

void LostCalc::CountReceiveTracked(u32 seq) noexcept {
  if (IsGap(cur(), seq)) {
    ++cur().recv_count;
  } else if (seq > cur().max_seq) {
    LostCycle& slot = in_grace_ ? next() : cur();
    ++slot.recv_count;
    slot.max_seq = std::max(slot.max_seq, seq);
  } else if (IsGap(prev(), seq)) {
    ++prev().recv_count;
  }
}

bool LostCalc::Update(u32 now_ms) noexcept {
  if (!in_grace_) {
    if (now_ms >= unit_ms_ + cur().start_time) OpenNext(now_ms);
    return false;
  }
  if (now_ms < wait_ms_ + next().start_time) return false;
  CloseCurrent();
  return true;
}

void LostCalc::OpenNext(u32 now_ms) noexcept {
  next_index_ = static_cast<u16>((cur_index_ + 1) % kSlots);
  next() = {now_ms, cur().max_seq, cur().max_seq, 0};
  in_grace_ = true;
}

void LostCalc::CloseCurrent() noexcept {
  // Guard: a size that was refused must not leave the ring.
  u16 span = std::min(cycle_size_, kSlots);
  if (cycle_count_ < span) span = static_cast<u16>(cycle_count_ + 1);
  last_lost_ = Calc(cur_index_, span, &need_recv_pkg_, &real_recv_pkgs_);
  if (last_lost_ <= 100) {
    ++lost_accum_count_;
    lost_accum_ += last_lost_;
  }
  ++cycle_count_;
  prev_index_ = cur_index_;
  cur_index_ = next_index_;
  in_grace_ = false;
}

u8 LostCalc::GetCurLost(u16 cycles, u32* need, u32* real, bool include_current) const noexcept {
  cycles = std::min(cycles, kSlots);
  if (cycle_count_ < cycles) {
    cycles = static_cast<u16>(include_current ? cycle_count_ + 1 : cycle_count_);
  }
  if (cycles == 0) {
    StoreCounts(0, 0, need, real);
    return kLostNoRange;
  }
  const int index = include_current ? cur_index_ : (cur_index_ + kSlots - 1) % kSlots;
  return Calc(static_cast<u16>(index), cycles, need, real);
}

// Kept: the ring has no more slots than the longest window, so a window of all of them takes for
// its oldest slot the one that has been opened since.
u8 LostCalc::Calc(u16 index, u16 span, u32* need, u32* real) const noexcept {
  const u16 first = static_cast<u16>((index - span + kSlots + 1) % kSlots);
  const u32 top = cycles_[index].max_seq;
  const u32 bottom = cycles_[first].min_seq;
  if (top < bottom) {
    StoreCounts(0, 0, need, real);
    return kLostBackwards;
  }
  const u32 expected = top - bottom;
  u32 received = 0;
  for (u16 i = first; i != index; i = static_cast<u16>((i + 1) % kSlots)) {
    received += cycles_[i].recv_count;
  }
  received += cycles_[index].recv_count;
  StoreCounts(expected, received, need, real);
  if (top == bottom) return kLostNoRange;
  if (received >= expected) return 0;
  return static_cast<u8>((expected - received) * 100 / expected);
}

}  // namespace moru_vyr::lsp
