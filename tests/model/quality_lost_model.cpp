#include "tests/model/quality_lost_model.h"

#include <algorithm>

namespace test {
namespace {

constexpr std::int64_t kRing = 60;  // slots that can be told from one another

}  // namespace

bool LostModel::Init(u32 start, u32 unit, u32 cycle_size, u32 wait, bool send_tracked) {
  // The slot whose number is a multiple of sixty gets the time, whatever the others have.
  for (std::size_t i = 0; i < slots_.size(); i += kRing) slots_[i].start = start;
  unit_ = unit;
  cycle_size_ = cycle_size;
  wait_ = wait;
  send_tracked_ = send_tracked;
  return unit >= 11 && cycle_size >= 1 && cycle_size <= 60;
}

void LostModel::Send(u32 seq) {
  if (!send_tracked_) return;
  if (!started_) {
    started_ = true;
    closed_since_start_ = 0;
    Open().base = Open().top = seq;
  }
  Slot& slot = Open();  // the current one itself when nothing is opening
  if (seq > slot.top) {
    slot.top = seq;
  } else {
    slot.base = std::min(slot.base, seq);
  }
}

void LostModel::Recv(u32 seq) {
  if (!send_tracked_ && !started_) {
    started_ = true;
    closed_since_start_ = 0;
    Open().base = Open().top = seq;
    return;
  }
  if (send_tracked_) {
    std::vector<Slot*> looked_at = {&Current()};
    if (in_grace()) looked_at.push_back(&Open());
    looked_at.push_back(&Closed());
    for (Slot* slot : looked_at) {
      if (seq <= slot->base || seq > slot->top) continue;
      slot->arrivals.push_back(seq);
      return;
    }
    return;
  }
  if (seq > Current().top) {
    Open().arrivals.push_back(seq);
    if (seq > Open().top) Open().top = seq;
    return;
  }
  for (Slot* slot : {&Current(), &Closed()}) {
    if (seq <= slot->base || seq >= slot->top) continue;
    slot->arrivals.push_back(seq);
    return;
  }
}

bool LostModel::Update(u32 now) {
  if (!in_grace()) {
    if (now < unit_ + Current().start) return false;
    Slot slot;
    slot.start = now;
    slot.base = slot.top = Current().top;
    slots_.push_back(slot);
    return false;
  }
  if (now < wait_ + Open().start) return false;
  const u32 span = closed_since_start_ < cycle_size_ ? closed_since_start_ + 1 : cycle_size_;
  last_ = Window(static_cast<std::int64_t>(current_), span);
  if (last_.lost <= 100) results_.push_back(last_.lost);
  ++closed_since_start_;
  ++current_;
  return true;
}

LostModel::Lost LostModel::Get(u32 cycles, bool include_current) const {
  cycles = std::min(cycles, 60u);
  if (closed_since_start_ < cycles) {
    cycles = closed_since_start_ + (include_current ? 1 : 0);
  }
  if (cycles == 0) return {102, 0, 0};
  return Window(static_cast<std::int64_t>(current_) - (include_current ? 0 : 1), cycles);
}

// What a ring of sixty holds in the place of a slot: the latest with its number, sixty by sixty.
const LostModel::Slot& LostModel::InRing(std::int64_t number) const {
  static const Slot kNeverUsed;
  const std::int64_t place = ((number % kRing) + kRing) % kRing;
  const auto count = static_cast<std::int64_t>(slots_.size());
  if (place >= count) return kNeverUsed;
  const std::int64_t latest = place + (count - 1 - place) / kRing * kRing;
  return slots_[static_cast<std::size_t>(latest)];
}

LostModel::Lost LostModel::Window(std::int64_t last, u32 span) const {
  const std::int64_t first = last - span + 1;
  const u32 top = InRing(last).top;
  const u32 base = InRing(first).base;
  if (top < base) return {201, 0, 0};
  Lost lost{0, top - base, 0};
  for (std::int64_t number = first; number <= last; ++number) {
    lost.real += static_cast<u32>(InRing(number).arrivals.size());
  }
  if (lost.need == 0) {
    lost.lost = 102;
  } else if (lost.real < lost.need) {
    lost.lost = (lost.need - lost.real) * 100u / lost.need % 256u;
  }
  return lost;
}

}  // namespace test
