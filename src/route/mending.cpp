#include "route/mending.h"

#include <windows.h>

#include <cstring>
#include <utility>

#include "common/handle.h"
#include "common/log.h"
#include "common/mapped_view.h"

namespace moru_vyr::lsp {
namespace {

using common::LspTrace;
using common::UniqueHandle;

constexpr DWORD kMutexLimitMs = 500;

constinit Mending process_mending;
constinit u32 asked_by_any_game = 0;  // between ReadWaitsOfAnyGame and ReadMending

bool IsOurs(const MendingRegion& region) noexcept {
  return region.header.shared_mem_size == sizeof region &&
         region.header.major_ver == common::kSharedMemMajorVersion &&
         region.header.minor_ver == common::kSharedMemMinorVersion;
}

// Copies before it checks: the client may be writing now.
bool CopyRegion(HANDLE mapping, MendingRegion* out) noexcept {
  const void* const view = common::MapMemory(mapping, FILE_MAP_READ, sizeof *out);
  if (view == nullptr) return false;  // smaller than this library's, or no room for it
  std::memcpy(static_cast<void*>(out), view, sizeof *out);
  UnmapViewOfFile(view);
  return true;
}

bool CopyGuarded(HANDLE mapping, MendingRegion* out) noexcept {
  const UniqueHandle mutex(OpenMutexA(SYNCHRONIZE, FALSE, kMendingMutexName));
  if (!mutex) return CopyRegion(mapping, out);
  if (WaitForSingleObject(mutex.get(), kMutexLimitMs) == WAIT_TIMEOUT) {
    LspTrace("mending: the client holds its mutex, so nothing is mended");
    return false;
  }
  const bool copied = CopyRegion(mapping, out);
  ReleaseMutex(mutex.get());
  return copied;
}

}  // namespace

const Mending& GetMending() noexcept { return process_mending; }

void ReplaceMending(const Mending& mending) noexcept {
  process_mending = mending;
  if (mending.bits() != 0) LspTrace("mending: 0x%x", mending.bits());
}

// Without the mutex: a word is written as a whole.
void ReadWaitsOfAnyGame() noexcept {
  const UniqueHandle mapping(OpenFileMappingA(FILE_MAP_READ, FALSE, kMendingRegionName));
  MendingRegion region;
  if (!mapping || !CopyRegion(mapping.get(), &region) || !IsOurs(region)) return;
  for (const MendingRecord& game : region.games) asked_by_any_game |= game.mended & kMendStart;
  process_mending = Mending({.mended = asked_by_any_game});
}

void ReadMending(u32 place) noexcept {
  const u32 asked = std::exchange(asked_by_any_game, 0);
  process_mending = Mending();
  const UniqueHandle mapping(OpenFileMappingA(FILE_MAP_READ, FALSE, kMendingRegionName));
  MendingRegion region;
  if (!mapping || place >= kMaxGames) return;
  if (!CopyGuarded(mapping.get(), &region)) {
    process_mending = Mending({.mended = asked});
    return;
  }
  if (!IsOurs(region)) {
    LspTrace("mending: size %d, version %d.%d are not this library's, so nothing is mended",
             static_cast<int>(region.header.shared_mem_size),
             static_cast<int>(region.header.major_ver), static_cast<int>(region.header.minor_ver));
    return;
  }
  process_mending = Mending(region.games[place]);
  LspTrace("mending: 0x%x", process_mending.bits());
}

}  // namespace moru_vyr::lsp
