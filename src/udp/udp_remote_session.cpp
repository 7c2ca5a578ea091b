// The session's sockets, its course over time and its end.
#include "udp/udp_remote_session.h"

#include "common/log.h"
#include "common/net_text.h"
#include "quality/link_thresholds.h"
#include "relay/nego_common.h"
#include "route/acc_config.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kNegotiationLimitMs = 5000;

}  // namespace

UdpRemoteSession::UdpRemoteSession(UdpSession* session, const sockaddr_in& remote_addr,
                                   const sockaddr_in& local_addr)
    : session_(session),
      token_(session->token()),
      remote_addr_(remote_addr),
      local_addr_(local_addr),
      remote_ip_(common::IpToString(remote_addr.sin_addr.s_addr)),
      guid_(SessionGuid::Make()),
      lost_calc_unit_size_(thresholds::LostCalcUnitSize(*GetAccConfig())),
      data_link_short_cycle_pkg_(thresholds::DataLinkShortCyclePkg(*GetAccConfig())),
      data_link_short_cycle_lost_(thresholds::DataLinkShortCycleLost(*GetAccConfig())),
      data_link_long_cycle_pkg_(thresholds::DataLinkLongCyclePkg(*GetAccConfig())),
      data_link_long_cycle_lost_(thresholds::DataLinkLongCycleLost(*GetAccConfig())),
      max_real_route_lost_(thresholds::MaxRealRouteLost(*GetAccConfig())) {
  LSP_LOG(5,
          "[UDP] UdpRemoteSession::UdpRemoteSession, data_link_short_cycle_pkg_=%d, "
          "data_link_short_cycle_lost_=%d, data_link_long_cycle_pkg_=%d, "
          "data_link_long_cycle_lost_=%d, max_real_route_lost_=%d",
          static_cast<int>(data_link_short_cycle_pkg_),
          static_cast<int>(data_link_short_cycle_lost_),
          static_cast<int>(data_link_long_cycle_pkg_), static_cast<int>(data_link_long_cycle_lost_),
          static_cast<int>(max_real_route_lost_));
}

UdpRemoteSession::~UdpRemoteSession() { ReleaseSock(); }

bool UdpRemoteSession::Init(bool bind, u32 send_size, u32 recv_size) noexcept {
  sock_send_buf_size_ = send_size;
  sock_recv_buf_size_ = recv_size;
  LSP_LOG(0,
          "[UDP] UdpRemoteSession::Init, remote_ip=%s, sock_send_buf_size=%d, "
          "sock_recv_buf_size=%d, token=%u",
          remote_ip_.c_str(), static_cast<int>(send_size), static_cast<int>(recv_size), token_);
  local_sock_ = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (local_sock_ == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    LSP_LOG(5, "[UDP] UdpRemoteSession::Init socket error=%d, token=%u", error, token_);
    return false;
  }
  u_long on = 1;
  if (ioctlsocket(local_sock_, static_cast<long>(FIONBIO), &on) == SOCKET_ERROR) {
    const int error = WSAGetLastError();
    LSP_LOG(5, "[UDP] UdpRemoteSession::Init ioctlsocket , error=%d, token=%u", error, token_);
  }
  if (bind && !BindRandomPort(local_sock_, false, &local_port_, false)) {
    closesocket(local_sock_);
    local_sock_ = INVALID_SOCKET;
    LSP_LOG(5, "[UDP] UdpRemoteSession::Init failed, remote_ip=%s, token=%u", remote_ip_.c_str(),
            token_);
    return false;
  }
  session_->provider()->SessionMgr()->AddSocket(local_sock_, this);
  AdjustSocketBuff(local_sock_, send_size, recv_size);
  GetTracker().AddToWatchList(local_sock_, kTrackUdp, token_);
  remote_sock_ = local_sock_;
  LSP_LOG(5, "[UDP] UdpRemoteSession::Init success, remote_ip=%s, token=%u", remote_ip_.c_str(),
          token_);
  return true;
}

void UdpRemoteSession::OnUpdate(u32 elapsed_ms) noexcept {
  if (state_ == UdpState::kNegotiating) {
    if (nego_elapsed_ms_ < kNegotiationLimitMs) {
      nego_elapsed_ms_ += elapsed_ms;
    } else {
      OnNegotiationFailed(kNegoTimedOut);
    }
  }
  if (state_ == UdpState::kAccl && !closing_) speed_test_.StepSpeedTest();
  CheckHighFreqTrigger(elapsed_ms);
  if (switch_session_ == nullptr) return;
  if (switch_session_->IsActive()) {
    switch_session_->OnUpdate(elapsed_ms);
  } else {
    switch_session_->SetClosing();
    switch_session_.reset();
  }
}

void UdpRemoteSession::SetClosing() noexcept {
  speed_test_.Stop();
  closing_ = true;
  if (switch_session_ != nullptr) switch_session_->SetClosing();
}

void UdpRemoteSession::ReleaseSock() noexcept {
  LSP_LOG(0, "UdpRemoteSession::ReleaseSock, remote_ip=%s, new_sock = %u, ori socket=%u, token=%u",
          remote_ip_.c_str(), static_cast<u32>(remote_sock_), static_cast<u32>(local_sock_),
          token_);
  if (!session_->provider()->IsStopping()) SendEndToAccl();
  IRelaySocketMgr* const mgr = session_->provider()->SessionMgr();
  for (const SOCKET socket : {remote_sock_, local_sock_}) mgr->RemoveSocket(socket);
  for (const SOCKET socket : {local_sock_, remote_sock_}) {
    GetTracker().RemoveFromWatchList(socket);
  }
  if (local_sock_ != INVALID_SOCKET) CloseRelaySocket(local_sock_);
  if (switched_ && remote_sock_ != INVALID_SOCKET) CloseRelaySocket(remote_sock_);
  local_sock_ = INVALID_SOCKET;
  remote_sock_ = INVALID_SOCKET;
}

}  // namespace moru_vyr::lsp
