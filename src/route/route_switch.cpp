#include "common/log.h"
#include "route/acc_config.h"
#include "route/acc_mode.h"
#include "route/decision.h"
#include "route/proxy_text.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

const SwitchGroup* FindSwitchGroup(const RouteEntry& entry, u32 last_node) noexcept {
  for (const SwitchGroup& group : entry.switch_groups)
    if (group.last_node == last_node) return &group;
  return nullptr;
}

// The session's record. Kept: its game_idc is not compared, a record of another data centre with
// the same last node serves as well.
bool GetSwitchProxyInfoFromRecord(u32 current_proxy, u32 last_node, const SwitchProxyInfo* record,
                                  RouteProxyInfo* out) noexcept {
  if (record == nullptr || record->last_node != last_node) return false;
  for (const RouteProxyInfo& proxy : record->proxies) {
    if (proxy.proxy_idc == 0 || proxy.proxy_idc == current_proxy) continue;
    *out = proxy;
    LSP_LOG(4,
            "[Route][GetSwitchProxyInfo] found a proper switch acc node %d in last switch route "
            "record.",
            static_cast<int>(proxy.proxy_idc));
    return true;
  }
  return false;
}

// Kept: looks at both proxies, and if both qualify the second replaces the first. A proxy_idc of 0
// qualifies like any other.
bool FindInRecord(const ManualRouteRecord& record, u32 current_proxy, u32 last_node,
                  RouteProxyInfo* out) noexcept {
  bool found = false;
  for (const RouteProxyInfo& proxy : record.proxies) {
    if (proxy.proxy_idc == current_proxy || proxy.last_node != last_node) continue;
    *out = proxy;
    found = true;
    LSP_LOG(4,
            "[Route][GetSwitchProxyInfoFromManualRoute] found a proper switch acc node %d in "
            "manual_forced route set.",
            static_cast<int>(proxy.proxy_idc));
  }
  return found;
}

}  // namespace

bool Route::MakeSwitchDecision(AccDecisionInfo* info, SwitchProxyInfo* cache, const u16* last_node,
                               u32 token) noexcept {
  if (info == nullptr || last_node == nullptr) return false;
  const u32 current_proxy = info->selected_proxy.proxy_idc;
  if (!GetSwitchProxyInfo(info->game_idc, current_proxy, *last_node, info, cache)) {
    info->acc_reason = kReasonNoRoute;
    LSP_LOG(4,
            "[Route][MakeSwitchDecision] Can not find IDC(%d)'s switch proxy route, "
            "current_proxy=%d, last_node=%d, token=%d",
            static_cast<int>(info->game_idc), static_cast<int>(current_proxy),
            static_cast<int>(*last_node), static_cast<int>(token));
    return false;
  }
  // acc_reason stays as the first decision left it.
  const RouteProxyInfo& proxy = info->selected_proxy;
  LSP_LOG(4,
          "[Route][MakeSwitchDecision] switch proxy route for game_idc %d found, cur_proxy:%d, "
          "last_node:%d, new_proxy (%d), ip(%s), port(%d) will be used, token=%d",
          static_cast<int>(info->game_idc), static_cast<int>(current_proxy),
          static_cast<int>(*last_node), static_cast<int>(proxy.proxy_idc), proxy.proxy_addr,
          static_cast<int>(proxy.proxy_port), static_cast<int>(token));
  return true;
}

bool Route::GetSwitchProxyInfo(u32 game_idc, u32 current_proxy, u32 last_node,
                               AccDecisionInfo* info, SwitchProxyInfo* cache) noexcept {
  if (last_node == 0) return false;
  RouteProxyInfo proxy;
  const bool found =
      GetSwitchProxyInfoFromManualRoute(game_idc, current_proxy, last_node, &proxy) ||
      GetSwitchProxyInfoFromIntelliRoute(game_idc, current_proxy, last_node, &proxy, cache) ||
      GetSwitchProxyInfoFromRecord(current_proxy, last_node, cache, &proxy);
  if (!found) return false;
  proxy.decision = DECISION_FORCE_ACCE_AUTO;  // regardless of the route's verdict
  info->selected_proxy = proxy;
  return true;
}

bool Route::GetSwitchProxyInfoFromManualRoute(u32 game_idc, u32 current_proxy, u32 last_node,
                                              RouteProxyInfo* out) noexcept {
  const AccConfig& config = *GetAccConfig();
  if (!IsManualMode(config)) return false;
  for (const ManualRouteRecord& record : config.manual_routes) {
    if (record.game_idc != game_idc) continue;
    if (FindInRecord(record, current_proxy, last_node, out)) return true;
  }
  return false;
}

// Kept: both candidates are tried, and the last one tried counts: if its proxy is missing, the
// search fails, with *out empty, although the first was found.
bool Route::GetSwitchProxyInfoFromIntelliRoute(u32 game_idc, u32 current_proxy, u32 last_node,
                                               RouteProxyInfo* out,
                                               SwitchProxyInfo* cache) noexcept {
  const auto entry = route_table_.FindRouteEntry(game_idc, nullptr);
  if (!entry) {
    LSP_LOG(4, "[Route][GetSwitchProxyInfoFromIntelliRoute] IDC(%d) route not found.",
            static_cast<int>(game_idc));
    return false;
  }
  const SwitchGroup* const group = FindSwitchGroup(*entry, last_node);
  if (group == nullptr) return false;
  bool found = false;
  for (const ProxyRef& candidate : group->candidates) {
    if (candidate.proxy_idc == 0 || candidate.proxy_idc == current_proxy) continue;
    found = route_table_.FindProxyByRef(candidate, out);
    if (!found) continue;
    LSP_LOG(4,
            "[GetSwitchProxyInfoFromIntelliRoute] found a proper switch acc node %d in "
            "intelligent route set.",
            static_cast<int>(candidate.proxy_idc));
    if (cache == nullptr) continue;
    CopyCandidates(*group, game_idc, cache);
    LSP_LOG(0, "[Route][GetSwitchProxyInfo] cache route for intelligent mode.");
    LogSwitchProxyInfo(*cache);
  }
  return found;
}

void Route::CacheSwitchProxy(const RouteEntry* entry, u32 last_node,
                             SwitchProxyInfo* cache) noexcept {
  if (cache == nullptr) return;
  *cache = {};
  if (IsManualMode(*GetAccConfig())) {
    LSP_LOG(0, "[Route][CacheSwitchProxy]It is manual mode, not need to cache switch route.");
    return;
  }
  if (last_node == 0) return;
  const SwitchGroup* const group = FindSwitchGroup(*entry, last_node);
  if (group == nullptr) return;
  CopyCandidates(*group, entry->game_idc, cache);
  LSP_LOG(0, "[Route][CacheSwitchProxy] cache route for intelligent mode.");
  LogSwitchProxyInfo(*cache);
}

// A missing candidate leaves what the record holds in its place.
void Route::CopyCandidates(const SwitchGroup& group, u32 game_idc,
                           SwitchProxyInfo* cache) noexcept {
  cache->game_idc = game_idc;
  cache->last_node = group.last_node;
  for (u32 i = 0; i < kSwitchCandidates; ++i) {
    RouteProxyInfo proxy;
    if (group.candidates[i].proxy_idc == 0) continue;
    if (route_table_.FindProxyByRef(group.candidates[i], &proxy)) cache->proxies[i] = proxy;
  }
}

}  // namespace moru_vyr::lsp
