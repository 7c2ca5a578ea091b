#include <new>

#include "common/log.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/client_wait.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kNotifyBeatMs = 30000;
constexpr int kMaxNotifyEventTries = 5;

constexpr u32 kHeldLookMs = 250;
constexpr u32 kHeldIps = 1, kHeldRoutes = 2, kHeldBlacklist = 4, kHeldSpur = 8;

const char* MutexOf(u32 table) noexcept {
  return table == kHeldIps         ? kIpTableMutexName
         : table == kHeldRoutes    ? kRouteMutexName
         : table == kHeldBlacklist ? kBlacklistMutexName
                                   : kSpurMutexName;
}

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
  u32 held = 0;
  route_table_.LoadRoute();
  if (route_table_.was_held()) held |= kHeldRoutes;
  if (!blacklist_.LoadBlacklistTable() && blacklist_.size() == 0) held |= kHeldBlacklist;
  if (!spur_list_.LoadSpurIplistTable()) held |= kHeldSpur;
  try {
    port_map_.LoadPortIdcTable();
  } catch (const std::bad_alloc&) {
    // The ports that there was room for are known.
  }
  const bool loaded = ip_table_.LoadIpTable();
  if (!loaded && ip_table_.was_held()) held |= kHeldIps;
  held_.store(held, std::memory_order_relaxed);
  return loaded;
}

void Route::LoadWhatWasHeld() noexcept {
  if (held_.load(std::memory_order_relaxed) == 0) return;
  if (loads_held_.exchange(true, std::memory_order_acquire)) return;
  const u32 now = GetTickCount();
  if (now - looked_ms_ >= kHeldLookMs) {
    looked_ms_ = now;
    // The addresses come last, since what they list is relayed at once.
    for (const u32 table : {kHeldRoutes, kHeldBlacklist, kHeldSpur, kHeldIps}) {
      const u32 held = held_.load(std::memory_order_relaxed);
      if ((held & table) != 0 && LoadHeld(table)) held_.store(held & ~table);
    }
  }
  loads_held_.store(false, std::memory_order_release);
}

// False if the mutex is still not free. It is held here until the table is read, since it must not
// be waited for, so this once the client program may wait for the parsing.
bool Route::LoadHeld(u32 table) noexcept {
  const char* const mutex = MutexOf(table);
  const ClientWait client(mutex, ClientWait::OnlyTry{});
  if (!client.may_read()) return false;
  LSP_LOG(5, "[Route] %s is free by now, its region is read", mutex);
  if (table == kHeldRoutes) route_table_.LoadHeldRegion();
  if (table == kHeldBlacklist) blacklist_.LoadBlacklistTable();
  if (table == kHeldSpur) spur_list_.LoadSpurIplistTable();
  if (table == kHeldIps) ip_table_.LoadIpTable();
  return true;
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
