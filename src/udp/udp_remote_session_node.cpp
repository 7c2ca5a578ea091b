// Which node the flow goes through: whether one is asked, what follows from its answer, and the
// move to another one.
//
// Each request is one datagram, never repeated. After a failure one other node is asked; then the
// flow goes direct, with everything that waited.
#include <optional>
#include <utility>

#include "common/log.h"
#include "common/net_text.h"
#include "relay/nego_common.h"
#include "relay/node_choice.h"
#include "route/route.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kNegotiationLimitMs = 5000;
constexpr int kSwitchVerified = 1, kSwitchTakenOver = 2;

void LogSwitchState(int state, SOCKET socket, u32 token) noexcept {
  LSP_LOG(5, "[UDP] UdpRemoteSession::NotifySwitchState, state=%d, socket=%u, token=%u", state,
          static_cast<u32>(socket), token);
}

}  // namespace

bool UdpRemoteSession::DecideAccl() noexcept {
  char guid_text[SessionGuid::kTextSize] = {};
  flow_.guid.ToString(guid_text, sizeof guid_text);
  bool result = false;
  try {
    result = flow_.session->provider()->SessionRoute()->MakeDecision(
                 flow_.remote_addr.sin_addr.s_addr, flow_.remote_addr.sin_port, SOCK_DGRAM,
                 guid_text, &decision_, &link_.info().switch_route, local_sock_, flow_.token) &&
             SelectAwakeProxy(SOCK_DGRAM, &decision_);
  } catch (...) {  // out of memory: the game server can still be reached directly
  }
  GetTracker().NoteGameServer(local_sock_,
                              common::IpToString(flow_.remote_addr.sin_addr.s_addr).c_str(),
                              flow_.remote_addr.sin_port);
  GetTracker().SetAcceInfo(local_sock_, result, &decision_);
  LSP_LOG(5, "[UDP] UdpRemoteSession::DecideAccl result=%s, socket=%Id, token=%u",
          result ? "acc" : "direct", local_sock_, flow_.token);
  return result;
}

void UdpRemoteSession::StartNegotiation() noexcept {
  state_ = UdpState::kNegotiating;
  const RouteProxyInfo& proxy = decision_.selected_proxy;
  LSP_LOG(5,
          "[UDP] UdpRemoteSession::StartNegotiation, proxy_idc=%u, proxy_addr=%s:%u, proxy_t1=%u, "
          "proxy_t2=%u, t1_lost=%u%%, game_idc=%d, socket=%Id, token=%u",
          u32{proxy.proxy_idc}, ProxyAddrText(proxy).text, u32{proxy.proxy_port},
          u32{proxy.section1_delay}, u32{proxy.section2_delay}, u32{proxy.section1_lost},
          static_cast<int>(decision_.game_idc), local_sock_, flow_.token);
  const u32 error = link_.SendRequest(decision_, static_cast<u8>(nego_retry_), nullptr);
  LeaveIfUnreachable(link_.sock(), error);
}

void UdpRemoteSession::HandleNegoRecv(const UdpPackage& package) noexcept {
  NegoResponse response;
  const std::optional<u32> reason = link_.TakeAnswer(package, &decision_, &response);
  if (!reason) return;
  if (*reason != 0) {
    OnNegotiationFailed(*reason);
    return;
  }
  OnNegotiated(response);
}

void UdpRemoteSession::OnNegotiated(const NegoResponse& response) noexcept {
  NoteNodeServes(SOCK_DGRAM, decision_);
  state_ = UdpState::kAccl;
  FlushCachedPackages();  // before anything is measured: the game has waited long enough
  link_.StartWatch(&watch_, decision_, DescribeClient(decision_, response));
}

u32 UdpRemoteSession::AnswerLimitMs() const noexcept {
  const FallbackTimes* const times = FastFallback();
  if (times == nullptr) return kNegotiationLimitMs;
  return nego_retry_ == 0 ? times->next_node_ms : times->direct_ms;
}

// A node that has not answered, and still may.
void UdpRemoteSession::LeaveAskedNode(u32 reason) noexcept {
  if (FastFallback() != nullptr) {
    overdue_[nego_retry_ == 0 ? 0 : 1] = {link_.info().nego_addr, decision_.selected_proxy};
  }
  OnNegotiationFailed(reason);
}

void UdpRemoteSession::LeaveIfUnreachable(SOCKET socket, u32 error) noexcept {
  if (link_.IsUnreachable(socket, error)) LeaveAskedNode(kNegoUnreachable);
}

// The answer of a node that did not answer in time. False if the datagram is something else.
bool UdpRemoteSession::HandleLateAnswer(const UdpPackage& package) noexcept {
  for (AskedNode& node : overdue_) {
    if (node.addr.sin_port == 0 || !SameAddress(package.addr, node.addr)) continue;
    if (state_ == UdpState::kNegotiating) return TakeLateAnswer(package, &node);
    if (!link_.EndLateAnswer(local_sock_, package)) return false;  // it is something else
    node = {};
    return true;
  }
  return false;
}

// The first answer wins, even a late one; the other node's answer may still come. A late refusal,
// or anything that is not an answer, is ignored: its node has been reported as silent.
bool UdpRemoteSession::TakeLateAnswer(const UdpPackage& package, AskedNode* node) noexcept {
  AccDecisionInfo late = decision_;
  late.selected_proxy = node->proxy;
  const sockaddr_in asked_last = std::exchange(link_.info().nego_addr, node->addr);
  NegoResponse response;
  const std::optional<u32> reason = link_.TakeAnswer(package, &late, &response);
  if (reason != 0u) {
    link_.info().nego_addr = asked_last;
    *node = {};
    return true;
  }
  *node = {asked_last, decision_.selected_proxy};
  decision_ = late;
  GetTracker().SetAcceInfo(local_sock_, true, &decision_);
  LSP_LOG(5, "[UDP] UdpRemoteSession::TakeLateAnswer, proxy_idc=%u, token=%u",
          u32{decision_.selected_proxy.proxy_idc}, flow_.token);
  OnNegotiated(response);
  return true;
}

void UdpRemoteSession::OnNegotiationFailed(u32 reason) noexcept {
  LSP_LOG(5, "[UDP] UdpRemoteSession::OnNegotiationFailed, reason=%u, token=%u", reason,
          flow_.token);
  link_.RecordNegFailed(reason, decision_, nego_retry_ + 1);
  NoteNodeFailed(SOCK_DGRAM, decision_);
  if (nego_retry_ == 0 && ChangeAcclServer()) {
    ++nego_retry_;
    StartNegotiation();
    return;
  }
  state_ = UdpState::kDirect;
  LSP_LOG(5, "[UDP] UdpRemoteSession::OnNegotiationFailed, begin direct mode, token=%u",
          flow_.token);
  FlushCachedPackages();
}

bool UdpRemoteSession::ChangeAcclServer() noexcept {
  if (!SelectOtherProxy(SOCK_DGRAM, &decision_)) return false;
  GetTracker().SetAcceInfo(local_sock_, true, &decision_);
  LSP_LOG(5, "[UDP] UdpRemoteSession::ChangeAcclServer, proxy_idc=%u,token=%u",
          u32{decision_.selected_proxy.proxy_idc}, flow_.token);
  return true;
}

bool UdpRemoteSession::OwesCachedPackages() const noexcept {
  return !cached_packages_.empty() && FastFallback() != nullptr;
}

// The negotiation is over, with either result, so nothing is added to the list meanwhile.
void UdpRemoteSession::FlushCachedPackages() noexcept {
  const bool closes_after = closing_ && OwesCachedPackages();
  for (StoredPackage& cached : cached_packages_) HandleLocalPacket(cached.View());
  if (!cached_packages_.empty()) {
    LSP_LOG(0, "[UDP] UdpRemoteSession::FlushCachedPackages, count=%u, token=%u",
            static_cast<u32>(cached_packages_.size()), flow_.token);
  }
  cached_packages_.clear();
  if (closes_after && !link_.HasBlocked()) flow_.session->WantClose();
}

// --- the move to another node --------------------------------------------------------------------

bool UdpRemoteSession::FireSwitch(const RecoverySwitchRecord& report) noexcept {
  if (trial_ != nullptr && trial_->IsActive()) return false;
  if (trial_ != nullptr) EndTrial();
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

// What the old node sends is still received.
void UdpRemoteSession::OnVerified() noexcept {
  LogSwitchState(kSwitchVerified, link_.sock(), flow_.token);
  if (link_.FlushBlockedPackages() && closing_) flow_.session->WantClose();
}

// The local socket stays, and with it the port that the game talks to.
void UdpRemoteSession::TakeOver(const UdpPackage& proof, const UdpAcclHeader& header) noexcept {
  LogSwitchState(kSwitchTakenOver, link_.sock(), flow_.token);
  IRelaySocketMgr* const mgr = flow_.session->provider()->SessionMgr();
  const SOCKET left_sock = link_.sock();
  if (starts_anew_) {
    LeaveNode();
  } else {
    TellNodeOfEnd();  // the node that the flow is leaving
    // Kept: after a second switch the socket in between stays open until the process ends.
    if (left_sock != local_sock_) mgr->RemoveSocket(left_sock);
  }
  const SOCKET new_sock = trial_->sock();
  LSP_LOG(5, "UdpRemoteSession::ReplaceSock, new socket=%u, ori socket=%u, token=%u",
          static_cast<u32>(new_sock), static_cast<u32>(local_sock_), flow_.token);
  mgr->RemoveSocket(new_sock);
  mgr->AddSocket(new_sock, this);
  const ClientInfo client_info = trial_->HandOver(&link_, &decision_);
  // Kept: of a node that has not passed, the flow does not know the numbers and addresses. It
  // continues with those of the last one that had passed, or with none.
  if (trial_->IsVerified()) {
    last_verified_ = link_.info();
  } else {
    link_.info() = last_verified_;
  }
  if (starts_anew_) BeginAnew(left_sock);
  link_.StartWatch(&watch_, decision_, client_info);
  if (link_.IsFromNode(proof)) HandleAcclRecv(proof, header);
}

// The node is told of the end only once its last answers should have arrived: it passes on none
// after that.
void UdpRemoteSession::LeaveNode() noexcept {
  EndLeft();
  left_.CopyFrom(link_);
  left_ms_ = 0;
}

void UdpRemoteSession::EndLeft() noexcept {
  const SOCKET sock = left_.sock();
  if (sock == INVALID_SOCKET) return;
  if (!flow_.session->provider()->IsStopping()) left_.SendEnd();
  left_.Clear();
  if (sock == local_sock_) return;
  flow_.session->provider()->SessionMgr()->RemoveSocket(sock);
  CloseRelaySocket(sock);
}

// The new link is the flow's now: its reports go on under the new node, and no figure of the old
// link counts.
void UdpRemoteSession::BeginAnew(SOCKET left_sock) noexcept {
  GetTracker().MoveFlow(left_sock, link_.sock(), &decision_);
  watch_.Forget();
  if (link_.HasBlocked()) flow_.session->provider()->SessionMgr()->EnableWrite(link_.sock());
}

}  // namespace moru_vyr::lsp
