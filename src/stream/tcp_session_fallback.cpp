// How a session negotiates, and where it turns when a node fails: to one other node, then to the
// game server. What the game has sent waits meanwhile; the failed node never saw any of it.
#include "common/log.h"
#include "common/net_text.h"
#include "relay/node_choice.h"
#include "route/mending.h"
#include "stream/tcp_provider.h"
#include "stream/tcp_session.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

const char* TrueOrFalse(bool value) noexcept { return value ? "true" : "false"; }

}  // namespace

bool TcpSession::StartNegotiation() noexcept {
  state_ = TcpState::Negotiating;
  ++nego_count_;
  const bool sent =
      negotiation_.SendTcpNegotiation(provider_->SessionMgr(), remote_.socket, token_, game_ip_,
                                      game_port_, node_changes_, &guid_, &decision_);
  if (!sent) {
    GetTracker().RecordNegFailed(remote_.socket, 0, kNegoSendFailed, &decision_, 0, nego_count_);
  }
  const RouteProxyInfo& proxy = decision_.selected_proxy;
  LSP_LOG(5,
          "TcpSession::StartNegotiation, proxy_idc=%u, proxy_addr=%s:%u, proxy_t1=%u, proxy_t2=%u, "
          "t1_lost=%u%%, game_idc=%d, socket=%Id, token=%u",
          u32{proxy.proxy_idc}, ProxyAddrText(proxy).text, u32{proxy.proxy_port},
          u32{proxy.section1_delay}, u32{proxy.section2_delay}, u32{proxy.section1_lost},
          static_cast<int>(decision_.game_idc), remote_.socket, token_);
  return sent || LeaveNode(kNegoSendFailed) || Resume(false);
}

bool TcpSession::FinishNegotiation() noexcept {
  u32 reason = 0;
  switch (negotiation_.ParseTcpNegotiation(&decision_, &reason)) {
    case 0:
      NoteNodeServes(SOCK_STREAM, decision_);
      WinRace();
      return DoRemoteWrite();
    case -1:
      state_ = TcpState::Failed;
      return OnNegotiationFailed(reason);
    default:
      return LeaveNode(kNegoReceiveFailed) || Resume(false);
  }
}

// A node that failed in a way that otherwise ends the connection. Whether there is another way.
bool TcpSession::LeaveNode(u32 reason) noexcept {
  return use_acc_ && GetMending().LeavesFailedNode() && OnNegotiationFailed(reason);
}

bool TcpSession::OnNegotiationFailed(u32 reason) noexcept {
  LSP_LOG(5, "[TCP] TcpSession::OnNegotiationFailed, reason=%u, token=%u", reason, token_);
  GetTracker().RecordNegFailed(remote_.socket, 0, reason, &decision_, negotiation_.ElapsedMs(),
                               nego_count_);
  NoteNodeFailed(SOCK_STREAM, decision_);
  return Resume(true) || TakeNextWay() || Resume(false);
}

bool TcpSession::TakeNextWay() noexcept {
  if (direct_tried_) return false;
  if (node_changes_ == 0 && ChangeAcclServer()) {
    ++node_changes_;
    connect_elapsed_ = 0;
    if (!CreateRemoteSocket()) {
      // Kept: the state stays as it is, so where time ran out it will run out once more.
      LSP_LOG(4, "[TCP]TcpSession::OnNegotiationFailed. CreateRemoteSocket failed, token=%u",
              token_);
      return false;
    }
    GetTracker().SetAcceInfo(remote_.socket, true, &decision_);
    if (ConnectToNewNode()) return true;
  }
  state_ = TcpState::Failed;
  const bool result = ChangeToGameSrv();
  LSP_LOG(5,
          "[TCP] TcpSession::OnNegotiationFailed, begin direct mode. ChangeToGameSrv result=%s, "
          "token=%u",
          TrueOrFalse(result), token_);
  return result;
}

bool TcpSession::ConnectToNewNode() noexcept {
  state_ = TcpState::Negotiating;
  TargetSelectedProxy();
  LSP_LOG(4, "[TCP]OnNegotiationFailed. ip=%s, port=%d, socket=%Id, token=%u",
          common::IpToString(remote_ip_).c_str(), ntohs(remote_port_), remote_.socket, token_);
  const bool retried = Connect();
  LSP_LOG(4, "[TCP]TcpSession::OnNegotiationFailed. retry=%s, socket=%Id, token=%u",
          TrueOrFalse(retried), remote_.socket, token_);
  return retried;
}

bool TcpSession::ChangeAcclServer() noexcept {
  if (!SelectOtherProxy(SOCK_STREAM, &decision_)) return false;
  LSP_LOG(5, "[TCP] TcpSession::ChangeAcclServer, proxy_idc=%u, token=%u",
          u32{decision_.selected_proxy.proxy_idc}, token_);
  return true;
}

bool TcpSession::CreateRemoteSocket() noexcept {
  if (remote_.socket != INVALID_SOCKET) {
    LSP_LOG(4, "[TCP]CreateRemoteSocket, about to close socket=%Id, token=%u", remote_.socket,
            token_);
    CloseSocket(&remote_);
  }
  if (OpenRemoteSocket()) return true;
  LSP_LOG(4, "[TCP]ERROR TcpProvider::CreateRemoteSocket. Fail to create socket, token=%u", token_);
  return false;
}

bool TcpSession::ChangeToGameSrv() noexcept {
  if (!CreateRemoteSocket()) {
    LSP_LOG(4, "[TCP]TcpSession::ChangeToGameSrv. result=%s, token=%u", "false", token_);
    return false;
  }
  use_acc_ = false;
  direct_tried_ = true;
  remote_ip_ = game_ip_;
  remote_port_ = game_port_;
  const bool result = Connect();
  LSP_LOG(4, "[TCP]TcpSession::ChangeToGameSrv. result=%s, socket=%Id, token=%u",
          TrueOrFalse(result), remote_.socket, token_);
  return result;
}

void TcpSession::TargetSelectedProxy() noexcept {
  const sockaddr_in node = ProxyAddress(decision_.selected_proxy);
  remote_ip_ = static_cast<u32>(node.sin_addr.s_addr);
  remote_port_ = node.sin_port;
}

}  // namespace moru_vyr::lsp
