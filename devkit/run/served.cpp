#include "served.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "abi/restriction_formats.h"
#include "common/shared_mem_header.h"
#include "files.h"
#include "serve_claim.h"
#include "text.h"

namespace vyr_run {
namespace {

using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::kMaxGamePaths;
using moru_vyr::lsp::RestrictionRegion;

constexpr DWORD kLongestWaitMs = 500;

// A copy of a region. False if there is none of that size.
bool CopyRegion(const char* name, void* to, size_t size) {
  const HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, name);
  const void* const view =
      mapping != nullptr ? MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, size) : nullptr;
  if (view != nullptr) {
    std::memcpy(to, view, size);
    UnmapViewOfFile(view);
  }
  if (mapping != nullptr) CloseHandle(mapping);
  return view != nullptr;
}

// The mutex of the list of games. Without one, or with one that is held for long, the list is read
// all the same: nothing but a line of text depends on it.
class ListGuard {
 public:
  ListGuard() : mutex_(OpenMutexA(SYNCHRONIZE, FALSE, moru_vyr::lsp::kRestrictionMutexName)) {
    if (mutex_ == nullptr) return;
    const DWORD waited = WaitForSingleObject(mutex_, kLongestWaitMs);
    owns_ = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
  }
  ~ListGuard() {
    if (owns_) ReleaseMutex(mutex_);
    if (mutex_ != nullptr) CloseHandle(mutex_);
  }
  ListGuard(const ListGuard&) = delete;
  ListGuard& operator=(const ListGuard&) = delete;

 private:
  const HANDLE mutex_;
  bool owns_ = false;
};

bool HasOurLayout(const RestrictionRegion& region) {
  const common::SharedMemHeader& header = region.header;
  return header.shared_mem_size == sizeof(RestrictionRegion) &&
         header.major_ver == common::kSharedMemMajorVersion &&
         header.minor_ver == common::kSharedMemMinorVersion;
}

template <size_t N>
std::string_view Text(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

// ASCII letters only, as the library does.
bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [lower](char one, char other) { return lower(one) == lower(other); });
}

const AccConfigRecord* FindGame(const RestrictionRegion& region, const std::string& path) {
  for (const AccConfigRecord& game : region.games) {
    if (game.valid == 0) continue;
    for (uint32_t i = 0; i < std::min(game.path_count, kMaxGamePaths); ++i) {
      if (EqualsIgnoreCase(path, Text(game.game_paths[i]))) return &game;
    }
  }
  return nullptr;
}

// Only vyr_client says which file its tables come from.
std::wstring TablesInWords() {
  devkit::ServeClaim claim = {};
  if (!CopyRegion(devkit::kServeClaimName, &claim, sizeof claim) || claim.process_id == 0) {
    return L"tables of a client program that does not name their file";
  }
  return L"tables of " + FileName(FromUtf8(std::string(Text(claim.file))));
}

}  // namespace

Served AskTables(const std::wstring& path) {
  const auto region = std::make_unique<RestrictionRegion>();
  const ListGuard guard;
  if (!CopyRegion(moru_vyr::lsp::kRestrictionRegionName, region.get(), sizeof *region)) {
    return {.words = L"not served: there are no tables (vyr_client serve FILE)"};
  }
  if (!HasOurLayout(*region)) {
    return {.words = L"not served: the tables are of another version"};
  }
  const std::wstring tables = L" (" + TablesInWords() + L")";
  const AccConfigRecord* const game = FindGame(*region, ToUtf8(path));
  if (game == nullptr) {
    return {.words = L"not listed: " + path + tables +
                     L"; vyr_client explain ADDRESS:PORT tcp --game \"" + path + L"\""};
  }
  const std::wstring number = L"game " + std::to_wstring(game->game_id);
  if (game->net_mode == 0) {
    return {.words =
                L"listed as " + number + L", but its net_mode is 0: nothing is relayed" + tables};
  }
  return {
      .is_listed = true, .log_level = game->log_level, .words = L"served as " + number + tables};
}

}  // namespace vyr_run
