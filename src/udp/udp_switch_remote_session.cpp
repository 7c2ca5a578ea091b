// The trial's course: its start, its verdict, its end.
#include "udp/udp_switch_remote_session.h"

#include "common/log.h"
#include "common/net_text.h"
#include "quality/recovery_record_text.h"
#include "relay/nego_common.h"
#include "route/acc_config.h"
#include "route/route.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kNegotiationLimitMs = 1000;  // the game suffers meanwhile
constexpr u32 kSocketBufferSize = 65536;

}  // namespace

UdpSwitchRemoteSession::UdpSwitchRemoteSession(UdpSession* session, const SessionGuid& guid,
                                               const sockaddr_in& remote_addr,
                                               const sockaddr_in& local_addr)
    : session_(session),
      token_(session->token()),
      guid_(guid),
      remote_addr_(remote_addr),
      local_addr_(local_addr) {}

UdpSwitchRemoteSession::~UdpSwitchRemoteSession() { ReleaseSock(); }

void UdpSwitchRemoteSession::Init(u32 send_size, u32 recv_size) noexcept {
  const std::string remote_ip = common::IpToString(remote_addr_.sin_addr.s_addr);
  LSP_LOG(0,
          "[UDP] UdpSwitchRemoteSession::Init, remote_ip=%s, sock_send_buf_size=%d, "
          "sock_recv_buf_size=%d, token=%u",
          remote_ip.c_str(), static_cast<int>(send_size), static_cast<int>(recv_size), token_);
  sock_ = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (sock_ == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    LSP_LOG(5, "UdpSwitchRemoteSession::Init socket error=%d, token=%u", error, token_);
    return;
  }
  u_long on = 1;
  if (ioctlsocket(sock_, static_cast<long>(FIONBIO), &on) == SOCKET_ERROR) {
    const int error = WSAGetLastError();
    LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::Init ioctlsocket , error=%d, token=%u", error,
            token_);
  }
  IRelaySocketMgr* const mgr = session_->provider()->SessionMgr();
  if (mgr == nullptr) {
    closesocket(sock_);
    sock_ = INVALID_SOCKET;
    LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::Init failed, remote_ip=%s, token=%u",
            remote_ip.c_str(), token_);
    return;
  }
  mgr->AddSocket(sock_, this);
  AdjustSocketBuff(sock_, kSocketBufferSize, kSocketBufferSize);
  GetTracker().AddToWatchList(sock_, kTrackUdp, token_);
  LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::Init success, remote_ip=%s, token=%u",
          remote_ip.c_str(), token_);
}

void UdpSwitchRemoteSession::StartSwitch(const AccDecisionInfo& decision,
                                         const SwitchProxyInfo& switch_route,
                                         const LastNodeInfo& last_node,
                                         const RecoverySwitchRecord& report,
                                         ISwitchEvent* notifier) noexcept {
  parent_notifier_ = notifier;
  decision_ = decision;
  report_ = report;
  accl_info_.switch_route = switch_route;
  const u16 last_node_id = last_node.node_id;
  if (!session_->provider()->SessionRoute()->MakeSwitchDecision(
          &decision_, &accl_info_.switch_route, &last_node_id, token_)) {
    Finish(UdpSwitchState::kFailed, SwitchResult::kNoRoute);
  } else if (!StartNegotiation(remote_addr_, last_node)) {
    Finish(UdpSwitchState::kFailed, SwitchResult::kNotAsked);
  }
}

void UdpSwitchRemoteSession::OnUpdate(u32 elapsed_ms) noexcept {
  if (state_ == UdpSwitchState::kNegotiating) {
    if (nego_elapsed_ms_ < kNegotiationLimitMs) {
      nego_elapsed_ms_ += elapsed_ms;
    } else {
      OnNegotiationFailed(kNegoTimedOut);
    }
  }
  // Kept: a judge that may not measure this node gives no verdict, and the trial has no other end.
  if (state_ == UdpSwitchState::kVerifying && !closing_) speed_test_.StepSpeedTest();
  recovery_.OnUpdate();
}

// As the last probe of the burst leaves: its answer does not count any more.
void UdpSwitchRemoteSession::NotifyVerifyResult(bool ok) noexcept {
  LSP_LOG(5,
          "[UDP] UdpSwitchRemoteSession::NotifyVerifyResult, Verifying result=%s, socket=%u, "
          "token=%u",
          ok ? "succeeded" : "failed", static_cast<u32>(sock_), token_);
  if (!ok) {
    Finish(UdpSwitchState::kFailed, SwitchResult::kVerificationFailed);
  } else if (GetAccConfig()->game_link_switch_open != 0) {
    state_ = UdpSwitchState::kVerified;
    parent_notifier_->NotifySwitchState(kSwitchVerified);
  } else {
    LSP_LOG(5,
            "UdpSwitchRemoteSession::NotifyVerifyResult, game_link switch is not open, socket=%u, "
            "token=%u",
            static_cast<u32>(sock_), token_);
    Finish(UdpSwitchState::kDone, SwitchResult::kNotOpen);
  }
}

void UdpSwitchRemoteSession::Finish(UdpSwitchState state, SwitchResult result) noexcept {
  state_ = state;
  ReportSwitchResult(result);
}

void UdpSwitchRemoteSession::ReportSwitchResult(SwitchResult result) noexcept {
  report_.is_switch_succ = static_cast<i32>(result);
  GetTracker().SubmitRecoverySwitch(&report_);
  LSP_LOG(0, "[UdpSwitchRemoteSession::ReportSwitchResult]%s, socket=%u, token=%u",
          RecoveryRecordText(report_).c_str(), static_cast<u32>(sock_), token_);
}

bool UdpSwitchRemoteSession::IsActive() const noexcept {
  if (state_ == UdpSwitchState::kFailed || state_ == UdpSwitchState::kDone) return false;
  return sock_ != 0;
}

void UdpSwitchRemoteSession::SetClosing() noexcept {
  speed_test_.Stop();
  closing_ = true;
}

void UdpSwitchRemoteSession::DetachSock() noexcept {
  LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::DetachSock, socket=%u, token=%u",
          static_cast<u32>(sock_), token_);
  sock_ = 0;
}

void UdpSwitchRemoteSession::TakeOver(AccDecisionInfo* decision, UdpPackage* package,
                                      StoredPackages* blocked, ClientInfo* client_info) noexcept {
  *decision = decision_;
  *package = recv_package_;
  blocked_packages_.swap(*blocked);
  *client_info = client_info_;
}

void UdpSwitchRemoteSession::ReleaseSock() noexcept {
  LSP_LOG(0, "[UDP] UdpSwitchRemoteSession::ReleaseSock, remote_ip=%s, socket=%u, token=%u",
          common::IpToString(remote_addr_.sin_addr.s_addr).c_str(), static_cast<u32>(sock_),
          token_);
  if (sock_ == 0) return;
  if (!session_->provider()->IsStopping()) SendEndToAccl();
  if (IRelaySocketMgr* const mgr = session_->provider()->SessionMgr()) mgr->RemoveSocket(sock_);
  GetTracker().RemoveFromWatchList(sock_);
  CloseRelaySocket(sock_);
  sock_ = 0;
}

}  // namespace moru_vyr::lsp
