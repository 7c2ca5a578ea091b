#include <new>

#include "common/log.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kNotifyBeatMs = 30000;
constexpr int kMaxNotifyEventTries = 5;

}  // namespace

Route* GetRoute() {
  // Never destroyed: application threads may still ask while the process ends.
  static Route* const route = new Route;
  return route;
}

bool Route::Load(u32 try_times, u32 interval_ms) noexcept {
  const bool wait_route = GetAccConfig()->wait_route != 0;
  bool loaded = false;
  u32 tries = 0;
  while (!loaded && tries < try_times) {
    loaded = LoadAll();
    ++tries;
    if (loaded || !wait_route) break;
    Sleep(interval_ms);  // Kept: also after the last try
  }
  LSP_LOG(5,
          "[Route][Load] try to read route %s, wait_route=%s, try time=%d, try interval_ms=%d ms, "
          "game vip level=%lu",
          loaded ? "success" : "failed", wait_route ? "success" : "failed", static_cast<int>(tries),
          static_cast<int>(interval_ms),
          static_cast<unsigned long>(GetAccConfig()->game_vip_level));
  return loaded;
}

// Kept: the IP table alone decides, so a missing route table is not waited for.
bool Route::LoadAll() noexcept {
  route_table_.LoadRoute();
  blacklist_.LoadBlacklistTable();
  spur_list_.LoadSpurIplistTable();
  try {
    port_map_.LoadPortIdcTable();
  } catch (const std::bad_alloc&) {
    // The ports that there was room for are known.
  }
  return ip_table_.LoadIpTable();
}

void Route::OnUpdate(u32 elapsed_ms) noexcept {
  elapsed_ms_ += elapsed_ms;
  if (elapsed_ms_ < kNotifyBeatMs) return;
  elapsed_ms_ = 0;
  if (notify_event_ == nullptr && notify_event_tries_ < kMaxNotifyEventTries) CreateNotifyEvent();
  if (notify_event_ == nullptr) return;
  if (WaitForSingleObject(notify_event_, 0) == WAIT_OBJECT_0) {
    LSP_LOG(5, "[Route][OnUpdate] Spur iplist content has changed, reload it!");
    spur_is_due_ = true;
  }
  if (spur_is_due_) spur_is_due_ = !spur_list_.LoadSpurIplistTable();
}

void Route::CreateNotifyEvent() noexcept {
  ++notify_event_tries_;
  try {
    char name[common::kBoundedTextSize];
    if (common::FormatBounded(name, "spur_iplist_change_notify_%lu",
                              static_cast<unsigned long>(GetCurrentProcessId())) < 0) {
      return;
    }
    std::wstring wide_name;
    if (!common::u8to16(name, &wide_name)) return;
    notify_event_ = CreateEventW(nullptr, FALSE, FALSE, wide_name.c_str());
  } catch (const std::bad_alloc&) {
    // The next beat tries again.
  }
}

}  // namespace moru_vyr::lsp
