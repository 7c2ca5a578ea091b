// The link's socket and its datagrams. The flow's links and the trial's have different texts in the
// log.
#include "udp/node_link.h"

#include <utility>

#include "common/log.h"
#include "common/net_text.h"
#include "route/mending.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {
namespace {

bool RetriesDatagrams() noexcept { return GetMending().RetriesDatagrams(); }

std::string Ip(const sockaddr_in& addr) { return common::IpToString(addr.sin_addr.s_addr); }

UdpAcclHeader HeaderTo(const sockaddr_in& game_addr, u8 flags, u32 seq, u32 accl_token) noexcept {
  UdpAcclHeader header;
  header.flags = flags;
  header.game_ip = ntohl(game_addr.sin_addr.s_addr);
  header.game_port = ntohs(game_addr.sin_port);
  header.seq = seq;
  header.accl_token = accl_token;
  return header;
}

}  // namespace

bool NodeLink::Open() noexcept {
  sock_ = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (sock_ == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    LSP_LOG(5,
            on_trial_ ? "UdpSwitchRemoteSession::Init socket error=%d, token=%u"
                      : "[UDP] UdpRemoteSession::Init socket error=%d, token=%u",
            error, flow_.token);
    return false;
  }
  KeepPortToItself(sock_);
  if (const int error = MakeNonBlocking(sock_); error != 0) {
    LSP_LOG(5,
            on_trial_ ? "[UDP] UdpSwitchRemoteSession::Init ioctlsocket , error=%d, token=%u"
                      : "[UDP] UdpRemoteSession::Init ioctlsocket , error=%d, token=%u",
            error, flow_.token);
    waits_to_read_ = true;
  }
  return true;
}

void NodeLink::Discard() noexcept {
  closesocket(sock_);
  sock_ = INVALID_SOCKET;
}

void NodeLink::Adopt(NodeLink* other) noexcept {
  sock_ = std::exchange(other->sock_, kGivenAway);
  info_ = other->info_;
  waits_to_read_ |= other->waits_to_read_;  // the flow still reads the socket that faces the game
  blocked_.splice(blocked_.end(), other->blocked_);
}

void NodeLink::CopyFrom(const NodeLink& other) noexcept {
  sock_ = other.sock_;
  info_ = other.info_;
}

void NodeLink::Clear() noexcept {
  sock_ = INVALID_SOCKET;
  info_ = {};
  blocked_.clear();
}

// --- sending -------------------------------------------------------------------------------------

bool NodeLink::SendData(const UdpPackage& package, u8 lost) noexcept {
  if (!Wrap(package, lost)) return false;
  const u32 result = Send(kOwnSocket, package.data - kWrapRoom, package.valid_len + kWrapRoom,
                          info_.data_addr, true);
  GetTracker().RecordSend(sock_, package.valid_len, static_cast<int>(result));
  return true;
}

bool NodeLink::Wrap(const UdpPackage& package, u8 lost) noexcept {
  if (package.valid_len > kDatagramBufferSize - kWrapRoom) return false;
  UdpAcclHeader header = HeaderTo(package.addr, kUdpAcclData, info_.seq, info_.accl_token);
  header.lost = lost;
  const int packed = header.Pack({package.data - kWrapRoom, kWrapRoom});
  if (packed < 0) {
    LSP_LOG(5, "[UDP] WrapUdpProxyPacket Failed, Pack error, ret=%d, token=%u", packed,
            flow_.token);
    return false;
  }
  LSP_LOG(0,
          "[UDP] WrapUdpProxyPacket Success, SrcPkgLen=%u, NewPkgLen=%u, accl_token=%u, seq=%u, "
          "token=%u",
          package.valid_len, package.valid_len + kWrapRoom, info_.accl_token, info_.seq,
          flow_.token);
  ++info_.seq;
  return true;
}

void NodeLink::SendBare(const UdpPackage& package) noexcept {
  const u32 result = Send(kOwnSocket, package.data, package.valid_len, package.addr, true);
  GetTracker().RecordSend(sock_, package.valid_len, static_cast<int>(result));
}

void NodeLink::SendEnd() noexcept { SendEndOf(&info_, kOwnSocket); }

bool NodeLink::EndLateAnswer(SOCKET through, const UdpPackage& package) noexcept {
  NegoResponse response;
  response.Init(kNegoVersion);
  if (response.Unpack({package.data, package.valid_len}) < 0) return false;
  if (response.body.result != 0) return true;  // a refusal needs no end
  AcclLinkInfo late;
  late.Accept(response);
  SendEndOf(&late, through);
  return true;
}

// Kept: unlike data, which takes the number and then counts, this counts first.
void NodeLink::SendEndOf(AcclLinkInfo* info, SOCKET through) noexcept {
  UdpAcclHeader header = HeaderTo(flow_.remote_addr, kUdpAcclEnd, ++info->seq, info->accl_token);
  u8 wire[sizeof header];
  const int packed = header.Pack(wire);
  if (packed < 0) {
    LSP_LOG(5, "[UDP] UdpRemoteSession::SendEndToAccl Failed, Pack error, ret=%d, token=%u", packed,
            flow_.token);  // Kept: the flow's name, for a trial too
    return;
  }
  Send(through, wire, sizeof wire, info->data_addr, true);
}

// Returns 0 or the Winsock error. Kept: room is awaited in the link's socket, even if another one
// had none.
u32 NodeLink::Send(SOCKET through, const void* data, u32 len, const sockaddr_in& to,
                   bool may_wait) noexcept {
  const SOCKET socket = through == kOwnSocket ? sock_ : through;
  if (sendto(socket, static_cast<const char*>(data), static_cast<int>(len), 0,
             reinterpret_cast<const sockaddr*>(&to), sizeof to) != SOCKET_ERROR) {
    if (on_trial_) {
      LSP_LOG(0, "[UDP] UdpSwitchRemoteSession::SendTo success, addr=%s:%u, len=%u, token=%u",
              Ip(to).c_str(), ntohs(to.sin_port), len, flow_.token);
    } else {
      LSP_LOG(0, "[UDP] UdpRemoteSession::SendTo success, addr=%s:%u, len=%u, socket=%u, token=%u",
              Ip(to).c_str(), ntohs(to.sin_port), len, static_cast<u32>(socket), flow_.token);
    }
    return 0;
  }
  const int error = WSAGetLastError();
  if (error == WSAEWOULDBLOCK && may_wait) {
    Store(&blocked_, data, len, to, through);
    flow_.session->provider()->SessionMgr()->EnableWrite(sock_);
  } else if (on_trial_) {
    LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::SendTo, error=%d, token=%u", error, flow_.token);
  } else {
    LSP_LOG(5, "[UDP] UdpRemoteSession::SendTo, error=%d, socket=%u, token=%u", error,
            static_cast<u32>(socket), flow_.token);
  }
  return static_cast<u32>(error);
}

bool NodeLink::FlushBlockedPackages() noexcept {
  if (blocked_.empty()) return false;
  const u32 count = static_cast<u32>(blocked_.size());
  for (u32 i = 0; i < count; ++i) {
    StoredPackage& front = blocked_.front();
    const UdpPackage package = front.View();
    const u32 error = Send(front.socket, package.data, package.valid_len, package.addr, false);
    if (error != 0 && (error == WSAEWOULDBLOCK || !RetriesDatagrams())) break;
    blocked_.pop_front();
  }
  LSP_LOG(0,
          on_trial_
              ? "UdpSwitchRemoteSession::FlushBlockedPackages, count=%u, remain_count=%u, token=%u"
              : "[UDP] UdpRemoteSession::FlushBlockedPackages, count=%u, remain_count=%u, token=%u",
          count, static_cast<u32>(blocked_.size()), flow_.token);
  return blocked_.empty();
}

// Not right after a flush in vain: a socket that is called writable and takes nothing would keep
// the worker busy.
void NodeLink::RetryBlocked() const noexcept {
  if (HasBlocked() && RetriesDatagrams()) {
    flow_.session->provider()->SessionMgr()->EnableWrite(sock_);
  }
}

// --- receiving -----------------------------------------------------------------------------------

bool NodeLink::ReadPackage(SOCKET socket, DatagramBuffer* buffer, UdpPackage* package,
                           int* error) const noexcept {
  *error = buffer->Receive(socket, package);
  if (*error != 0) {
    if (*error == WSAEWOULDBLOCK) return false;
    GetTracker().RecordRecv(socket, 0, *error);
    if (on_trial_) {
      LSP_LOG(5, "UdpSwitchRemoteSession::ReadPackage recvfrom failed, error = %d, token=%u",
              *error, flow_.token);
    } else {
      LSP_LOG(5, "UdpRemoteSession::ReadPackage recvfrom failed, error=%d,socket=%u, token=%u",
              *error, static_cast<u32>(socket), flow_.token);
    }
    return false;
  }
  if (on_trial_) {
    LSP_LOG(0,
            "[UDP] UdpSwitchRemoteSession::ReadPackage recvfrom success, addr=%s:%u, len=%u, "
            "token=%u",
            Ip(package->addr).c_str(), ntohs(package->addr.sin_port), package->valid_len,
            flow_.token);
  } else {
    LSP_LOG(0,
            "[UDP] UdpRemoteSession::ReadPackage recvfrom success, addr=%s:%u, len=%u, socket=%u, "
            "token=%u",
            Ip(package->addr).c_str(), ntohs(package->addr.sin_port), package->valid_len,
            static_cast<u32>(socket), flow_.token);
  }
  return true;
}

bool NodeLink::Unwrap(const UdpPackage& package, UdpAcclHeader* header) const noexcept {
  const int head_len = header->Unpack({package.data, package.valid_len});
  if (head_len <= 0) {
    LSP_LOG(5,
            on_trial_ ? "[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, unpack error, "
                        "ret=%d, accl_data_addr=%s:%u, token=%u"
                      : "[UDP] UnWrapUdpAcclPackage failed, unpack error, ret=%d, "
                        "accl_data_addr=%s:%u, token=%u",
            head_len, Ip(package.addr).c_str(), ntohs(package.addr.sin_port), flow_.token);
    return false;
  }
  if (static_cast<u32>(head_len) > package.valid_len) {
    LSP_LOG(5,
            on_trial_ ? "[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, package "
                        "invalid, head_len > pack_len, accl_data_addr=%s:%u, token=%u"
                      : "[UDP] UnWrapUdpAcclPackage failed, package invalid, head_len > pack_len, "
                        "accl_data_addr=%s:%u, token=%u",
            Ip(package.addr).c_str(), ntohs(package.addr.sin_port), flow_.token);
    return false;
  }
  return true;
}

void NodeLink::LogProbeAnswer() const noexcept {
  LSP_LOG(0,
          on_trial_
              ? "UdpSwitchRemoteSession::UnWrapUdpAcclPackage: it is a speed test result, token=%u"
              : "UnWrapUdpAcclPackage: it is a speed test result, token=%u",
          flow_.token);
}

}  // namespace moru_vyr::lsp
