// A channel held open for one report: from its construction to its destruction it holds the
// channel's mutex, if there is a channel.
//
// Guard: makes no region, since the client program decides whether there is one. If it cannot open
// one for lack of memory, the channel counts as missing.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstring>
#include <optional>

#include "abi/report_records.h"
#include "common/log.h"
#include "common/shared_mem_obj.h"

namespace moru_vyr::lsp {

template <typename Record, const ReportChannel& kChannel>
class ReportSlot {
 public:
  static constexpr u32 kSlots = kChannel.slot_count;

  ReportSlot() noexcept {
    try {
      if (!common::Shared_mem_obj::Exists(kChannel.mapping_name)) return;
      owner_.emplace(kChannel.mapping_name, kChannel.region_size, kChannel.mutex_name, false);
    } catch (...) {
      return;
    }
    const common::Shared_mem_ptr<Region> view(&*owner_, common::kOpenForWriting, true);
    region_ = view.get();
    if (region_ == nullptr) return;
    for (index_ = 0; index_ < kSlots; ++index_) {
      if (region_->slots[index_].used == 0) break;
    }
  }
  ~ReportSlot() {
    if (owner_) owner_->Close();
  }

  bool has_region() const noexcept { return region_ != nullptr; }
  bool is_free() const noexcept { return region_ != nullptr && index_ < kSlots; }
  int index() const noexcept { return static_cast<int>(index_); }

  // Whether there is a free slot. If not, logs the line that gives the reason.
  bool IsFreeOr(const char* no_region, const char* no_free_slot) const noexcept {
    if (!is_free()) LSP_LOG(4, "%s", has_region() ? no_free_slot : no_region);
    return is_free();
  }

  // Only into a free slot. First the body and then the mark, as two writes that stay in that order:
  // if the process is terminated in the middle, its mutex goes to the next one, which must find the
  // slot either free or complete. A single copy would begin with the mark.
  void Write(const Record& record) noexcept {
    static_assert(offsetof(Record, used) == 0 && sizeof record.used == 1);
    auto* const slot = reinterpret_cast<u8*>(&region_->slots[index_]);
    std::memcpy(slot + 1, reinterpret_cast<const u8*>(&record) + 1, sizeof record - 1);
    std::atomic_ref<u8>(*slot).store(1, std::memory_order_release);
  }

 private:
  using Region = ReportRegion<Record, kSlots>;

  std::optional<common::Shared_mem_obj> owner_;
  Region* region_ = nullptr;
  u32 index_ = 0;
};

using DecisionSlot = ReportSlot<AccDecisionInfo, kDecisionChannel>;
using CommunicationSlot = ReportSlot<CommInfoRecord, kCommunicationChannel>;
using LogPathSlot = ReportSlot<LogPathRecord, kLogPathChannel>;
using LoadedSlot = ReportSlot<LspLoadedRecord, kLoadedChannel>;
using NegotiationResultSlot = ReportSlot<NegRetRecord, kNegotiationResultChannel>;
using RealNegotiationSlot = ReportSlot<RealNegoRecord, kRealNegotiationChannel>;
using RecoverySwitchSlot = ReportSlot<RecoverySwitchRecord, kRecoverySwitchChannel>;

}  // namespace moru_vyr::lsp
