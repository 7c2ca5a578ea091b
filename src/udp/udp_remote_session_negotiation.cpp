// The way of the flow: whether a node is asked, which, and what its answer leads to.
//
// Each attempt is one datagram, never repeated. One other node is tried; after that the flow goes
// directly, with all that waited for it.
#include <algorithm>
#include <iterator>

#include "common/log.h"
#include "common/net_text.h"
#include "common/unix_time.h"
#include "relay/nego_common.h"
#include "route/route.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr i32 kNegTypeUdp = 1;

}  // namespace

bool UdpRemoteSession::DecideAccl() noexcept {
  char guid_text[SessionGuid::kTextSize] = {};
  guid_.ToString(guid_text, sizeof guid_text);
  bool result = false;
  try {
    result = session_->provider()->SessionRoute()->MakeDecision(
        remote_addr_.sin_addr.s_addr, remote_addr_.sin_port, SOCK_DGRAM, guid_text, &decision_,
        &accl_info_.switch_route, local_sock_, token_);
  } catch (...) {  // no memory for a question: the game server can still be reached
  }
  GetTracker().NoteGameServer(local_sock_, remote_ip_.c_str(), remote_addr_.sin_port);
  GetTracker().SetAcceInfo(local_sock_, result, &decision_);
  LSP_LOG(5, "[UDP] UdpRemoteSession::DecideAccl result=%s, socket=%Id, token=%u",
          result ? "acc" : "direct", local_sock_, token_);
  return result;
}

void UdpRemoteSession::StartNegotiation(const sockaddr_in& game_addr) noexcept {
  state_ = UdpState::kNegotiating;
  nego_start_ms_ = common::UnixTimeMs();
  const RouteProxyInfo& proxy = decision_.selected_proxy;
  LSP_LOG(5,
          "[UDP] UdpRemoteSession::StartNegotiation, proxy_idc=%u, proxy_addr=%s:%u, proxy_t1=%u, "
          "proxy_t2=%u, t1_lost=%u%%, game_idc=%d, socket=%Id, token=%u",
          u32{proxy.proxy_idc}, ProxyAddrText(proxy).text, u32{proxy.proxy_port},
          u32{proxy.section1_delay}, u32{proxy.section2_delay}, u32{proxy.section1_lost},
          static_cast<int>(decision_.game_idc), local_sock_, token_);
  accl_info_.nego_addr = ProxyAddress(proxy);
  NegoRequest request = MakeNegoRequest(game_addr.sin_addr.s_addr, game_addr.sin_port,
                                        static_cast<u8>(nego_retry_), guid_, decision_);
  request.Pack(nullptr, 0, 0);
  SendTo(&request, sizeof request, accl_info_.nego_addr, true, false);
  nego_elapsed_ms_ = 0;
}

void UdpRemoteSession::HandleNegoRecv(const UdpPackage& package) noexcept {
  if (!SameAddress(package.addr, accl_info_.nego_addr)) return;
  NegoResponse response;
  response.Init(kNegoVersion);
  const int result = response.Unpack(package.data, package.valid_len);
  if (result < 0) {
    LSP_LOG(5, "[UDP] UdpRemoteSession::HandleNegoRecv, Unpack error=%d, pack_len=%u, token=%u",
            result, package.valid_len, token_);
    OnNegotiationFailed(kNegoBadHeader);
    return;
  }
  const u32 reason =
      CheckNegotiation(NegoAsker::kUdp, local_sock_, token_, response.body, &decision_);
  if (reason == 0) {
    OnNegotiationSuccess(response);
  } else {
    OnNegotiationFailed(reason);
  }
}

void UdpRemoteSession::OnNegotiationSuccess(const NegoResponse& response) noexcept {
  state_ = UdpState::kAccl;
  accl_info_.Accept(response);
  const LastNodeInfo& last_node = accl_info_.last_node;
  LSP_LOG(5,
          "[UDP] UdpRemoteSession::OnNegotiationSuccess, accl_data_addr=%s:%u, client_ip=%s, "
          "client_isp=%u, accl_token=%u, last_node:(node_id=%d, ip=%s, port=%d, accl_token=%u), "
          "token=%u",
          common::IpToString(accl_info_.data_addr.sin_addr.s_addr).c_str(),
          ntohs(accl_info_.data_addr.sin_port),
          common::IpToString(htonl(response.body.client_ip)).c_str(), u32{response.body.client_isp},
          accl_info_.accl_token, int{last_node.node_id},
          common::IpToString(htonl(last_node.ip)).c_str(), int{last_node.port},
          u32{last_node.accl_token}, token_);
  FlushCachedPackages();  // before anything is measured: the game has waited long enough
  StartSpeedTest();
  StartRecovery(response.body.client_isp, response.body.client_ip);
}

void UdpRemoteSession::OnNegotiationFailed(u32 reason) noexcept {
  LSP_LOG(5, "[UDP] UdpRemoteSession::OnNegotiationFailed, reason=%u, token=%u", reason, token_);
  const u32 elapsed = static_cast<u32>(common::UnixTimeMs() - nego_start_ms_);
  GetTracker().RecordNegFailed(local_sock_, kNegTypeUdp, reason, &decision_, std::max(1u, elapsed),
                               nego_retry_ + 1);
  if (nego_retry_ == 0 && ChangeAcclServer()) {
    ++nego_retry_;
    StartNegotiation(remote_addr_);
    return;
  }
  state_ = UdpState::kDirect;
  LSP_LOG(5, "[UDP] UdpRemoteSession::OnNegotiationFailed, begin direct mode, token=%u", token_);
  FlushCachedPackages();
}

// Puts the first other proxy of the decision in the selected one's place.
bool UdpRemoteSession::ChangeAcclServer() noexcept {
  const u32 current = decision_.selected_proxy.proxy_idc;
  const auto found = std::find_if(
      std::begin(decision_.top_proxy), std::end(decision_.top_proxy),
      [&](const RouteProxyInfo& p) { return p.proxy_idc != 0 && p.proxy_idc != current; });
  if (found == std::end(decision_.top_proxy)) return false;
  decision_.selected_proxy = *found;
  GetTracker().SetAcceInfo(local_sock_, true, &decision_);
  LSP_LOG(5, "[UDP] UdpRemoteSession::ChangeAcclServer, proxy_idc=%u,token=%u",
          u32{found->proxy_idc}, token_);
  return true;
}

// The negotiation is over either way, so nothing comes back into the list.
void UdpRemoteSession::FlushCachedPackages() noexcept {
  for (StoredPackage& cached : cached_packages_) HandleLocalPacket(cached.View());
  if (!cached_packages_.empty()) {
    LSP_LOG(0, "[UDP] UdpRemoteSession::FlushCachedPackages, count=%u, token=%u",
            static_cast<u32>(cached_packages_.size()), token_);
  }
  cached_packages_.clear();
}

}  // namespace moru_vyr::lsp
