#include "quality/probe_burst.h"

#include <algorithm>

namespace moru_vyr::lsp {

void ProbeBurst::Start(u32 probes) noexcept {
  planned_ = std::min(probes, kMost);
  sent_ = 0;
}

void ProbeBurst::NoteSent(u32 seq, u32 now_ms) noexcept {
  if (sent_ < planned_) probes_[sent_++] = {seq, now_ms, false};
}

void ProbeBurst::NoteAnswered(u32 seq) noexcept {
  for (u32 i = 0; i < sent_; ++i) {
    if (probes_[i].seq == seq && seq != 0) probes_[i].answered = true;
  }
}

std::optional<bool> ProbeBurst::IsLossy(u32 now_ms, u32 wait_ms, u32 limit) const noexcept {
  u32 answered = 0;
  u32 lost = 0;
  for (u32 i = 0; i < sent_; ++i) {
    const Probe& probe = probes_[i];
    answered += probe.answered ? 1 : 0;
    if (!probe.answered && (probe.seq == 0 || now_ms - probe.sent_ms >= wait_ms)) ++lost;
  }
  if (lost * 100 >= limit * planned_) return true;
  if ((planned_ - answered) * 100 < limit * planned_) return false;
  return std::nullopt;
}

}  // namespace moru_vyr::lsp
