#include <algorithm>
#include <iterator>

#include "common/log.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/acc_mode.h"
#include "route/decision.h"
#include "route/destination.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

const ProxyRef& SelectProxyRef(const RouteEntry& entry) noexcept {
  const bool both_modes = (GetAccConfig()->net_mode & kNetModeBothModes) == kNetModeBothModes;
  return both_modes ? entry.ref_both_modes : entry.ref_default;
}

bool IsTopProxy(const RouteEntry& entry, u32 proxy_idc) noexcept {
  return std::any_of(std::begin(entry.top_refs), std::end(entry.top_refs),
                     [proxy_idc](const ProxyRef& ref) { return ref.proxy_idc == proxy_idc; });
}

}  // namespace

bool Route::GetProxyInfoFromIdc(u32 game_idc, RouteProxyInfo* out, AccDecisionInfo* info,
                                SwitchProxyInfo* switch_cache) noexcept {
  if (out == nullptr) {
    LSP_LOG(4, "[Route][GetProxyInfoFromIdc] Invalid route proxy info pointer");
    return false;
  }
  if (game_idc == 0) {
    LSP_LOG(4, "[Route][GetProxyInfoFromIdc] IDC(%d) not valid.", static_cast<int>(game_idc));
    return false;
  }
  LSP_LOG(0, "[Route][GetProxyInfoFromIdc] Get IDC(%d) Route Info", static_cast<int>(game_idc));
  RouteHeader header = {};
  const auto entry = route_table_.FindRouteEntry(game_idc, &header);
  if (!entry) {
    LSP_LOG(4, "[Route][GetProxyInfoFromIdc] IDC(%d) route not found.", static_cast<int>(game_idc));
    return false;
  }
  RefineProxyInfo(&*entry, out);
  if (info == nullptr) return true;
  FillAccDecisionInfo(&*entry, out, header, info);
  CacheSwitchProxy(&*entry, info->selected_proxy.last_node, switch_cache);
  return true;
}

// Kept: a reference to a missing proxy reads as DECISION_ACCE towards an empty address, because
// that is what an empty record says. The client program must not leave one.
void Route::RefineProxyInfo(const RouteEntry* entry, RouteProxyInfo* out) noexcept {
  if (out == nullptr) {
    LSP_LOG(4, "[Route][RefineProxyInfo] Invalid route proxy info pointer");
    return;
  }
  const AccConfig& config = *GetAccConfig();
  route_table_.FindProxyByRef(SelectProxyRef(*entry), out);
  if (config.acc_mode == kAccModeNone) {
    out->decision = DECISION_NOT_ACCE;
  } else if (IsManualMode(config) && IsReachable(&config.reachability, entry->game_idc)) {
    *out = config.forced_proxy;
    out->decision = DECISION_FORCE_ACCE_MANUAL;
  }
  RefineByGltRouteInfo(entry, out);
}

// The proxy that the launch test found replaces the table's, if the table has it among its best.
// The verdict remains the table's. What the user forced is never replaced.
void Route::RefineByGltRouteInfo(const RouteEntry* entry, RouteProxyInfo* out) noexcept {
  if (out == nullptr) {
    LSP_LOG(4, "[Route][RefineByGltRouteInfo] Invalid route proxy info pointer");
    return;
  }
  const u32 decision = out->decision;
  const bool use = GetAccConfig()->game_launch_test_use != 0;
  if (!use || (decision != DECISION_ACCE && decision != DECISION_FORCE_ACCE_AUTO)) {
    LSP_LOG(4,
            "[Route][RefineByGltRouteInfo] game launch test route info will not be "
            "used!decision=%d, game_launch_test_use=%s",
            static_cast<int>(decision), use ? "true" : "false");
    return;
  }
  GltRouteInfo glt;
  if (!launch_test_.LoadGltRouteInfoFromShare(entry->game_idc, &glt)) {
    LSP_LOG(4, "[Route][RefineByGltRouteInfo] load glt route table failed");
    return;
  }
  if (!IsTopProxy(*entry, glt.proxy.proxy_idc)) {
    LSP_LOG(4,
            "[Route][RefineByGltRouteInfo] glt route proxy idc is not one of the top three proxy "
            "idc. Discard it.");
    return;
  }
  *out = glt.proxy;
  out->decision = decision;
}

void Route::FillAccDecisionInfo(const RouteEntry* entry, const RouteProxyInfo* proxy,
                                const RouteHeader& header, AccDecisionInfo* info) noexcept {
  if (info == nullptr) {
    LSP_LOG(4, "[Route][FillAccDecisionInfo] Invalid decision info pointer");
    return;
  }
  i32 acc_reason = 0;
  const char* const decision_name = DecisionName(proxy->decision, &acc_reason);
  info->acc_reason = acc_reason;
  LSP_LOG(4,
          "[Route][FillAccDecisionInfo] route info founded\xA3\xBA"
          "%s, game IDC(%d), direct delay(%d), direct lost(%d), proxy IDC(%d), t1 delay(%d), "
          "t1 lost(%d), t2 delay(%d), t2 lost(%d), last_node(%d)",
          decision_name, static_cast<int>(entry->game_idc), static_cast<int>(entry->direct_delay),
          static_cast<int>(entry->direct_lost), static_cast<int>(proxy->proxy_idc),
          static_cast<int>(proxy->section1_delay), static_cast<int>(proxy->section1_lost),
          static_cast<int>(proxy->section2_delay), static_cast<int>(proxy->section2_lost),
          static_cast<int>(proxy->last_node));
  info->entry_word3 = entry->entry_word3;
  info->entry_word4 = entry->entry_word4;
  std::copy(std::begin(entry->entry_name), std::end(entry->entry_name), info->entry_name);
  info->entry_word21 = entry->entry_word21;
  info->direct_delay = entry->direct_delay;
  info->direct_lost = entry->direct_lost;
  info->entry_word0 = entry->entry_word0;
  info->entry_word1 = entry->entry_word1;
  info->header0 = header[0];
  info->header1 = header[1];
  info->header2 = header[2];
  info->header3 = header[3];
  for (u32 i = 0; i < kTopRefs; ++i) {
    route_table_.FindProxyByRef(entry->top_refs[i], &info->top_proxy[i]);
  }
  info->selected_proxy = *proxy;
  info->game_launch_test_use = GetAccConfig()->game_launch_test_use;
  info->glt_word = GetAccConfig()->glt_word;
  launch_test_.LoadGltRouteInfoFromShare(entry->game_idc, &info->glt_route_info);
}

}  // namespace moru_vyr::lsp
