#include "client/watch/report_drain.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <iterator>

#include "abi/report_records.h"
#include "client/bounded_lock.h"
#include "client/watch/report_fields.h"

namespace client {
namespace {

using moru_vyr::lsp::CommInfoRecord;
using moru_vyr::lsp::kReportHeaderSize;
using moru_vyr::lsp::ReportChannel;

constexpr std::byte kFree{0};
constexpr uint32_t kLongestWaitMs = 24 * 3600 * 1000;

// Figures carry the tick at which they were true, and the tick is one for all processes.
uint64_t TimeOf(const Report& report) {
  const uint64_t now = NowMs();
  if (report.kind != kCommunicationReport) return now;
  const auto record = report.As<CommInfoRecord>();
  const uint32_t age = GetTickCount() - (record.create_tick + record.life);
  return age < kLongestWaitMs ? now - age : now;
}

const ReportChannel& Channel(ReportKind kind) { return *ChannelOf(kind).channel; }

std::byte* SlotAt(void* region, const ReportChannel& channel, uint32_t slot) {
  return static_cast<std::byte*>(region) + kReportHeaderSize + size_t{slot} * channel.slot_size;
}

void FreeSlot(void* region, const Report& report) {
  std::byte* const slot = SlotAt(region, Channel(report.kind), report.slot);
  if (std::equal(report.bytes.begin(), report.bytes.end(), slot)) *slot = kFree;
}

}  // namespace

uint64_t NowMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void ReportDrain::CopyUsed(void* region, ReportKind kind, std::vector<Report>* reports) const {
  const ReportChannel& channel = Channel(kind);
  for (uint32_t slot = 0; slot < channel.slot_count; ++slot) {
    const std::byte* const from = SlotAt(region, channel, slot);
    if (*from == kFree) continue;
    Report report = {.kind = kind, .slot = slot, .bytes = {from, from + channel.slot_size}};
    const bool is_known = std::any_of(not_freed_.begin(), not_freed_.end(), [&](const Report& old) {
      return old.kind == kind && old.slot == slot && old.bytes == report.bytes;
    });
    if (is_known) continue;
    report.time_ms = TimeOf(report);
    reports->push_back(std::move(report));
  }
}

// A region is kept open once it has been found, so that the reports of the last games outlive their
// client program.
common::Shared_mem_obj* ReportDrain::Owner(ReportKind kind) {
  auto& owner = owners_[kind];
  const ReportChannel& channel = Channel(kind);
  if (!owner && common::Shared_mem_obj::Exists(channel.mapping_name)) {
    owner = std::make_unique<common::Shared_mem_obj>(channel.mapping_name, channel.region_size,
                                                     channel.mutex_name, false);
  }
  return owner.get();
}

bool ReportDrain::TakeChannel(ReportKind kind, unsigned wait_ms, std::vector<Report>* reports) {
  const ReportChannel& channel = Channel(kind);
  if (!owners_[kind] && !common::Shared_mem_obj::Exists(channel.mapping_name)) return true;
  any_region_ = true;
  const BoundedLock lock(channel.mutex_name, wait_ms);
  if (!lock.owns()) return false;
  common::Shared_mem_obj* const owner = Owner(kind);
  if (owner == nullptr) return true;
  void* const region = owner->Open(common::kOpenForReading, true);
  if (region != nullptr) CopyUsed(region, kind, reports);
  owner->Close();
  // A region of another version is closed again, so that it can end and be made anew in the right
  // version.
  if (region == nullptr) owners_[kind] = nullptr;
  return region != nullptr;
}

std::vector<Report> ReportDrain::Take(unsigned wait_ms) {
  std::vector<Report> reports;
  any_region_ = false;
  trouble_.clear();
  for (int i = 0; i < kReportKindCount; ++i) {
    const ReportKind kind = static_cast<ReportKind>(i);
    if (TakeChannel(kind, wait_ms, &reports)) continue;
    trouble_ +=
        (trouble_.empty() ? "cannot read " : ", ") + std::string(Channel(kind).mapping_name);
  }
  return reports;
}

bool ReportDrain::FreeChannel(ReportKind kind, const std::vector<Report>& reports,
                              unsigned wait_ms) {
  const BoundedLock lock(Channel(kind).mutex_name, wait_ms);
  if (!lock.owns()) return false;
  const common::Shared_mem_closer closer(owners_[kind].get());
  void* const region = owners_[kind]->Open(common::kOpenForWriting, true);
  for (const Report& report : reports) {
    if (region != nullptr && report.kind == kind) FreeSlot(region, report);
  }
  return true;
}

void ReportDrain::GiveBack(std::vector<Report> reports, unsigned wait_ms) {
  reports.insert(reports.end(), not_freed_.begin(), not_freed_.end());
  not_freed_.clear();
  for (int i = 0; i < kReportKindCount; ++i) {
    const ReportKind kind = static_cast<ReportKind>(i);
    const auto is_of_kind = [kind](const Report& report) { return report.kind == kind; };
    if (!owners_[kind] || std::none_of(reports.begin(), reports.end(), is_of_kind)) continue;
    if (FreeChannel(kind, reports, wait_ms)) continue;
    std::copy_if(reports.begin(), reports.end(), std::back_inserter(not_freed_), is_of_kind);
  }
}

}  // namespace client
