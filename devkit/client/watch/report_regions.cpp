#include "client/watch/report_regions.h"

#include "client/bounded_lock.h"
#include "client/watch/report_fields.h"

namespace client {
namespace {

using moru_vyr::lsp::ReportChannel;

bool IsUsable(common::Shared_mem_obj* owner) {
  const bool usable = owner->Open(common::kOpenForReading, true) != nullptr;
  owner->Close();
  return usable;
}

}  // namespace

std::string ReportRegions::Make(unsigned wait_ms) {
  std::string failures;
  for (int i = 0; i < kReportKindCount; ++i) {
    const ReportChannel& channel = *ChannelOf(static_cast<ReportKind>(i)).channel;
    const BoundedLock lock(channel.mutex_name, wait_ms);
    if (lock.owns()) {
      auto owner = std::make_unique<common::Shared_mem_obj>(
          channel.mapping_name, channel.region_size, channel.mutex_name, false);
      if (IsUsable(owner.get())) {
        owners_.push_back(std::move(owner));
        continue;
      }
    }
    failures +=
        (failures.empty() ? "no reports through " : ", ") + std::string(channel.mapping_name);
  }
  return failures.empty() ? ""
                          : failures +
                                ": another process holds it, or a program of another "
                                "version has made it";
}

}  // namespace client
