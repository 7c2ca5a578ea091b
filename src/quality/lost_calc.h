// The share of a stream of numbered packets that did not arrive, over a sliding window of slots.
//
// What was expected of a slot is a range of numbers. If the sender's numbers are known (probes),
// the sends make the range; if only arrivals are seen (data from a node), the highest number seen
// does. A slot that has ended keeps counting late packets for a grace period, while the next one is
// already open.
//
// Owned by a RecoverySwitch, used by its thread alone. Times are milliseconds from a start that the
// owner chooses. Nothing allocates, nothing throws.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

// A loss is a percentage from 0 to 100, or one of these.
inline constexpr u8 kLostTooFew = 101;   // too few packets in the last slots to say
inline constexpr u8 kLostNoRange = 102;  // nothing was expected, or no slot has closed yet
inline constexpr u8 kLostNeverComputed = 103;
inline constexpr u8 kLostBackwards = 201;  // the numbers started again from below

// One slot. Expects the numbers above min_seq up to and including max_seq.
struct LostCycle {
  u32 start_time = 0;
  u32 min_seq = 0;
  u32 max_seq = 0;
  u32 recv_count = 0;
};

class LostCalc {
 public:
  static constexpr u16 kSlots = 60;
  static constexpr u16 kMinUnitMs = 11;

  // 0, or -1 for a unit below kMinUnitMs and for a cycle_size that is 0 or above kSlots; the values
  // are stored in either case. Nothing is cleared: a second call keeps the slots, so that with an
  // earlier clock they do not advance until their own start times are reached again.
  int Init(u32 start_time, u16 unit_ms, u16 cycle_size, u16 wait_ms, u32 min_pkgs,
           bool send_tracked) noexcept;

  void AddOneSend(u32 seq) noexcept;  // no effect where arrivals make the range
  void AddOneRecv(u32 seq) noexcept;

  // True when a slot closed. Each call takes one step, even if it is late: the end of a slot takes
  // one call to open the grace period and another to close it.
  bool Update(u32 now_ms) noexcept;

  // The loss over the last `cycles` slots (kSlots at most), including the running one or not, with
  // the number of packets expected and received. Either pointer may be null.
  u8 GetCurLost(u16 cycles, u32* need, u32* real, bool include_current) const noexcept;

  // Whether so many slots have closed since the first packet, or without one.
  bool HasSlots(u16 slots) const noexcept { return cycle_count_ >= slots; }

  // As of the last closing, over cycle_size slots.
  u8 last_lost() const noexcept { return last_lost_; }
  u32 need_recv_pkg() const noexcept { return need_recv_pkg_; }
  u32 real_recv_pkgs() const noexcept { return real_recv_pkgs_; }
  u32 min_pkgs() const noexcept { return min_pkgs_; }
  // Over all closed slots since the first packet: the sum of the results from 0 to 100, and their
  // number.
  u32 lost_accum() const noexcept { return lost_accum_; }
  u32 lost_accum_count() const noexcept { return lost_accum_count_; }

 private:
  void Start(u32 seq) noexcept;
  void CountSendTracked(u32 seq) noexcept;
  void CountReceiveTracked(u32 seq) noexcept;
  void OpenNext(u32 now_ms) noexcept;
  void CloseCurrent() noexcept;
  u8 Calc(u16 index, u16 span, u32* need, u32* real) const noexcept;

  LostCycle& cur() noexcept { return cycles_[cur_index_]; }
  LostCycle& next() noexcept { return cycles_[next_index_]; }
  LostCycle& prev() noexcept { return cycles_[prev_index_]; }

  bool send_tracked_ = false;
  bool started_ = false;  // never goes back
  bool in_grace_ = false;
  u8 last_lost_ = kLostNeverComputed;
  u32 need_recv_pkg_ = 0;
  u32 real_recv_pkgs_ = 0;
  u16 unit_ms_ = 1000;
  u16 cycle_size_ = 5;
  u16 wait_ms_ = 200;
  u32 min_pkgs_ = 20;  // for the owner; not used here
  u16 cur_index_ = 0;
  u16 next_index_ = 0;
  u16 prev_index_ = 0;
  LostCycle cycles_[kSlots] = {};
  u32 lost_accum_ = 0;
  u32 lost_accum_count_ = 0;
  u32 cycle_count_ = 0;  // closed slots since the first packet
};

}  // namespace moru_vyr::lsp
