// The verdict of a burst of probes by its own answers, given as soon as it is certain: an answer
// that can still come counts for neither side.
//
// Owned by a RealRouteSpeedTest, used by its thread alone. Nothing allocates, nothing throws.
#pragma once
#include <array>
#include <optional>

#include "common/types.h"

namespace moru_vyr::lsp {

class ProbeBurst {
 public:
  // A longer burst is judged by as many of its probes.
  static constexpr u32 kMost = 64;

  // A burst of so many probes begins.
  void Start(u32 probes) noexcept;
  void Stop() noexcept { planned_ = 0; }
  bool IsRunning() const noexcept { return planned_ != 0; }

  // A probe has left with that number, or, with 0, could not leave.
  void NoteSent(u32 seq, u32 now_ms) noexcept;
  void NoteAnswered(u32 seq) noexcept;

  // Whether the burst loses `limit` percent or more; no value while that is open. A probe without
  // an answer is lost after `wait_ms`.
  std::optional<bool> IsLossy(u32 now_ms, u32 wait_ms, u32 limit) const noexcept;

 private:
  struct Probe {
    u32 seq = 0;
    u32 sent_ms = 0;
    bool answered = false;
  };

  std::array<Probe, kMost> probes_ = {};
  u32 planned_ = 0;  // 0: there is no burst
  u32 sent_ = 0;
};

}  // namespace moru_vyr::lsp
