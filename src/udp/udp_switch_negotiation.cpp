// The trial's negotiation: one attempt with one node. Its request says which link is to be left.
#include <algorithm>

#include "common/log.h"
#include "common/net_text.h"
#include "common/unix_time.h"
#include "relay/nego_common.h"
#include "tracker/tracker.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr i32 kNegTypeUdp = 1;

}  // namespace

// Whether the request has left. Kept: one that has to wait for room has failed, and still leaves.
bool UdpSwitchRemoteSession::StartNegotiation(const sockaddr_in& game_addr,
                                              const LastNodeInfo& last_node) noexcept {
  state_ = UdpSwitchState::kNegotiating;
  nego_start_ms_ = common::UnixTimeMs();
  const RouteProxyInfo& proxy = decision_.selected_proxy;
  LSP_LOG(5,
          "[UDP] UdpSwitchRemoteSession::StartNegotiation, proxy_idc=%u, proxy_addr=%s:%u, "
          "proxy_t1=%u, proxy_t2=%u, t1_lost=%u%%, game_idc=%d, last_node:(node_id=%d, ip=%s, "
          "port=%d, accl_token=%u), socket=%Id, token=%u",
          u32{proxy.proxy_idc}, ProxyAddrText(proxy).text, u32{proxy.proxy_port},
          u32{proxy.section1_delay}, u32{proxy.section2_delay}, u32{proxy.section1_lost},
          static_cast<int>(decision_.game_idc), int{last_node.node_id},
          common::IpToString(htonl(last_node.ip)).c_str(), int{last_node.port},
          u32{last_node.accl_token}, sock_, token_);
  accl_info_.nego_addr = ProxyAddress(proxy);
  NegoRequest request =
      MakeNegoRequest(game_addr.sin_addr.s_addr, game_addr.sin_port, 0, guid_, decision_);
  request.body.flags = kNegoFlagSwitch;
  request.body.last_node = last_node;
  request.Pack(nullptr, 0, 0);
  const u32 error = SendTo(&request, sizeof request, accl_info_.nego_addr, true);
  nego_elapsed_ms_ = 0;
  return error == 0;
}

void UdpSwitchRemoteSession::HandleNegoRecv(const UdpPackage& package) noexcept {
  if (!SameAddress(package.addr, accl_info_.nego_addr)) return;
  NegoResponse response;
  response.Init(kNegoVersion);
  const int result = response.Unpack(package.data, package.valid_len);
  if (result < 0) {
    LSP_LOG(5, "UdpSwitchRemoteSession::HandleNegoRecv, Unpack error=%d, pack_len=%u, token=%u",
            result, package.valid_len, token_);
    OnNegotiationFailed(kNegoBadHeader);
    return;
  }
  const u32 reason =
      CheckNegotiation(NegoAsker::kUdpSwitch, sock_, token_, response.body, &decision_);
  if (reason == 0) {
    OnNegotiationSuccess(response);
  } else {
    OnNegotiationFailed(reason);
  }
}

void UdpSwitchRemoteSession::OnNegotiationSuccess(const NegoResponse& response) noexcept {
  state_ = UdpSwitchState::kVerifying;
  accl_info_.Accept(response);
  const LastNodeInfo& last_node = accl_info_.last_node;
  LSP_LOG(5,
          "[UDP] UdpSwitchRemoteSession::OnNegotiationSuccess, accl_data_addr=%s:%u, client_ip=%s, "
          "client_isp=%u, accl_token=%u, last_node:(node_id=%d, ip=%s, port=%d, accl_token=%u), "
          "token=%u",
          common::IpToString(accl_info_.data_addr.sin_addr.s_addr).c_str(),
          ntohs(accl_info_.data_addr.sin_port),
          common::IpToString(htonl(response.body.client_ip)).c_str(), u32{response.body.client_isp},
          accl_info_.accl_token, int{last_node.node_id},
          common::IpToString(htonl(last_node.ip)).c_str(), int{last_node.port},
          u32{last_node.accl_token}, token_);
  client_info_ = DescribeClient(decision_, response.body.client_isp, response.body.client_ip);
  StartVerification();
}

// The burst starts at once: a link on trial is given no time to settle.
void UdpSwitchRemoteSession::StartVerification() noexcept {
  SpeedTestParam param;
  param.socket = sock_;
  param.token = token_;
  param.node_addr = accl_info_.data_addr;
  param.game_ip = ntohl(remote_addr_.sin_addr.s_addr);
  param.game_port = ntohs(remote_addr_.sin_port);
  param.accl_token = accl_info_.accl_token;
  speed_test_.Start(&recovery_, &param, true);
  char guid_text[SessionGuid::kTextSize] = {};
  guid_.ToString(guid_text, sizeof guid_text);
  const AccInfo acc_info = DescribeLink(remote_addr_, decision_, accl_info_);
  recovery_.Init(this, sock_, token_, guid_text, &acc_info, &client_info_, true);
  speed_test_.HighFreqTest();
}

void UdpSwitchRemoteSession::OnNegotiationFailed(u32 reason) noexcept {
  LSP_LOG(5, "UdpSwitchRemoteSession::OnNegotiationFailed, reason=%u, token=%u", reason, token_);
  const u32 elapsed = static_cast<u32>(common::UnixTimeMs() - nego_start_ms_);
  GetTracker().RecordNegFailed(sock_, kNegTypeUdp, reason, &decision_, std::max(1u, elapsed), 1);
  Finish(UdpSwitchState::kFailed, SwitchResult::kNegotiationFailed);
}

}  // namespace moru_vyr::lsp
