// What the trial sends and receives: probes and their answers, then the game's datagrams.
#include "common/log.h"
#include "common/net_text.h"
#include "protocol/udp_accl_header.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {

void UdpSwitchRemoteSession::OnReadable(SOCKET socket) noexcept {
  if (socket != sock_) return;
  while (ReadPackage(&recv_package_)) {
    if (SameAddress(recv_package_.addr, local_addr_)) continue;
    switch (state_) {
      case UdpSwitchState::kNegotiating:
        HandleNegoRecv(recv_package_);
        break;
      case UdpSwitchState::kVerifying:
      case UdpSwitchState::kVerified:
        HandleAcclRecv(recv_package_);
        break;
      case UdpSwitchState::kInit:
      case UdpSwitchState::kFailed:
      case UdpSwitchState::kDone:
        break;
    }
  }
}

// False also once the socket has been given away, while it is being read.
bool UdpSwitchRemoteSession::ReadPackage(UdpPackage* package) noexcept {
  if (sock_ == 0) return false;
  const int error = recv_buffer_.Receive(sock_, package);
  if (error == 0) {
    LSP_LOG(0,
            "[UDP] UdpSwitchRemoteSession::ReadPackage recvfrom success, addr=%s:%u, len=%u, "
            "token=%u",
            common::IpToString(package->addr.sin_addr.s_addr).c_str(),
            ntohs(package->addr.sin_port), package->valid_len, token_);
    return true;
  }
  if (error != WSAEWOULDBLOCK) {
    GetTracker().RecordRecv(sock_, 0, error);
    LSP_LOG(5, "UdpSwitchRemoteSession::ReadPackage recvfrom failed, error = %d, token=%u", error,
            token_);
  }
  return false;
}

// Kept: while the verification runs, too, and then the parent takes over a link that it has not
// been told of.
void UdpSwitchRemoteSession::HandleAcclRecv(const UdpPackage& package) noexcept {
  if (!SameAddress(package.addr, accl_info_.data_addr)) return;
  if (!UnWrapUdpAcclPackage(package)) return;
  if (parent_notifier_ != nullptr) parent_notifier_->NotifySwitchState(kSwitchTakenOver);
  Finish(UdpSwitchState::kDone, SwitchResult::kTakenOver);
}

// Whether it is a datagram for the game. The parent unwraps it once more, and then for its use.
bool UdpSwitchRemoteSession::UnWrapUdpAcclPackage(const UdpPackage& package) noexcept {
  UdpAcclHeader header;
  const int head_len = header.Unpack({package.data, package.valid_len});
  if (head_len <= 0) {
    LSP_LOG(5,
            "[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, unpack error, ret=%d, "
            "accl_data_addr=%s:%u, token=%u",
            head_len, common::IpToString(package.addr.sin_addr.s_addr).c_str(),
            ntohs(package.addr.sin_port), token_);
    return false;
  }
  if ((header.flags & kUdpAcclSpeedTest) != 0 &&
      speed_test_.RecvSpeedTest(package.data, package.valid_len)) {
    LSP_LOG(0, "UdpSwitchRemoteSession::UnWrapUdpAcclPackage: it is a speed test result, token=%u",
            token_);
    return false;
  }
  if (static_cast<u32>(head_len) > package.valid_len) {
    LSP_LOG(5,
            "[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, package invalid, head_len "
            "> pack_len, accl_data_addr=%s:%u, token=%u",
            common::IpToString(package.addr.sin_addr.s_addr).c_str(), ntohs(package.addr.sin_port),
            token_);
    return false;
  }
  return true;
}

void UdpSwitchRemoteSession::SendData(const void* data, u32 len, const sockaddr_in& addr,
                                      u32 payload_len) noexcept {
  const u32 result = SendTo(data, len, addr, true);
  GetTracker().RecordSend(sock_, payload_len, static_cast<int>(result));
}

void UdpSwitchRemoteSession::SendEndToAccl() noexcept {
  if (sock_ == 0) return;
  if (state_ != UdpSwitchState::kNegotiating && state_ != UdpSwitchState::kVerifying &&
      state_ != UdpSwitchState::kVerified) {
    return;
  }
  UdpAcclHeader header;
  header.flags = kUdpAcclEnd;
  header.game_ip = ntohl(remote_addr_.sin_addr.s_addr);
  header.game_port = ntohs(remote_addr_.sin_port);
  header.seq = ++accl_info_.seq;
  header.accl_token = accl_info_.accl_token;
  u8 wire[sizeof header];
  const int packed = header.Pack(wire);
  if (packed < 0) {
    LSP_LOG(5, "[UDP] UdpRemoteSession::SendEndToAccl Failed, Pack error, ret=%d, token=%u", packed,
            token_);  // Kept: the parent's name
    return;
  }
  SendTo(wire, sizeof wire, accl_info_.data_addr, true);
}

u32 UdpSwitchRemoteSession::SendTo(const void* data, u32 len, const sockaddr_in& addr,
                                   bool cache_on_block) noexcept {
  if (sendto(sock_, static_cast<const char*>(data), static_cast<int>(len), 0,
             reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != SOCKET_ERROR) {
    LSP_LOG(0, "[UDP] UdpSwitchRemoteSession::SendTo success, addr=%s:%u, len=%u, token=%u",
            common::IpToString(addr.sin_addr.s_addr).c_str(), ntohs(addr.sin_port), len, token_);
    return 0;
  }
  const int error = WSAGetLastError();
  if (error == WSAEWOULDBLOCK && cache_on_block) {
    Store(&blocked_packages_, data, len, addr, false);
    session_->provider()->SessionMgr()->EnableWrite(sock_);
    return WSAEWOULDBLOCK;
  }
  LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::SendTo, error=%d, token=%u", error, token_);
  return static_cast<u32>(error);
}

void UdpSwitchRemoteSession::OnWritable(SOCKET) noexcept {
  if (FlushBlockedPackages()) session_->provider()->CloseSession(token_);  // the end of this, too
}

// As the parent's: what cannot leave stays in front. True where the trial was only waiting for the
// last of them.
bool UdpSwitchRemoteSession::FlushBlockedPackages() noexcept {
  if (blocked_packages_.empty()) return false;
  const u32 count = static_cast<u32>(blocked_packages_.size());
  for (u32 i = 0; i < count; ++i) {
    const UdpPackage front = blocked_packages_.front().View();
    if (SendTo(front.data, front.valid_len, front.addr, false) != 0) break;
    blocked_packages_.pop_front();
  }
  LSP_LOG(0, "UdpSwitchRemoteSession::FlushBlockedPackages, count=%u, remain_count=%u, token=%u",
          count, static_cast<u32>(blocked_packages_.size()), token_);
  return blocked_packages_.empty() && closing_;
}

}  // namespace moru_vyr::lsp
