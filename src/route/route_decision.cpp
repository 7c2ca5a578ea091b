#include <cstring>

#include "common/log.h"
#include "common/net_text.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "route/destination.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kDefaultLagMs = 50;     // of a server that nothing is known of
constexpr u32 kUnmeasuredLagMs = 20;  // of a route that stores no delay

void Describe(u32 ip, u16 port, i32 socket_type, const std::string& guid, SOCKET s,
              AccDecisionInfo* info) noexcept {
  const AccConfig& config = *GetAccConfig();
  info->used = 1;
  info->game_id = config.game_id;
  info->zone_id = config.zone_id;
  info->net_mode = config.net_mode;
  info->process_id = GetCurrentProcessId();
  info->socket = s;
  info->socket_type = common::SocketTypeCode(socket_type);
  info->game_ip = ntohl(ip);
  info->game_port = ntohs(port);
  common::SetFieldText(info->guid, guid);
  info->glt_route_info = {};
  std::memset(info->selected_proxy.proxy_addr, 0, sizeof info->selected_proxy.proxy_addr);
}

}  // namespace

bool Route::MakeDecision(u32 ip, u16 port, i32 socket_type, const std::string& guid,
                         AccDecisionInfo* info, SwitchProxyInfo* switch_cache, SOCKET s,
                         u32 token) noexcept {
  if (info == nullptr) {
    LSP_LOG(4, "[Route][MakeDecision] invalid decision info pointer");
    return false;
  }
  Describe(ip, port, socket_type, guid, s, info);
  LSP_LOG(0,
          "[Route][MakeDecision] Ready to make decision, destination(%s:%d), game_id=%llu, "
          "zone_id=%llu, net_mode=0x%08x, process_id=%d, socket=%Id, socket_type=%d, guid=%s, "
          "token=%d",
          common::IpToString(ip).c_str(), static_cast<int>(info->game_port),
          static_cast<unsigned long long>(info->game_id),
          static_cast<unsigned long long>(info->zone_id), static_cast<unsigned>(info->net_mode),
          static_cast<int>(info->process_id), s, socket_type, info->guid, static_cast<int>(token));
  if (!AdmitDestination(ip, port, socket_type, info, token)) return false;
  RouteProxyInfo proxy;
  if (!GetProxyInfoFromIdc(info->game_idc, &proxy, info, switch_cache)) {
    info->acc_reason = kReasonNoRoute;
    LSP_LOG(4, "[Route][MakeDecision] Can not find IDC(%d)'s route, token=%d",
            static_cast<int>(info->game_idc), static_cast<int>(token));
    return false;
  }
  if (!Accelerates(proxy.decision)) return false;  // the reason was stored with the route
  LSP_LOG(4,
          "[Route][MakeDecision] proxy route founded\xA3\xBA"
          "ip(%s), port(%d) will be used, token=%d",
          proxy.proxy_addr, static_cast<int>(proxy.proxy_port), static_cast<int>(token));
  return true;
}

// Kept: whether there is a route table is asked before anything looks for one, so a table that
// comes late is first seen by a ping or a switch.
bool Route::AdmitDestination(u32 ip, u16 port, i32 socket_type, AccDecisionInfo* info,
                             u32 token) noexcept {
  const std::string ip_text = common::IpToString(ip);
  const int host_port = ntohs(port);
  const int shown_token = static_cast<int>(token);
  if (IsInnerIp(ip)) {
    info->acc_reason = kReasonInnerIp;
    LSP_LOG(4, "[Route][MakeDecision] inner IP(%s), token=%d", ip_text.c_str(), shown_token);
    return false;
  }
  if (ip_table_.empty()) {
    info->acc_reason = kReasonNoIpTable;
    LSP_LOG(4, "[Route][MakeDecision] IP table not ready, token=%d", shown_token);
    return false;
  }
  if (!route_table_.HasRouteTable()) {
    info->acc_reason = kReasonNoRouteTable;
    LSP_LOG(4, "[Route][MakeDecision] Route table not ready, token=%d", shown_token);
    return false;
  }
  if (IsExcludedPort(*GetAccConfig(), port, socket_type)) {
    info->acc_reason = kReasonExcludedPort;
    LSP_LOG(4, "[Route][MakeDecision] Port(%d) not accelerate, token=%d", host_port, shown_token);
    return false;
  }
  if (route_table_.IsProxyIp(ip_text)) {
    info->acc_reason = kReasonIsProxy;
    LSP_LOG(4, "[Route][MakeDecision] IP(%s) is Proxy, token=%d", ip_text.c_str(), shown_token);
    return false;
  }
  u32 game_idc = 0;
  const bool known = GetGameIDC(ip, port, &game_idc, false);
  info->game_idc = game_idc;
  if (!known) {
    info->acc_reason = kReasonNotInIpTable;
    LSP_LOG(4, "[Route][MakeDecision] IP(%s:%d) is not in ip table, token=%d", ip_text.c_str(),
            host_port, shown_token);
    return false;
  }
  LSP_LOG(0,
          "[Route][MakeDecision] IDC info founded\xA3\xBA"
          "game server IP(%s) IDC(%d), token=%d",
          ip_text.c_str(), static_cast<int>(game_idc), shown_token);
  return true;
}

u32 Route::GetServerLag(u32 ip) noexcept {
  u32 idc = 0;
  if (!GetGameIDC(ip, 0, &idc, true)) {
    LSP_LOG(0,
            "[Route][GetServerLag] calculate overall delay\xA3\xBA"
            "target ip(%s),get idc info failed, will use default delay(%d)",
            common::IpToString(ip).c_str(), static_cast<int>(kDefaultLagMs));
    return kDefaultLagMs;
  }
  LSP_LOG(0,
          "[Route][GetServerLag] IDC info founded\xA3\xBA"
          "game server IP(%s) IDC(%d)",
          common::IpToString(ip).c_str(), static_cast<int>(idc));
  RouteProxyInfo proxy;
  if (!GetProxyInfoFromIdc(idc, &proxy, nullptr, nullptr)) {
    LSP_LOG(0,
            "[Route][GetServerLag] calculate overall delay\xA3\xBA"
            "target ip(%s),get route info failed, will use default delay(%d)",
            common::IpToString(ip).c_str(), static_cast<int>(kDefaultLagMs));
    return kDefaultLagMs;
  }
  if (!Accelerates(proxy.decision)) return 0;
  const u32 lag = proxy.section1_delay + proxy.section2_delay;
  return lag != 0 ? lag : kUnmeasuredLagMs;
}

}  // namespace moru_vyr::lsp
