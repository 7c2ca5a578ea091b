#include "udp/udp_switch_remote_session.h"

#include "common/log.h"
#include "common/net_text.h"
#include "quality/link_thresholds.h"
#include "quality/recovery_switch.h"
#include "relay/nego_common.h"
#include "relay/node_choice.h"
#include "route/acc_config.h"
#include "route/route.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kTrialAnswerLimitMs = 1000;  // the game suffers meanwhile
constexpr u32 kSocketBufferSize = 65536;
constexpr u32 kProofLimitMs = 5000;  // beyond the time of the burst
// A game that has sent this many datagrams should have had an answer. Before that, a node's silence
// says nothing.
constexpr u32 kEnoughToBeAnswered = 10;

}  // namespace

UdpSwitchRemoteSession::UdpSwitchRemoteSession(UdpRemoteSession* parent, const UdpFlow& flow)
    : parent_(*parent), flow_(flow), link_(flow, true) {}

void UdpSwitchRemoteSession::Init() noexcept {
  const std::string remote_ip = common::IpToString(flow_.remote_addr.sin_addr.s_addr);
  LSP_LOG(0,
          "[UDP] UdpSwitchRemoteSession::Init, remote_ip=%s, sock_send_buf_size=%d, "
          "sock_recv_buf_size=%d, token=%u",
          remote_ip.c_str(), static_cast<int>(flow_.session->sock_send_buf_size()),
          static_cast<int>(flow_.session->sock_recv_buf_size()), flow_.token);
  if (!link_.Open()) return;
  IRelaySocketMgr* const mgr = flow_.session->provider()->SessionMgr();
  if (mgr == nullptr) {
    link_.Discard();
    LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::Init failed, remote_ip=%s, token=%u",
            remote_ip.c_str(), flow_.token);
    return;
  }
  mgr->AddSocket(link_.sock(), this);
  AdjustSocketBuff(link_.sock(), kSocketBufferSize, kSocketBufferSize);
  GetTracker().AddToWatchList(link_.sock(), kTrackUdp, flow_.token);
  LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::Init success, remote_ip=%s, token=%u",
          remote_ip.c_str(), flow_.token);
}

// --- negotiation: one attempt with one node ------------------------------------------------------

void UdpSwitchRemoteSession::StartSwitch(const AccDecisionInfo& decision, const AcclLinkInfo& left,
                                         const RecoverySwitchRecord& report) noexcept {
  decision_ = decision;
  report_ = report;
  link_.info().switch_route = left.switch_route;
  const LastNodeInfo& last_node = left.last_node;
  const u16 last_node_id = last_node.node_id;
  const u32 left_idc = decision.selected_proxy.proxy_idc;
  SwitchProxyInfo* const candidates = &link_.info().switch_route;
  if (!flow_.session->provider()->SessionRoute()->MakeSwitchDecision(&decision_, candidates,
                                                                     &last_node_id, flow_.token) ||
      !SelectAwakeCandidate(*candidates, left_idc, last_node_id, &decision_)) {
    Finish(UdpSwitchState::kFailed, SwitchResult::kNoRoute);
    return;
  }
  state_ = UdpSwitchState::kNegotiating;
  const RouteProxyInfo& proxy = decision_.selected_proxy;
  LSP_LOG(5,
          "[UDP] UdpSwitchRemoteSession::StartNegotiation, proxy_idc=%u, proxy_addr=%s:%u, "
          "proxy_t1=%u, proxy_t2=%u, t1_lost=%u%%, game_idc=%d, last_node:(node_id=%d, ip=%s, "
          "port=%d, accl_token=%u), socket=%Id, token=%u",
          u32{proxy.proxy_idc}, ProxyAddrText(proxy).text, u32{proxy.proxy_port},
          u32{proxy.section1_delay}, u32{proxy.section2_delay}, u32{proxy.section1_lost},
          static_cast<int>(decision_.game_idc), int{last_node.node_id},
          common::IpToString(htonl(last_node.ip)).c_str(), int{last_node.port},
          u32{last_node.accl_token}, link_.sock(), flow_.token);
  // Kept: one that waits for room counts as failed, and is still sent.
  if (link_.SendRequest(decision_, 0, &last_node) != 0) {
    Finish(UdpSwitchState::kFailed, SwitchResult::kNotAsked);
  }
}

void UdpSwitchRemoteSession::HandleNegoRecv(const UdpPackage& package) noexcept {
  NegoResponse response;
  const std::optional<u32> reason = link_.TakeAnswer(package, &decision_, &response);
  if (!reason) return;
  if (*reason != 0) {
    OnNegotiationFailed(*reason);
    return;
  }
  state_ = UdpSwitchState::kVerifying;
  client_info_ = DescribeClient(decision_, response);
  link_.StartWatch(&watch_, decision_, client_info_);
}

void UdpSwitchRemoteSession::OnNegotiationFailed(u32 reason) noexcept {
  LSP_LOG(5, "UdpSwitchRemoteSession::OnNegotiationFailed, reason=%u, token=%u", reason,
          flow_.token);
  link_.RecordNegFailed(reason, decision_, 1);
  Finish(UdpSwitchState::kFailed, SwitchResult::kNegotiationFailed);
}

// --- verification --------------------------------------------------------------------------------

void UdpSwitchRemoteSession::OnUpdate(u32 elapsed_ms) noexcept {
  link_.RetryBlocked();
  if (state_ == UdpSwitchState::kNegotiating &&
      link_.IsAnswerOverdue(elapsed_ms, kTrialAnswerLimitMs)) {
    OnNegotiationFailed(kNegoTimedOut);
  }
  // Kept: a watcher that may not measure this node gives no verdict, and nothing else ends the
  // trial.
  const bool probing = state_ == UdpSwitchState::kVerifying && !closing_;
  for (LinkRequest verdict;
       (verdict = watch_.OnUpdate(elapsed_ms, probing)) != LinkRequest::kNone;) {
    NotifyVerifyResult(verdict == LinkRequest::kAccept);
  }
  if (probing) link_.AskForUpdate(watch_);
  if (parent_.StartsAnewAfterSwitch() && IsOverdue(elapsed_ms)) {
    link_.SendEnd();
    NotifyVerifyResult(false);
  }
}

// Whether the trial has run too long without a verdict, or the game too long without an answer
// through the node. The flow is then better off with the old node, and free to try another one.
bool UdpSwitchRemoteSession::IsOverdue(u32 elapsed_ms) noexcept {
  const bool waits =
      state_ == UdpSwitchState::kVerifying ||
      (state_ == UdpSwitchState::kVerified && link_.info().seq > kEnoughToBeAnswered);
  if (!waits) return false;
  waited_ms_ += elapsed_ms;
  return waited_ms_ >= kProofLimitMs + thresholds::HighFreqTestTime(*GetAccConfig(), true);
}

void UdpSwitchRemoteSession::NotifyVerifyResult(bool ok) noexcept {
  LSP_LOG(5,
          "[UDP] UdpSwitchRemoteSession::NotifyVerifyResult, Verifying result=%s, socket=%u, "
          "token=%u",
          ok ? "succeeded" : "failed", static_cast<u32>(link_.sock()), flow_.token);
  if (!ok) {
    Finish(UdpSwitchState::kFailed, SwitchResult::kVerificationFailed);
  } else if (GetAccConfig()->game_link_switch_open != 0) {
    state_ = UdpSwitchState::kVerified;
    waited_ms_ = 0;
    parent_.OnVerified();
  } else {
    LSP_LOG(5,
            "UdpSwitchRemoteSession::NotifyVerifyResult, game_link switch is not open, socket=%u, "
            "token=%u",
            static_cast<u32>(link_.sock()), flow_.token);
    Finish(UdpSwitchState::kDone, SwitchResult::kNotOpen);
  }
}

// --- the game's datagrams ------------------------------------------------------------------------

void UdpSwitchRemoteSession::OnReadable(SOCKET socket) noexcept {
  if (socket != link_.sock()) return;
  DatagramBuffer buffer;
  UdpPackage package;
  // The link may be given away while it is being read.
  int error = 0;
  while (!link_.IsGivenAway() && link_.ReadPackage(socket, &buffer, &package, &error)) {
    if (SameAddress(package.addr, flow_.local_addr)) continue;
    if (state_ == UdpSwitchState::kNegotiating) {
      HandleNegoRecv(package);
    } else if (state_ == UdpSwitchState::kVerifying || state_ == UdpSwitchState::kVerified) {
      HandleAcclRecv(package);
    }
    if (link_.WaitsToRead()) return;
  }
  if (state_ == UdpSwitchState::kNegotiating &&
      link_.IsUnreachable(socket, static_cast<u32>(error))) {
    OnNegotiationFailed(kNegoUnreachable);
  }
}

// Kept: also during the verification, and then the parent takes over a link that it has not been
// told of.
void UdpSwitchRemoteSession::HandleAcclRecv(const UdpPackage& package) noexcept {
  UdpAcclHeader header;
  if (!link_.IsFromNode(package) || !link_.Unwrap(package, &header)) return;
  if ((header.flags & kUdpAcclSpeedTest) != 0 && HandleReply(package)) return;
  if (state_ == UdpSwitchState::kVerifying && parent_.StartsAnewAfterSwitch()) {
    parent_.DeliverData(package, header, nullptr);
    return;
  }
  parent_.TakeOver(package, header);
  Finish(UdpSwitchState::kDone, SwitchResult::kTakenOver);
}

// False if it is data, even if its flags say otherwise.
bool UdpSwitchRemoteSession::HandleReply(const UdpPackage& package) noexcept {
  ProbeReply reply;
  if (!watch_.ReadReply(package.data, package.valid_len, &reply)) return false;
  watch_.OnReply(&reply);
  link_.LogProbeAnswer();
  return true;
}

void UdpSwitchRemoteSession::OnWritable(SOCKET) noexcept {
  if (link_.FlushBlockedPackages() && closing_) {
    flow_.session->provider()->CloseSession(flow_.token);  // destroys this, too
  }
}

// --- the end -------------------------------------------------------------------------------------

ClientInfo UdpSwitchRemoteSession::HandOver(NodeLink* link, AccDecisionInfo* decision) noexcept {
  LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::DetachSock, socket=%u, token=%u",
          static_cast<u32>(link_.sock()), flow_.token);
  link->Adopt(&link_);
  *decision = decision_;
  return client_info_;
}

void UdpSwitchRemoteSession::Finish(UdpSwitchState state, SwitchResult result) noexcept {
  state_ = state;
  report_.is_switch_succ = static_cast<i32>(result);
  GetTracker().SubmitRecoverySwitch(&report_);
  LSP_LOG(0, "[UdpSwitchRemoteSession::ReportSwitchResult]%s, socket=%u, token=%u",
          RecoveryRecordText(report_).c_str(), static_cast<u32>(link_.sock()), flow_.token);
}

bool UdpSwitchRemoteSession::IsActive() const noexcept {
  return state_ != UdpSwitchState::kFailed && state_ != UdpSwitchState::kDone;
}

void UdpSwitchRemoteSession::SetClosing() noexcept {
  watch_.Stop();
  closing_ = true;
}

UdpSwitchRemoteSession::~UdpSwitchRemoteSession() {
  LSP_LOG(0, "[UDP] UdpSwitchRemoteSession::ReleaseSock, remote_ip=%s, socket=%u, token=%u",
          common::IpToString(flow_.remote_addr.sin_addr.s_addr).c_str(),
          static_cast<u32>(link_.sock()), flow_.token);
  if (link_.IsGivenAway()) return;
  if (IsActive() && state_ != UdpSwitchState::kInit && !flow_.session->provider()->IsStopping()) {
    link_.info().seq = AcclLinkInfo{}.seq;  // Kept: what the parent has sent does not count
    link_.SendEnd();
  }
  if (IRelaySocketMgr* const mgr = flow_.session->provider()->SessionMgr()) {
    mgr->RemoveSocket(link_.sock());
  }
  GetTracker().RemoveFromWatchList(link_.sock());
  CloseRelaySocket(link_.sock());
}

}  // namespace moru_vyr::lsp
