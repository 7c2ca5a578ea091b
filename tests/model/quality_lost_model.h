// A second implementation of losses from sequence numbers: it remembers every slot with every
// arrival, and each question searches all of them. Slow and simple. To change it, read only
// lost_calc.h and not the implementation.
#pragma once
#include <cstdint>
#include <vector>

#include "common/types.h"

namespace test {

using common::u32;

class LostModel {
 public:
  struct Lost {
    u32 lost = 0;
    u32 need = 0;
    u32 real = 0;
    bool operator==(const Lost&) const = default;
  };

  bool Init(u32 start, u32 unit, u32 cycle_size, u32 wait, bool send_tracked);
  void Send(u32 seq);
  void Recv(u32 seq);
  bool Update(u32 now);
  Lost Get(u32 cycles, bool include_current) const;

  const Lost& last() const { return last_; }
  const std::vector<u32>& results() const { return results_; }  // percentages of closed slots

 private:
  struct Slot {
    u32 start = 0;
    u32 base = 0;
    u32 top = 0;
    std::vector<u32> arrivals;
  };

  bool in_grace() const { return slots_.size() > current_ + 1; }
  Slot& Current() { return slots_[current_]; }
  Slot& Open() { return slots_.back(); }
  Slot& Closed() { return slots_[current_ == 0 ? 0 : current_ - 1]; }
  const Slot& InRing(std::int64_t number) const;
  Lost Window(std::int64_t last, u32 span) const;

  bool send_tracked_ = false;
  bool started_ = false;
  u32 unit_ = 1000, cycle_size_ = 5, wait_ = 200;
  std::vector<Slot> slots_{1};  // by number; the one after the current is open in grace
  std::size_t current_ = 0;
  u32 closed_since_start_ = 0;
  Lost last_{103, 0, 0};
  std::vector<u32> results_;
};

}  // namespace test
