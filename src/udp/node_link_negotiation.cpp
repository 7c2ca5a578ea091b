// How a link is negotiated with its node, and measured from then on.
#include <algorithm>

#include "common/log.h"
#include "common/unix_time.h"
#include "protocol/nego_request.h"
#include "relay/nego_common.h"
#include "route/mending.h"
#include "tracker/tracker.h"
#include "udp/node_link.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {

u32 NodeLink::SendRequest(const AccDecisionInfo& decision, u8 retry,
                          const LastNodeInfo* left) noexcept {
  nego_start_ms_ = common::UnixTimeMs();
  nego_elapsed_ms_ = 0;
  info_.nego_addr = ProxyAddress(decision.selected_proxy);
  const sockaddr_in& game = flow_.remote_addr;
  NegoRequest request =
      MakeNegoRequest(game.sin_addr.s_addr, game.sin_port, retry, flow_.guid, decision);
  if (left != nullptr) {
    request.body.flags = kNegoFlagSwitch;
    request.body.last_node = *left;
  }
  u8 wire[sizeof request];
  request.Pack(wire);
  return Send(kOwnSocket, wire, sizeof wire, info_.nego_addr, true);
}

std::optional<u32> NodeLink::TakeAnswer(const UdpPackage& package, AccDecisionInfo* decision,
                                        NegoResponse* response) noexcept {
  if (!SameAddress(package.addr, info_.nego_addr)) return std::nullopt;
  response->Init(kNegoVersion);
  const int result = response->Unpack({package.data, package.valid_len});
  if (result < 0) {
    LSP_LOG(5,
            on_trial_
                ? "UdpSwitchRemoteSession::HandleNegoRecv, Unpack error=%d, pack_len=%u, token=%u"
                : "[UDP] UdpRemoteSession::HandleNegoRecv, Unpack error=%d, pack_len=%u, token=%u",
            result, package.valid_len, flow_.token);
    return kNegoBadHeader;
  }
  const NegoAsker asker = on_trial_ ? NegoAsker::kUdpSwitch : NegoAsker::kUdp;
  const u32 reason = CheckNegotiation(asker, sock_, flow_.token, response->body, decision);
  if (reason == 0) {
    info_.Accept(*response);
    LogNegotiated(asker, *response, flow_.token);
  }
  return reason;
}

// The system does not say which datagram came back, but until the link stands it has sent nothing
// except to its node. (A game that has closed its socket may look the same; it waits for nothing.)
bool NodeLink::IsUnreachable(SOCKET socket, u32 error) const noexcept {
  const bool is_report = error == WSAECONNRESET || error == WSAECONNREFUSED ||
                         error == WSAENETRESET || error == WSAEHOSTUNREACH ||
                         error == WSAENETUNREACH || error == WSAEADDRNOTAVAIL;
  return is_report && socket == sock_ && GetMending().LeavesUnreachableNode();
}

bool NodeLink::IsAnswerOverdue(u32 elapsed_ms, u32 limit_ms) noexcept {
  if (nego_elapsed_ms_ >= limit_ms) return true;
  nego_elapsed_ms_ += elapsed_ms;
  return false;
}

void NodeLink::RecordNegFailed(u32 reason, const AccDecisionInfo& decision,
                               u32 attempts) const noexcept {
  constexpr i32 kNegTypeUdp = 1;
  const u32 elapsed = static_cast<u32>(common::UnixTimeMs() - nego_start_ms_);
  GetTracker().RecordNegFailed(sock_, kNegTypeUdp, reason, &decision, std::max(1u, elapsed),
                               attempts);
}

void NodeLink::StartWatch(LinkWatch* watch, const AccDecisionInfo& decision,
                          const ClientInfo& client_info) const noexcept {
  SpeedTestParam param;
  param.socket = sock_;
  param.token = flow_.token;
  param.node_addr = info_.data_addr;
  param.game_ip = ntohl(flow_.remote_addr.sin_addr.s_addr);
  param.game_port = ntohs(flow_.remote_addr.sin_port);
  param.accl_token = info_.accl_token;
  char guid_text[SessionGuid::kTextSize] = {};
  flow_.guid.ToString(guid_text, sizeof guid_text);
  watch->Start(param, guid_text, DescribeLink(flow_.remote_addr, decision, info_), client_info,
               on_trial_);
}

void NodeLink::AskForUpdate(const LinkWatch& watch) const noexcept {
  const u32 due = watch.DueInMs();
  if (due != LinkWatch::kNotDue) flow_.session->provider()->SessionMgr()->UpdateWithin(due);
}

}  // namespace moru_vyr::lsp
