#include "route/launch_test.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

#include "common/log.h"
#include "route/client_wait.h"

namespace moru_vyr::lsp {
namespace {

// Guard: the copy has the key that was asked for and terminated texts, even if another process
// changes the record meanwhile.
bool CopyRecord(const LaunchTestRegion& region, u32 game_idc, GltRouteInfo* out) noexcept {
  const u32 valid_count = region.valid_count;
  for (u32 i = 0; i < std::min(valid_count, kMaxGltRecords); ++i) {
    if (region.records[i].game_idc != game_idc) continue;
    *out = region.records[i];
    out->game_idc = game_idc;
    out->proxy.proxy_addr[sizeof out->proxy.proxy_addr - 1] = '\0';
    out->proxy.proxy_name[sizeof out->proxy.proxy_name - 1] = '\0';
    LSP_LOG(0, "[Route][LoadGltRouteInfoFromShare] Got a glt route table, game_idc=%d",
            static_cast<int>(game_idc));
    return true;
  }
  LSP_LOG(4,
          "[Route][LoadGltRouteInfoFromShare] No matching game idc from glt table, game_idc=%d, "
          "valid_count=%d",
          static_cast<int>(game_idc), static_cast<int>(valid_count));
  return false;
}

}  // namespace

common::Shared_mem_obj* LaunchTest::OpenRegion() noexcept {
  {
    const common::Lock hold(lock_);
    if (glt_mem_ != nullptr) return glt_mem_.get();
  }
  try {
    if (!common::Shared_mem_obj::Exists(kLaunchTestRegionName)) {
      LSP_LOG(5,
              "[Route][LoadGltRouteInfoFromShare] open glt table from shared memory failed,share "
              "mem is not exist!");
      return nullptr;
    }
    auto opened = std::make_unique<common::Shared_mem_obj>(
        kLaunchTestRegionName, sizeof(LaunchTestRegion), kLaunchTestMutexName, false);
    const common::Lock hold(lock_);
    if (glt_mem_ == nullptr) glt_mem_ = std::move(opened);  // else another thread was first
    return glt_mem_.get();
  } catch (const std::bad_alloc&) {
    LSP_LOG(5, "[Route][LoadGltRouteInfoFromShare] open glt table from shared memory failed!");
    return nullptr;
  }
}

bool LaunchTest::LoadGltRouteInfoFromShare(u32 game_idc, GltRouteInfo* out) noexcept {
  if (out == nullptr) {
    LSP_LOG(5, "[Route][LoadGltRouteInfoFromShare] Invalid glt route info pointer");
    return false;
  }
  {
    const common::Lock hold(lock_);
    if (local_glt_ != nullptr) return CopyRecord(*local_glt_, game_idc, out);
  }
  const ClientWait wait(kLaunchTestMutexName);
  common::Shared_mem_obj* const region = wait.may_read() ? OpenRegion() : nullptr;
  if (region == nullptr) return false;
  // The region's mutex also serialises our own threads. Without one, no thread waits.
  std::optional<common::Lock> alone;
  if (!region->guarded()) alone.emplace(lock_);
  const common::Shared_mem_ptr<const LaunchTestRegion> view(region, common::kOpenForReading, true);
  const common::Shared_mem_closer closer(region);
  if (!view) {
    LSP_LOG(5,
            "[Route][LoadGltRouteInfoFromShare] attampt to open glt route sharing region but "
            "failed!");
    return false;
  }
  return CopyRecord(*view.get(), game_idc, out);
}

void LaunchTest::LoadGltTableFromMem(const LaunchTestRegion& table) {
  auto copy = std::make_unique<const LaunchTestRegion>(table);
  const common::Lock hold(lock_);
  local_glt_ = std::move(copy);
}

}  // namespace moru_vyr::lsp
