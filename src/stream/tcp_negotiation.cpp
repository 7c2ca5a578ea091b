#include "stream/tcp_negotiation.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "common/log.h"
#include "common/unix_time.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kHeaderSize = sizeof(NegoHeader);

}  // namespace

bool TcpNegotiation::SendTcpNegotiation(IRelaySocketMgr* mgr, SOCKET socket, u32 token, u32 game_ip,
                                        u16 game_port, u8 retry, const SessionGuid* guid,
                                        const AccDecisionInfo* decision) noexcept {
  token_ = token;
  start_time_ = common::UnixTicks();
  NegoRequest request = MakeNegoRequest(game_ip, game_port, retry, *guid, *decision);
  u8 wire[sizeof request];
  request.Pack(wire);
  const int sent = send(socket, reinterpret_cast<const char*>(wire), sizeof wire, 0);
  if (sent == SOCKET_ERROR) {
    const int error = WSAGetLastError();
    if (error != WSAEWOULDBLOCK) {
      LSP_LOG(4, "[TCP]Failed to send negotiation, error=%d,socket=%Id, token=%u", error, socket,
              token_);
      return false;
    }
    if (mgr != nullptr) mgr->EnableWrite(socket);
  } else {
    LSP_LOG(0, "[TCP]Negotiation request is sent successfully");  // Kept: also for a part of it
  }
  socket_ = socket;
  std::memset(received_, 0, sizeof received_);
  return true;
}

int TcpNegotiation::ParseTcpNegotiation(AccDecisionInfo* decision, u32* reason) noexcept {
  if (const int result = RspTcpNegotiationHead(); result != 0) {
    LSP_LOG(4, "[TCP]Failed to received Negotiation header");
    *reason = kNegoReceiveFailed;
    return result;
  }
  if (const int result = response_.header.Unpack(received_); result < 0) {
    LSP_LOG(4, "[TCP]Failed to parse Negotiation header, err=%d, socket=%Id, token=%u", result,
            socket_, token_);
    *reason = kNegoBadHeader;
    return -1;
  }
  // An answer longer than the longest form is not part of the protocol, and there is no room for
  // it.
  const int pkg_len = response_.header.pkg_len;
  if (pkg_len <= kHeaderSize || pkg_len > static_cast<int>(sizeof received_)) {
    LSP_LOG(4,
            "TcpNegotiation::ParseTcpNegotiation, wrong pkg_len, pkg_len=%d, sizeof(header)=%d, "
            "socket=%Id, token=%u",
            pkg_len, kHeaderSize, socket_, token_);
    *reason = kNegoBadHeader;
    return -1;
  }
  int received = 0;
  if (const int result = Receive(received_ + kHeaderSize, pkg_len - kHeaderSize, &received);
      result != 0) {
    LSP_LOG(4, "[TCP]Failed to received Negotiation body");
    *reason = kNegoReceiveFailed;
    return result;
  }
  LSP_LOG(4, "[TCP]Negotiation response is received successfully, socket=%Id, token=%u", socket_,
          token_);
  // Kept: the newest form, whatever the version; what a shorter one lacks is still zero.
  const std::span<const u8> body = std::span(received_).subspan<kHeaderSize>();
  if (const int result = response_.body.Unpack(body, 0); result < 0) {
    LSP_LOG(4, "[TCP]Failed to parse Negotiation header,err=%d, socket=%Id, token=%u", result,
            socket_, token_);
    *reason = kNegoBadBody;
    return -1;
  }
  *reason = CheckNegotiation(NegoAsker::kTcp, socket_, token_, response_.body, decision);
  if (*reason != 0) return -1;
  LSP_LOG(4, "[TCP]Negotiation is successful");
  LogNegotiated(NegoAsker::kTcp, response_, token_);
  return 0;
}

u32 TcpNegotiation::ElapsedMs() const noexcept {
  return std::max(u32{1},
                  static_cast<u32>((common::UnixTicks() - start_time_) / common::kUnixTicksPerMs));
}

// 0 once `size` bytes are there. Never waits: an answer that comes in pieces must be complete by
// now. Clears the last error first, since not every system does so on success: after an old one, a
// node that closed would be taken for one that has not answered yet, and no other would be tried.
int TcpNegotiation::Receive(u8* to, int size, int* received) noexcept {
  *received = 0;
  while (*received < size) {
    WSASetLastError(0);
    const int n = recv(socket_, reinterpret_cast<char*>(to + *received), size - *received, 0);
    const int error = WSAGetLastError();
    if (n <= 0) return n == 0 && error == WSAEWOULDBLOCK ? 1 : -1;
    *received += n;
  }
  return 0;
}

int TcpNegotiation::RspTcpNegotiationHead() noexcept {
  int received = 0;
  const int result = Receive(received_, kHeaderSize, &received);
  if (result != 0) return result;
  if (received != kHeaderSize) {  // a provider below says that it gave more than it was asked for
    LSP_LOG(4,
            "TcpNegotiation::RspTcpNegotiationHead, Negotiation head reception failed. possibly it "
            "is illegal package. socket=%Id, token=%u",
            socket_, token_);
    return -1;
  }
  return 0;
}

}  // namespace moru_vyr::lsp
