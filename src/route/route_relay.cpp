#include "common/log.h"
#include "common/net_text.h"
#include "route/acc_config.h"
#include "route/destination.h"
#include "route/route.h"

namespace moru_vyr::lsp {

bool Route::GetGameIDC(u32 ip, u16 port, u32* idc, bool ignore_port) noexcept {
  if (idc == nullptr) {
    LSP_LOG(4, "[Route][GetGameIDC] Invalid Game idc pointer");
    return false;
  }
  *idc = 0;
  if (const u32* const found = ip_table_.Find(ip)) {
    *idc = *found;
    return true;
  }
  if (const auto found = spur_list_.Find(ip)) {
    *idc = *found;
    LSP_LOG(0, "[Route][GetGameIDC] Got one match in spur iplist, ip=%u, idc=%d", ip,
            static_cast<int>(*idc));
    return true;
  }
  // Ahead of ignore_port, see the header: a ping, which has no port, is never answered with the
  // delay of a route that was found by port.
  if (ip == 0 || port == 0) return false;
  if (port_map_.all_port_idc() != 0) {
    *idc = port_map_.all_port_idc();
    LSP_LOG(0, "[Route][GetGameIDC] Got all pass idc = %lu", static_cast<unsigned long>(*idc));
    return true;
  }
  const u32 host_port = ntohs(port);
  if (const u32* const found = port_map_.Find(host_port)) {
    *idc = *found;
    LSP_LOG(0, "[Route][GetGameIDC] Got match idc, port=%u, idc = %lu", host_port,
            static_cast<unsigned long>(*idc));
    return true;
  }
  const u32* const any = ignore_port ? port_map_.First() : nullptr;
  if (any == nullptr) return false;
  *idc = *any;
  LSP_LOG(0, "[Route][GetGameIDC] Got match idc, ignore port, idc = %lu",
          static_cast<unsigned long>(*idc));
  return true;
}

RelayVerdict Route::ExamineRelay(u32 ip, u16 port, i32 socket_type, u32* idc) noexcept {
  const AccConfig& config = *GetAccConfig();
  if (IsInnerIp(ip)) return RelayVerdict::kInnerIp;
  if (ip_table_.empty()) return RelayVerdict::kNoIpTable;
  if (IsExcludedPort(config, port, socket_type)) return RelayVerdict::kExcludedPort;
  if (!GetGameIDC(ip, port, idc, false)) return RelayVerdict::kNotInIpTable;
  if (blacklist_.IsInAccBlacklist(config.game_id, ip, port, socket_type)) {
    return RelayVerdict::kBlacklisted;
  }
  return RelayVerdict::kWillRelay;
}

bool Route::NeedRelay(u32 ip, u16 port, i32 socket_type, SOCKET s, u32 token) noexcept {
  LoadWhatWasHeld();
  const u32 host_port = ntohs(port);
  LSP_LOG(0, "[Route][NeedRelay] Ready to Check Relay(%s:%d), socket=%Id, socket_type=%d, token=%u",
          common::IpToString(ip).c_str(), static_cast<int>(host_port), s, socket_type, token);
  u32 idc = 0;
  switch (ExamineRelay(ip, port, socket_type, &idc)) {
    case RelayVerdict::kInnerIp:
      LSP_LOG(4, "[Route][NeedRelay] inner IP(%s), socket=%Id, token=%u",
              common::IpToString(ip).c_str(), s, token);
      return false;
    case RelayVerdict::kNoIpTable:
      LSP_LOG(4, "[Route][NeedRelay] IP table not ready, socket=%Id, token=%u", s, token);
      return false;
    case RelayVerdict::kExcludedPort:
      LSP_LOG(4, "[Route][NeedRelay] Port(%d) not accelerate, socket=%Id, token=%u",
              static_cast<int>(host_port), s, token);
      return false;
    case RelayVerdict::kNotInIpTable:
      LSP_LOG(4, "[Route][NeedRelay] IP(%s:%u) is not in ip table, socket=%Id, token=%u",
              common::IpToString(ip).c_str(), host_port, s, token);
      return false;
    case RelayVerdict::kBlacklisted:
      LSP_LOG(4, "[Route][NeedRelay] it is in acc blacklist, socket=%Id, token=%u", s, token);
      return false;
    case RelayVerdict::kWillRelay:
      break;
  }
  LSP_LOG(5, "[Route][NeedRelay] game server IP(%s) IDC(%d), will relay socket=%Id, token=%d",
          common::IpToString(ip).c_str(), static_cast<int>(idc), s, static_cast<int>(token));
  return true;
}

bool Route::NeedRelay(const sockaddr_in* address, i32 socket_type, SOCKET s, u32 token) noexcept {
  if (address == nullptr) return false;
  return NeedRelay(address->sin_addr.s_addr, address->sin_port, socket_type, s, token);
}

}  // namespace moru_vyr::lsp
