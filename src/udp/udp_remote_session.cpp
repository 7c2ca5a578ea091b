// The session's sockets and datagrams, its timer and its end. A steady flow allocates nothing.
#include "udp/udp_remote_session.h"

#include "common/log.h"
#include "common/net_text.h"
#include "quality/link_thresholds.h"
#include "relay/nego_common.h"
#include "route/acc_config.h"
#include "route/mending.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kLeftLimitMs = 2000;  // of a node that the flow has left

}  // namespace

UdpRemoteSession::UdpRemoteSession(UdpSession* session, const sockaddr_in& remote_addr,
                                   const sockaddr_in& local_addr)
    : flow_{session, session->token(), remote_addr, local_addr, SessionGuid::Make()},
      link_(flow_, false),
      starts_anew_(GetMending().StartsAnewAfterSwitch()) {
  const AccConfig& config = *GetAccConfig();
  LSP_LOG(5,
          "[UDP] UdpRemoteSession::UdpRemoteSession, data_link_short_cycle_pkg_=%d, "
          "data_link_short_cycle_lost_=%d, data_link_long_cycle_pkg_=%d, "
          "data_link_long_cycle_lost_=%d, max_real_route_lost_=%d",
          static_cast<int>(thresholds::DataLinkShortCyclePkg(config)),
          static_cast<int>(thresholds::DataLinkShortCycleLost(config)),
          static_cast<int>(thresholds::DataLinkLongCyclePkg(config)),
          static_cast<int>(thresholds::DataLinkLongCycleLost(config)),
          static_cast<int>(thresholds::MaxRealRouteLost(config)));
}

bool UdpRemoteSession::Init(bool bind) noexcept {
  const std::string remote_ip = common::IpToString(flow_.remote_addr.sin_addr.s_addr);
  const u32 send_size = flow_.session->sock_send_buf_size();
  const u32 recv_size = flow_.session->sock_recv_buf_size();
  LSP_LOG(0,
          "[UDP] UdpRemoteSession::Init, remote_ip=%s, sock_send_buf_size=%d, "
          "sock_recv_buf_size=%d, token=%u",
          remote_ip.c_str(), static_cast<int>(send_size), static_cast<int>(recv_size), flow_.token);
  if (!link_.Open()) return false;
  if (bind && !BindRandomPort(link_.sock(), false, &local_port_, false)) {
    link_.Discard();
    LSP_LOG(5, "[UDP] UdpRemoteSession::Init failed, remote_ip=%s, token=%u", remote_ip.c_str(),
            flow_.token);
    return false;
  }
  local_sock_ = link_.sock();
  flow_.session->provider()->SessionMgr()->AddSocket(local_sock_, this);
  AdjustSocketBuff(local_sock_, send_size, recv_size);
  GetTracker().AddToWatchList(local_sock_, kTrackUdp, flow_.token);
  LSP_LOG(5, "[UDP] UdpRemoteSession::Init success, remote_ip=%s, token=%u", remote_ip.c_str(),
          flow_.token);
  return true;
}

void UdpRemoteSession::OnUpdate(u32 elapsed_ms) noexcept {
  link_.RetryBlocked();
  if (state_ == UdpState::kNegotiating && link_.IsAnswerOverdue(elapsed_ms, AnswerLimitMs())) {
    LeaveAskedNode(kNegoTimedOut);
  }
  const bool probing = state_ == UdpState::kAccl && !closing_;
  while (watch_.OnUpdate(elapsed_ms, probing) == LinkRequest::kSwitch) {
    watch_.SwitchAnswered(FireSwitch(watch_.report()));
  }
  if (probing) link_.AskForUpdate(watch_);
  if ((left_ms_ += elapsed_ms) >= kLeftLimitMs) EndLeft();
  if (trial_ == nullptr) return;
  if (trial_->IsActive()) {
    trial_->OnUpdate(elapsed_ms);
  } else {
    EndTrial();
  }
}

void UdpRemoteSession::SetClosing() noexcept {
  watch_.Stop();
  closing_ = true;
  if (trial_ != nullptr) trial_->SetClosing();
}

void UdpRemoteSession::OnWritable(SOCKET) noexcept {
  if (link_.FlushBlockedPackages() && closing_) {
    flow_.session->provider()->CloseSession(flow_.token);  // destroys this, too
  }
}

void UdpRemoteSession::TellNodeOfEnd() noexcept {
  if (state_ == UdpState::kAccl && !flow_.session->provider()->IsStopping()) link_.SendEnd();
}

UdpRemoteSession::~UdpRemoteSession() {
  const SOCKET remote_sock = link_.sock();
  LSP_LOG(0, "UdpRemoteSession::ReleaseSock, remote_ip=%s, new_sock = %u, ori socket=%u, token=%u",
          common::IpToString(flow_.remote_addr.sin_addr.s_addr).c_str(),
          static_cast<u32>(remote_sock), static_cast<u32>(local_sock_), flow_.token);
  EndLeft();
  TellNodeOfEnd();
  IRelaySocketMgr* const mgr = flow_.session->provider()->SessionMgr();
  for (const SOCKET socket : {remote_sock, local_sock_}) mgr->RemoveSocket(socket);
  for (const SOCKET socket : {local_sock_, remote_sock}) {
    GetTracker().RemoveFromWatchList(socket);
  }
  if (local_sock_ != INVALID_SOCKET) CloseRelaySocket(local_sock_);
  if (remote_sock != local_sock_) CloseRelaySocket(remote_sock);
}

// --- datagrams: received once into a buffer, wrapped or unwrapped, and sent ----------------------

void UdpRemoteSession::OnReadable(SOCKET socket) noexcept {
  if (socket != local_sock_ && socket != link_.sock() && socket != left_.sock()) return;
  Read(socket, false);
}

void UdpRemoteSession::Read(SOCKET socket, bool to_the_end) noexcept {
  DatagramBuffer buffer;
  UdpPackage package;
  int error = 0;
  u32 count = 0;
  while (link_.ReadPackage(socket, &buffer, &package, &error)) {
    if (SameAddress(package.addr, flow_.local_addr)) {
      HandleGamePacket(package);
    } else {
      HandleRemotePacket(package);
    }
    if (link_.WaitsToRead() || (!to_the_end && pace_.IsEnough(++count))) return;
  }
  pace_.Note(count);
  if (state_ == UdpState::kNegotiating) LeaveIfUnreachable(socket, static_cast<u32>(error));
}

void UdpRemoteSession::ReadRest() noexcept {
  if (pace_.MayHaveLeft() && !link_.WaitsToRead()) Read(local_sock_, true);
}

void UdpRemoteSession::HandleGamePacket(const UdpPackage& package) noexcept {
  UdpPackage addressed = package;
  if (!flow_.session->send_queue()->FindAddrThenRemove(package.data, package.valid_len,
                                                       &addressed.addr)) {
    LSP_LOG(4, "FindPackageAddr failed, token=%u", flow_.token);
    return;
  }
  RouteFromGame(addressed);
}

// Another port of the same host stays here: a wrapped datagram names its own destination.
void UdpRemoteSession::RouteFromGame(const UdpPackage& package) noexcept {
  if (package.addr.sin_addr.s_addr != flow_.remote_addr.sin_addr.s_addr) {
    flow_.session->RouteToRemoteSession(package);
  } else {
    HandleLocalPacket(package);
  }
}

void UdpRemoteSession::HandleLocalPacket(const UdpPackage& package) noexcept {
  if (state_ == UdpState::kInit) {
    if (DecideAccl()) {
      StartNegotiation();
    } else {
      state_ = UdpState::kDirect;
    }
  }
  switch (state_) {
    case UdpState::kInit:
    case UdpState::kNegotiating:
      Store(&cached_packages_, package.data, package.valid_len, package.addr);
      break;
    case UdpState::kAccl:
      HandleAcclSend(package);
      break;
    case UdpState::kDirect:
      link_.SendBare(package);
      break;
  }
}

void UdpRemoteSession::HandleAcclSend(const UdpPackage& package) noexcept {
  const bool verified = trial_ != nullptr && trial_->IsVerified();
  const bool sent =
      verified ? trial_->SendData(package) : link_.SendData(package, watch_.LostToTell());
  if (!sent) link_.SendBare(package);  // too long to wrap: straight to the game server
}

void UdpRemoteSession::HandleRemotePacket(const UdpPackage& package) noexcept {
  if (HandleLateAnswer(package)) return;
  switch (state_) {
    case UdpState::kInit:
      break;  // no node has been asked
    case UdpState::kNegotiating:
      HandleNegoRecv(package);
      break;
    case UdpState::kAccl:
      if (UdpAcclHeader header; link_.IsFromNode(package) && link_.Unwrap(package, &header)) {
        HandleAcclRecv(package, header);
      } else if (left_.IsFromNode(package)) {
        DeliverFromLeft(package);
      }
      break;
    case UdpState::kDirect:
      GetTracker().RecordRecv(local_sock_, package.valid_len, 0);
      flow_.session->DeliverToGame(package);
      break;
  }
}

void UdpRemoteSession::HandleAcclRecv(const UdpPackage& package,
                                      const UdpAcclHeader& header) noexcept {
  if ((header.flags & kUdpAcclSpeedTest) != 0 && HandleReply(package)) return;
  DeliverData(package, header, &watch_);
}

// From the node that the flow has left. What it says about the link no longer counts.
void UdpRemoteSession::DeliverFromLeft(const UdpPackage& package) noexcept {
  UdpAcclHeader header;
  ProbeReply reply;
  if (!left_.Unwrap(package, &header)) return;
  if ((header.flags & kUdpAcclSpeedTest) != 0 &&
      watch_.ReadReply(package.data, package.valid_len, &reply)) {
    return;
  }
  DeliverData(package, header, nullptr);
}

void UdpRemoteSession::DeliverData(const UdpPackage& package, const UdpAcclHeader& header,
                                   LinkWatch* watch) noexcept {
  UdpPackage payload;
  payload.data = package.data + header.head_len;
  payload.capacity = payload.valid_len = package.valid_len - header.head_len;
  payload.addr.sin_family = AF_INET;
  payload.addr.sin_addr.s_addr = htonl(header.game_ip);
  payload.addr.sin_port = htons(header.game_port);
  LSP_LOG(0,
          "[UDP] UnWrapUdpAcclPackage success, pack_len=%u, new_pack_len=%u,accl_data_addr=%s:%u, "
          "token=%u",
          package.valid_len, payload.valid_len,
          common::IpToString(package.addr.sin_addr.s_addr).c_str(), ntohs(package.addr.sin_port),
          flow_.token);
  if (watch != nullptr) watch->OnData(header.seq, header.lost);
  GetTracker().RecordRecv(link_.sock(), payload.valid_len, 0);
  flow_.session->DeliverToGame(payload);
}

// False if it is data, even if its flags say otherwise.
bool UdpRemoteSession::HandleReply(const UdpPackage& package) noexcept {
  ProbeReply reply;
  if (!watch_.ReadReply(package.data, package.valid_len, &reply)) return false;
  while (watch_.OnReply(&reply) == LinkRequest::kSwitch) {
    watch_.SwitchAnswered(FireSwitch(watch_.report()));
  }
  link_.LogProbeAnswer();
  return true;
}

void UdpRemoteSession::SendToGame(const UdpPackage& package) noexcept {
  link_.SendThrough(local_sock_, package, flow_.local_addr);
}

}  // namespace moru_vyr::lsp
