// The care for a link, and the session's part in a move to another node.
#include "common/log.h"
#include "quality/link_identity.h"
#include "quality/link_trouble.h"
#include "relay/relay_interfaces.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {

void UdpRemoteSession::StartSpeedTest() noexcept {
  const AcclLinkInfo& link = CurrentLink();
  SpeedTestParam param;
  param.socket = CurrentSocket();
  param.token = token_;
  param.node_addr = link.data_addr;
  param.game_ip = ntohl(remote_addr_.sin_addr.s_addr);
  param.game_port = ntohs(remote_addr_.sin_port);
  param.accl_token = link.accl_token;
  speed_test_.Start(&recovery_, &param, false);
}

void UdpRemoteSession::StartRecovery(u32 client_isp, u32 client_ip) noexcept {
  char guid_text[SessionGuid::kTextSize] = {};
  guid_.ToString(guid_text, sizeof guid_text);
  const AccInfo acc_info = DescribeLink(remote_addr_, decision_, CurrentLink());
  const ClientInfo client_info = DescribeClient(decision_, client_isp, client_ip);
  recovery_.Init(this, CurrentSocket(), token_, guid_text, &acc_info, &client_info, false);
  high_freq_timer_ms_ = 0;
}

void UdpRemoteSession::CheckHighFreqTrigger(u32 elapsed_ms) noexcept {
  if (!recovery_.OnUpdate()) return;
  if (high_freq_timer_ms_ < lost_calc_unit_size_) {
    high_freq_timer_ms_ += elapsed_ms;
    return;
  }
  high_freq_timer_ms_ = 0;
  if (WantsHighFreqTest()) speed_test_.HighFreqTest();
}

// Whether the traffic looks bad enough for a burst of probes; that is all that follows from it.
// The numbers in the log lines are words, not the thresholds.
bool UdpRemoteSession::WantsHighFreqTest() noexcept {
  u32 need = 0, route_real = 0;
  LinkFigures figures;
  figures.small_lost = recovery_.GetDataLinkShortLost(&need, &figures.small_real, false);
  figures.long_lost = recovery_.GetDataLinkLongLost(&need, &figures.long_real, false);
  recovery_.GetRealRouteShortLost(&need, &figures.route_short_real, false);
  figures.route_lost = recovery_.GetRealRouteLost(&need, &route_real, false);
  recovery_.UpdateRecoveryInfo();
  switch (FindTrouble(
      figures, {data_link_short_cycle_pkg_, data_link_short_cycle_lost_, data_link_long_cycle_pkg_,
                data_link_long_cycle_lost_, max_real_route_lost_})) {
    case LinkTrouble::kNone:
      return false;
    case LinkTrouble::kDead:
      LSP_LOG(4,
              "[RecoverySwitch]the received packages in 2 seconds is 0, indicating dead link, so "
              "requesting high freq test, token=%u",
              token_);
      break;
    case LinkTrouble::kShortLoss:
      LSP_LOG(4,
              "[RecoverySwitch]the received packages in 2 seconds is above 20 and lost ratio is "
              "above 20, indicating lagging link, so requesting high freq test, token=%u",
              token_);
      break;
    case LinkTrouble::kLongLoss:
      LSP_LOG(4,
              "[RecoverySwitch]received packages in 5 seconds is above 30 and lost ratiois above "
              "5, so requesting high freq test, token=%u",
              token_);
      break;
    case LinkTrouble::kRouteLoss:
      LSP_LOG(4,
              "[RecoverySwitch]the received packages in 5 seconds is less than 30 and lost ratio "
              "is above 40, so requesting high freq test, token=%u",
              token_);
      break;
  }
  return true;
}

bool UdpRemoteSession::FireSwitch(const RecoverySwitchRecord* report) noexcept {
  if (switch_session_ != nullptr) {
    // One that hands its socket over counts as ended already, and still has to return.
    if (switch_session_->IsActive() || switch_session_calls_) return false;
    switch_session_->SetClosing();
    switch_session_.reset();
  }
  switch_state_ = SwitchState::kNone;
  try {
    switch_session_ =
        std::make_unique<UdpSwitchRemoteSession>(session_, guid_, remote_addr_, local_addr_);
  } catch (...) {
    return false;
  }
  switch_session_->Init(sock_send_buf_size_, sock_recv_buf_size_);
  const AcclLinkInfo& link = CurrentLink();
  switch_session_->StartSwitch(decision_, link.switch_route, link.last_node, *report, this);
  return true;
}

void UdpRemoteSession::NotifySwitchState(int state) noexcept {
  if (switch_session_ == nullptr) return;
  LSP_LOG(5, "[UDP] UdpRemoteSession::NotifySwitchState, state=%d, socket=%u, token=%u", state,
          static_cast<u32>(CurrentSocket()), token_);
  switch_session_calls_ = true;
  if (state == kSwitchVerified) BeginVerified();
  if (state == kSwitchTakenOver) BeginTakenOver();
  switch_session_calls_ = false;
}

// From here on game datagrams leave through the new node; those from the old one still arrive.
void UdpRemoteSession::BeginVerified() noexcept {
  switch_state_ = SwitchState::kVerified;
  switch_session_->GetAcclInfo(&verified_accl_info_);
  if (FlushBlockedPackages()) session_->WantClose();
}

void UdpRemoteSession::BeginTakenOver() noexcept {
  switch_state_ = SwitchState::kTakenOver;
  const SOCKET new_sock = switch_session_->GetSock();
  if (new_sock == 0) return;
  ReplaceSock(new_sock);
  switch_session_->DetachSock();
  StoredPackages blocked;
  ClientInfo client_info;
  switch_session_->TakeOver(&decision_, &recv_package_, &blocked, &client_info);
  blocked_packages_.splice(blocked_packages_.end(), blocked);
  StartSpeedTest();
  StartRecovery(client_info.client_isp, client_info.client_ip);
  HandleAcclRecv(recv_package_);  // the datagram that proved the new link
}

// The local socket stays, and with it the port that the game talks to.
void UdpRemoteSession::ReplaceSock(SOCKET new_sock) noexcept {
  if (!session_->provider()->IsStopping()) SendEndToAccl();  // to the node that is left
  IRelaySocketMgr* const mgr = session_->provider()->SessionMgr();
  // Kept: after a second switch the socket in between stays open until the process ends.
  if (switched_ && remote_sock_ != local_sock_) mgr->RemoveSocket(remote_sock_);
  remote_sock_ = new_sock;
  switched_accl_info_ = verified_accl_info_;
  switched_ = true;
  LSP_LOG(5, "UdpRemoteSession::ReplaceSock, new socket=%u, ori socket=%u, token=%u",
          static_cast<u32>(remote_sock_), static_cast<u32>(local_sock_), token_);
  mgr->RemoveSocket(new_sock);
  mgr->AddSocket(new_sock, this);
}

}  // namespace moru_vyr::lsp
