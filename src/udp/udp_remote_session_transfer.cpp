// How the session moves datagrams: each is received once into a buffer, wrapped or unwrapped, and
// sent. A steady flow allocates nothing.
#include "common/log.h"
#include "common/net_text.h"
#include "tracker/tracker.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {

void UdpRemoteSession::OnReadable(SOCKET socket) noexcept {
  if (socket != local_sock_ && socket != link_.sock()) return;
  DatagramBuffer buffer;
  UdpPackage package;
  while (link_.ReadPackage(socket, &buffer, &package)) {
    if (SameAddress(package.addr, flow_.local_addr)) {
      HandleGamePacket(package);
    } else {
      HandleRemotePacket(package);
    }
  }
}

void UdpRemoteSession::HandleGamePacket(const UdpPackage& package) noexcept {
  UdpPackage addressed = package;
  if (!flow_.session->send_queue()->FindAddrThenRemove(package.data, package.valid_len,
                                                       &addressed.addr)) {
    LSP_LOG(4, "FindPackageAddr failed, token=%u", flow_.token);
    return;
  }
  // Another port of the same host stays here: a wrapped datagram names its own destination.
  if (addressed.addr.sin_addr.s_addr != flow_.remote_addr.sin_addr.s_addr) {
    flow_.session->RouteToRemoteSession(addressed);
  } else {
    HandleLocalPacket(addressed);
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
  if (!sent) link_.SendBare(package);  // too long to wrap: past the node, to the game server
}

void UdpRemoteSession::HandleRemotePacket(const UdpPackage& package) noexcept {
  switch (state_) {
    case UdpState::kInit:
      break;  // nobody has been asked for anything
    case UdpState::kNegotiating:
      HandleNegoRecv(package);
      break;
    case UdpState::kAccl:
      if (UdpAcclHeader header; link_.IsFromNode(package) && link_.Unwrap(package, &header)) {
        HandleAcclRecv(package, header);
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
  watch_.OnData(header.seq, header.lost);
  GetTracker().RecordRecv(link_.sock(), payload.valid_len, 0);
  flow_.session->DeliverToGame(payload);
}

// False: it is data, whatever its flags say.
bool UdpRemoteSession::HandleReply(const UdpPackage& package) noexcept {
  ProbeReply reply;
  if (!watch_.ReadReply(package.data, package.valid_len, &reply)) return false;
  while (TakeUp(watch_.OnReply(&reply))) {
  }
  link_.LogProbeAnswer();
  return true;
}

void UdpRemoteSession::SendToGame(const UdpPackage& package) noexcept {
  link_.SendThrough(local_sock_, package, flow_.local_addr);
}

}  // namespace moru_vyr::lsp
