// The session's part in a move to another node.
#include "common/log.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kSwitchVerified = 1, kSwitchTakenOver = 2;

void LogSwitchState(int state, SOCKET socket, u32 token) noexcept {
  LSP_LOG(5, "[UDP] UdpRemoteSession::NotifySwitchState, state=%d, socket=%u, token=%u", state,
          static_cast<u32>(socket), token);
}

}  // namespace

// False: there was nothing to take up.
bool UdpRemoteSession::TakeUp(LinkRequest request) noexcept {
  if (request != LinkRequest::kSwitch) return false;
  watch_.SwitchAnswered(FireSwitch(watch_.report()));
  return true;
}

bool UdpRemoteSession::FireSwitch(const RecoverySwitchRecord& report) noexcept {
  if (trial_ != nullptr) {
    if (trial_->IsActive()) return false;
    EndTrial();
  }
  try {
    trial_ = std::make_unique<UdpSwitchRemoteSession>(this, flow_);
  } catch (...) {
    return false;
  }
  trial_->Init();
  trial_->StartSwitch(decision_, link_.info(), report);
  return true;
}

void UdpRemoteSession::EndTrial() noexcept {
  trial_->SetClosing();
  trial_.reset();
}

// What the old node sends still arrives.
void UdpRemoteSession::OnVerified() noexcept {
  LogSwitchState(kSwitchVerified, link_.sock(), flow_.token);
  if (link_.FlushBlockedPackages() && closing_) flow_.session->WantClose();
}

// The local socket stays, and with it the port that the game talks to.
void UdpRemoteSession::TakeOver(const UdpPackage& proof, const UdpAcclHeader& header) noexcept {
  LogSwitchState(kSwitchTakenOver, link_.sock(), flow_.token);
  TellNodeOfEnd();  // the one that is left
  IRelaySocketMgr* const mgr = flow_.session->provider()->SessionMgr();
  // Kept: after a second switch the socket in between stays open until the process ends.
  if (link_.sock() != local_sock_) mgr->RemoveSocket(link_.sock());
  const SOCKET new_sock = trial_->sock();
  LSP_LOG(5, "UdpRemoteSession::ReplaceSock, new socket=%u, ori socket=%u, token=%u",
          static_cast<u32>(new_sock), static_cast<u32>(local_sock_), flow_.token);
  mgr->RemoveSocket(new_sock);
  mgr->AddSocket(new_sock, this);
  const ClientInfo client_info = trial_->HandOver(&link_, &decision_);
  // Kept: of a node that has not passed, the flow does not know the numbers and addresses. It goes
  // on with those of the last one that had, or with none.
  if (trial_->IsVerified()) {
    last_verified_ = link_.info();
  } else {
    link_.info() = last_verified_;
  }
  link_.StartWatch(&watch_, decision_, client_info);
  if (link_.IsFromNode(proof)) HandleAcclRecv(proof, header);
}

}  // namespace moru_vyr::lsp
