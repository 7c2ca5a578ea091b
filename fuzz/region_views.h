// Regions of shared memory as another program leaves them: a sample of each, which the input
// changes.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "abi/report_channels.h"
#include "check.h"
#include "common/types.h"
#include "input.h"

namespace fuzz {

using common::u32;
using common::u8;

// One run of bytes that the other program changes.
struct Patch {
  u8* at = nullptr;
  std::vector<u8> before, after;
};

inline void Write(u8* at, const std::vector<u8>& bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::atomic_ref<u8>(at[i]).store(bytes[i], std::memory_order_relaxed);
  }
}

// They exist until the process ends.
class RegionViews {
 public:
  void Add(const char* name, std::vector<u8> sample) {
    const auto size = static_cast<DWORD>(sample.size());
    const HANDLE mapping =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
    auto* const view = static_cast<u8*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size));
    Require(view != nullptr, name);
    all_.push_back({name, std::move(sample), view});
  }
  template <class Record>
  void Add(const char* name, const Record& record) {
    const auto* const bytes = reinterpret_cast<const u8*>(&record);
    Add(name, std::vector<u8>(bytes, bytes + sizeof record));
  }
  // The first slot is used, and every other up to the last.
  void Add(const moru_vyr::lsp::ReportChannel& channel) {
    std::vector<u8> sample(channel.region_size);
    const common::SharedMemHeader header = {channel.region_size, 1, 36};
    std::memcpy(sample.data(), &header, sizeof header);
    for (u32 slot = 0; slot < channel.slot_count; slot += slot == 0 ? 1 : 2) {
      sample[moru_vyr::lsp::kReportHeaderSize + std::size_t{slot} * channel.slot_size] = 1;
    }
    Add(channel.mapping_name, std::move(sample));
  }

  void Reset() {
    for (Region& one : all_) std::copy(one.sample.begin(), one.sample.end(), one.view);
  }
  u8* Of(const char* name) const {
    for (const Region& one : all_) {
      if (std::strcmp(one.name, name) == 0) return one.view;
    }
    std::abort();
  }
  // The rest of the input: for each change the region, an offset, a length and the bytes.
  std::vector<Patch> TakePatches(Input* input) const {
    std::vector<Patch> patches;
    while (input->size() >= 6 && patches.size() < 64) {
      const Region& region = all_[input->Byte() % all_.size()];
      std::size_t offset = input->Word();
      offset = (offset | std::size_t{input->Byte()} << 16) % region.sample.size();
      std::string bytes = input->Bytes(input->Byte());
      bytes.resize(std::min(bytes.size(), region.sample.size() - offset));
      u8* const at = region.view + offset;
      patches.push_back({at, {at, at + bytes.size()}, {bytes.begin(), bytes.end()}});
    }
    return patches;
  }

 private:
  struct Region {
    const char* name = nullptr;
    std::vector<u8> sample;
    u8* view = nullptr;
  };
  std::vector<Region> all_;
};

// Whether the region's header is that of this version.
inline bool HasHeader(const u8* region, const moru_vyr::lsp::ReportChannel& channel) {
  const common::SharedMemHeader expected = {channel.region_size, 1, 36};
  return std::memcmp(region, &expected, sizeof expected) == 0;
}

// The other program goes on writing for as long as this object exists, unless it is `still`.
class Writer {
 public:
  Writer(const std::vector<Patch>& patches, bool still) {
    for (const Patch& patch : patches) Write(patch.at, patch.after);
    if (still) return;
    thread_ = std::thread([this, &patches] {
      for (bool now = false; !stop_.load(); now = !now) {
        for (const Patch& patch : patches) Write(patch.at, now ? patch.after : patch.before);
      }
    });
  }
  ~Writer() {
    stop_.store(true);
    if (thread_.joinable()) thread_.join();
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace fuzz
