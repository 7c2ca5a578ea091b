// How the session moves datagrams: each is received once into a buffer, wrapped or unwrapped, and
// sent. A steady flow allocates nothing.
#include <cstring>

#include "common/log.h"
#include "common/net_text.h"
#include "protocol/udp_accl_header.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kHeaderSize = sizeof(UdpAcclHeader);

}  // namespace

void UdpRemoteSession::OnReadable(SOCKET socket) noexcept {
  if (socket != local_sock_ && socket != remote_sock_) return;
  while (ReadPackage(socket, &recv_package_)) {
    if (SameAddress(recv_package_.addr, local_addr_)) {
      HandleGamePacket(recv_package_);
    } else {
      HandleRemotePacket(recv_package_);
    }
  }
}

bool UdpRemoteSession::ReadPackage(SOCKET socket, UdpPackage* package) noexcept {
  const int error = recv_buffer_.Receive(socket, package);
  if (error == 0) {
    LSP_LOG(0,
            "[UDP] UdpRemoteSession::ReadPackage recvfrom success, addr=%s:%u, len=%u, socket=%u, "
            "token=%u",
            common::IpToString(package->addr.sin_addr.s_addr).c_str(),
            ntohs(package->addr.sin_port), package->valid_len, static_cast<u32>(socket), token_);
    return true;
  }
  if (error != WSAEWOULDBLOCK) {
    GetTracker().RecordRecv(socket, 0, error);
    LSP_LOG(5, "UdpRemoteSession::ReadPackage recvfrom failed, error=%d,socket=%u, token=%u", error,
            static_cast<u32>(socket), token_);
  }
  return false;
}

void UdpRemoteSession::HandleGamePacket(const UdpPackage& package) noexcept {
  UdpPackage addressed = package;
  if (!session_->send_queue()->FindAddrThenRemove(package.data, package.valid_len,
                                                  &addressed.addr)) {
    LSP_LOG(4, "FindPackageAddr failed, token=%u", token_);
    return;
  }
  // Another port of the same host stays here: a wrapped datagram names its own destination.
  if (addressed.addr.sin_addr.s_addr != remote_addr_.sin_addr.s_addr) {
    session_->RouteToRemoteSession(addressed);
  } else {
    HandleLocalPacket(addressed);
  }
}

void UdpRemoteSession::HandleLocalPacket(const UdpPackage& package) noexcept {
  switch (state_) {
    case UdpState::kInit:
      if (DecideAccl()) {
        StartNegotiation(remote_addr_);
        Store(&cached_packages_, package.data, package.valid_len, package.addr, false);
      } else {
        state_ = UdpState::kDirect;
        HandleDirectSend(package);
      }
      break;
    case UdpState::kNegotiating:
      Store(&cached_packages_, package.data, package.valid_len, package.addr, false);
      break;
    case UdpState::kAccl:
      HandleAcclSend(package);
      break;
    case UdpState::kDirect:
      HandleDirectSend(package);
      break;
  }
}

void UdpRemoteSession::HandleDirectSend(const UdpPackage& package) noexcept {
  const u32 result = SendTo(package.data, package.valid_len, package.addr, true, false);
  GetTracker().RecordSend(local_sock_, package.valid_len, static_cast<int>(result));
}

void UdpRemoteSession::HandleAcclSend(const UdpPackage& package) noexcept {
  const bool verified = switch_state_ == SwitchState::kVerified;
  AcclLinkInfo& link = verified ? verified_accl_info_ : CurrentLink();
  const u8 lost = verified ? u8{0} : recovery_.DataLinkGetDefCurLost(false);
  u32 wrapped_len = 0;
  u32 result = 0;
  if (!WrapUdpProxyPacket(package, &link, lost, &wrapped_len)) {
    // Too long to wrap: it goes past the node, to the game server.
    result = SendTo(package.data, package.valid_len, package.addr, true, false);
  } else if (verified && switch_session_ != nullptr) {
    switch_session_->SendData(send_buffer_, wrapped_len, link.data_addr, package.valid_len);
    return;
  } else {
    result = SendTo(send_buffer_, wrapped_len, link.data_addr, true, false);
  }
  GetTracker().RecordSend(CurrentSocket(), package.valid_len, static_cast<int>(result));
}

bool UdpRemoteSession::WrapUdpProxyPacket(const UdpPackage& package, AcclLinkInfo* link, u8 lost,
                                          u32* out_len) noexcept {
  if (package.valid_len > sizeof send_buffer_ - kHeaderSize) return false;
  UdpAcclHeader header;
  header.flags = kUdpAcclData;
  header.game_ip = ntohl(package.addr.sin_addr.s_addr);
  header.game_port = ntohs(package.addr.sin_port);
  header.lost = lost;
  header.seq = link->seq;
  header.accl_token = link->accl_token;
  const int packed = header.Pack(send_buffer_);
  if (packed < 0) {
    LSP_LOG(5, "[UDP] WrapUdpProxyPacket Failed, Pack error, ret=%d, token=%u", packed, token_);
    return false;
  }
  std::memcpy(send_buffer_ + kHeaderSize, package.data, package.valid_len);
  *out_len = package.valid_len + kHeaderSize;
  LSP_LOG(0,
          "[UDP] WrapUdpProxyPacket Success, SrcPkgLen=%u, NewPkgLen=%u, accl_token=%u, seq=%u, "
          "token=%u",
          package.valid_len, *out_len, link->accl_token, link->seq, token_);
  ++link->seq;
  return true;
}

void UdpRemoteSession::HandleRemotePacket(const UdpPackage& package) noexcept {
  switch (state_) {
    case UdpState::kInit:
      break;  // nobody has been asked for anything
    case UdpState::kNegotiating:
      HandleNegoRecv(package);
      break;
    case UdpState::kAccl:
      HandleAcclRecv(package);
      break;
    case UdpState::kDirect:
      HandleDirectRecv(package);
      break;
  }
}

void UdpRemoteSession::HandleDirectRecv(const UdpPackage& package) noexcept {
  GetTracker().RecordRecv(local_sock_, package.valid_len, 0);
  session_->DeliverToGame(package);
}

void UdpRemoteSession::HandleAcclRecv(const UdpPackage& package) noexcept {
  if (!SameAddress(package.addr, CurrentLink().data_addr)) return;
  UdpPackage unwrapped;
  if (!UnWrapUdpAcclPackage(package, &unwrapped)) return;
  GetTracker().RecordRecv(CurrentSocket(), unwrapped.valid_len, 0);
  session_->DeliverToGame(unwrapped);
}

// False for what is not for the game, as the answer to a probe.
bool UdpRemoteSession::UnWrapUdpAcclPackage(const UdpPackage& package, UdpPackage* out) noexcept {
  UdpAcclHeader header;
  const int head_len = header.Unpack({package.data, package.valid_len});
  if (head_len <= 0) {
    LSP_LOG(5,
            "[UDP] UnWrapUdpAcclPackage failed, unpack error, ret=%d, accl_data_addr=%s:%u, "
            "token=%u",
            head_len, common::IpToString(package.addr.sin_addr.s_addr).c_str(),
            ntohs(package.addr.sin_port), token_);
    return false;
  }
  if ((header.flags & kUdpAcclSpeedTest) != 0 &&
      speed_test_.RecvSpeedTest(package.data, package.valid_len)) {
    LSP_LOG(0, "UnWrapUdpAcclPackage: it is a speed test result, token=%u", token_);
    return false;
  }
  const u32 payload_at = static_cast<u32>(head_len);
  if (payload_at > package.valid_len) {
    LSP_LOG(5,
            "[UDP] UnWrapUdpAcclPackage failed, package invalid, head_len > pack_len, "
            "accl_data_addr=%s:%u, token=%u",
            common::IpToString(package.addr.sin_addr.s_addr).c_str(), ntohs(package.addr.sin_port),
            token_);
    return false;
  }
  out->addr.sin_family = AF_INET;
  out->addr.sin_addr.s_addr = htonl(header.game_ip);
  out->addr.sin_port = htons(header.game_port);
  out->data = package.data + payload_at;
  out->capacity = out->valid_len = package.valid_len - payload_at;
  recovery_.SetUploadLost(header.lost);
  LSP_LOG(0,
          "[UDP] UnWrapUdpAcclPackage success, pack_len=%u, new_pack_len=%u,accl_data_addr=%s:%u, "
          "token=%u",
          package.valid_len, out->valid_len,
          common::IpToString(package.addr.sin_addr.s_addr).c_str(), ntohs(package.addr.sin_port),
          token_);
  recovery_.DataLinkAddOneRecvPkg(header.seq);
  return true;
}

void UdpRemoteSession::SendEndToAccl() noexcept {
  if (state_ != UdpState::kAccl) return;
  AcclLinkInfo& link = CurrentLink();
  UdpAcclHeader header;
  header.flags = kUdpAcclEnd;
  header.game_ip = ntohl(remote_addr_.sin_addr.s_addr);
  header.game_port = ntohs(remote_addr_.sin_port);
  header.seq = ++link.seq;  // Kept: unlike data, which takes the number and then counts
  header.accl_token = link.accl_token;
  u8 wire[sizeof header];
  const int packed = header.Pack(wire);
  if (packed < 0) {
    LSP_LOG(5, "[UDP] UdpRemoteSession::SendEndToAccl Failed, Pack error, ret=%d, token=%u", packed,
            token_);
    return;
  }
  SendTo(wire, sizeof wire, link.data_addr, true, false);
}

u32 UdpRemoteSession::SendTo(const void* data, u32 len, const sockaddr_in& addr,
                             bool cache_on_block, bool to_local) noexcept {
  const SOCKET socket = to_local ? local_sock_ : CurrentSocket();
  if (sendto(socket, static_cast<const char*>(data), static_cast<int>(len), 0,
             reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != SOCKET_ERROR) {
    LSP_LOG(0, "[UDP] UdpRemoteSession::SendTo success, addr=%s:%u, len=%u, socket=%u, token=%u",
            common::IpToString(addr.sin_addr.s_addr).c_str(), ntohs(addr.sin_port), len,
            static_cast<u32>(socket), token_);
    return 0;
  }
  const int error = WSAGetLastError();
  if (error == WSAEWOULDBLOCK && cache_on_block) {
    BlockPackage(data, len, addr, to_local);
    return WSAEWOULDBLOCK;
  }
  LSP_LOG(5, "[UDP] UdpRemoteSession::SendTo, error=%d, socket=%u, token=%u", error,
          static_cast<u32>(socket), token_);
  return static_cast<u32>(error);
}

// Kept: room is waited for in the current socket, also where the other one had none.
void UdpRemoteSession::BlockPackage(const void* data, u32 len, const sockaddr_in& addr,
                                    bool to_local) noexcept {
  Store(&blocked_packages_, data, len, addr, to_local);
  session_->provider()->SessionMgr()->EnableWrite(CurrentSocket());
}

void UdpRemoteSession::OnWritable(SOCKET) noexcept {
  if (FlushBlockedPackages()) session_->provider()->CloseSession(token_);  // the end of this, too
}

// Kept: what cannot leave stays in front, for whatever reason, and waits for the next time that a
// datagram is blocked. True where the session was only waiting for the last of them.
bool UdpRemoteSession::FlushBlockedPackages() noexcept {
  if (blocked_packages_.empty()) return false;
  const u32 count = static_cast<u32>(blocked_packages_.size());
  for (u32 i = 0; i < count; ++i) {
    const bool to_local = blocked_packages_.front().to_local;
    const UdpPackage front = blocked_packages_.front().View();
    if (SendTo(front.data, front.valid_len, front.addr, false, to_local) != 0) break;
    blocked_packages_.pop_front();
  }
  LSP_LOG(0, "[UDP] UdpRemoteSession::FlushBlockedPackages, count=%u, remain_count=%u, token=%u",
          count, static_cast<u32>(blocked_packages_.size()), token_);
  return blocked_packages_.empty() && closing_;
}

}  // namespace moru_vyr::lsp
