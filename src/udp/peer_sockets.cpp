#include "udp/peer_sockets.h"

#include <algorithm>

#include "common/log.h"
#include "common/net_text.h"
#include "sockets/socket_helpers.h"
#include "udp/accl_link_info.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {
namespace {

// Bound and non-blocking, or INVALID_SOCKET.
SOCKET OpenLoopback(u16* port) noexcept {
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (s == INVALID_SOCKET) return s;
  if (BindLoopbackPort(s, port) && MakeNonBlocking(s) == 0) return s;
  CloseRelaySocket(s);
  return INVALID_SOCKET;
}

}  // namespace

PeerSockets::~PeerSockets() {
  for (u32 i = 0; i < count_; ++i) {
    session_->provider()->SessionMgr()->RemoveSocket(places_[i].socket);
    CloseRelaySocket(places_[i].socket);
    session_->provider()->GiveBackPeerSocket();
  }
}

bool PeerSockets::Open(const sockaddr_in& peer) noexcept {
  return Find(peer) != nullptr || Make(peer) != nullptr;
}

void PeerSockets::SendToGame(const UdpPackage& package) noexcept {
  const Place* place = Find(package.addr);
  if (place == nullptr && strangers_ < PeerPorts::kStrangers) {
    place = Make(package.addr);
    if (place != nullptr) ++strangers_;
  }
  if (place == nullptr) {
    LSP_LOG(0, "[UDP] PeerSockets::SendToGame, no port for %s:%u, token=%u",
            common::IpToString(package.addr.sin_addr.s_addr).c_str(), ntohs(package.addr.sin_port),
            session_->token());
    return;
  }
  const bool in_line =
      std::any_of(blocked_.begin(), blocked_.end(),
                  [=](const StoredPackage& waiting) { return waiting.socket == place->socket; });
  if (!in_line && Send(place->socket, package)) return;
  if (blocked_.size() < kMostBlocked) {
    Store(&blocked_, package.data, package.valid_len, game_, place->socket);
  }
  session_->provider()->SessionMgr()->EnableWrite(place->socket);
}

// Where there is no room after all the timer asks again: a socket that is called writable and takes
// nothing must not keep the worker busy.
void PeerSockets::OnWritable(SOCKET socket) noexcept {
  for (auto next = blocked_.begin(); next != blocked_.end();) {
    if (next->socket != socket) {
      ++next;
    } else if (Send(socket, next->View())) {
      next = blocked_.erase(next);
    } else {
      return;
    }
  }
}

void PeerSockets::OnUpdate() noexcept {
  for (const StoredPackage& waiting : blocked_) {
    session_->provider()->SessionMgr()->EnableWrite(waiting.socket);
  }
}

bool PeerSockets::Send(SOCKET socket, const UdpPackage& package) noexcept {
  if (sendto(socket, reinterpret_cast<const char*>(package.data),
             static_cast<int>(package.valid_len), 0, reinterpret_cast<const sockaddr*>(&game_),
             sizeof game_) != SOCKET_ERROR) {
    return true;
  }
  const int error = WSAGetLastError();
  LSP_LOG(0, "[UDP] PeerSockets::SendToGame, error=%d, token=%u", error, session_->token());
  return error != WSAEWOULDBLOCK;
}

// Only the game has a reason to send here. A datagram that is too long ends this read with an
// error; reading goes on when the socket is next readable.
void PeerSockets::OnReadable(SOCKET socket) noexcept {
  Place* const first = places_.data();
  Place* const end = first + count_;
  Place* const place =
      std::find_if(first, end, [=](const Place& one) { return one.socket == socket; });
  if (place != end) Read(place, false);
}

void PeerSockets::Read(Place* place, bool to_the_end) noexcept {
  DatagramBuffer buffer;
  UdpPackage package;
  u32 count = 0;
  while (buffer.Receive(place->socket, &package) == 0) {
    if (SameAddress(package.addr, game_)) {
      package.addr = place->peer;
      session_->RouteFromGame(package);
    }
    if (!to_the_end && place->pace.IsEnough(++count)) return;
  }
  place->pace.Note(count);
}

void PeerSockets::ReadAll() noexcept {
  for (u32 i = 0; i < count_; ++i) Read(&places_[i], true);
}

const PeerSockets::Place* PeerSockets::Find(const sockaddr_in& peer) const noexcept {
  const Place* const first = places_.data();
  const Place* const end = first + count_;
  const Place* const found =
      std::find_if(first, end, [&](const Place& one) { return SameAddress(one.peer, peer); });
  return found != end ? found : nullptr;
}

// Null if there is no place in the session or among the sockets that the relay can poll, and for an
// address that the game reaches directly, which stays so. Checked before a socket is created:
// otherwise any sender could make the relay create one for each datagram.
const PeerSockets::Place* PeerSockets::Make(const sockaddr_in& peer) noexcept {
  UdpProvider* const provider = session_->provider();
  u16 port = 0;
  if (ports_->IsFull() || ports_->FindPort(peer, &port) || !provider->TakePeerSocket()) {
    return nullptr;
  }
  const SOCKET s = OpenLoopback(&port);
  if (s == INVALID_SOCKET || !ports_->Add(peer, port)) {
    if (s != INVALID_SOCKET) CloseRelaySocket(s);
    provider->GiveBackPeerSocket();
    LSP_LOG(5, "[UDP] PeerSockets::Make failed, peer=%s:%u, token=%u",
            common::IpToString(peer.sin_addr.s_addr).c_str(), ntohs(peer.sin_port),
            session_->token());
    return nullptr;
  }
  // The game's own sizes, as for the socket that faces the network. Datagrams to the game wait in
  // the game's socket, and those from it here.
  AdjustSocketBuff(s, session_->sock_send_buf_size(), session_->sock_recv_buf_size());
  provider->SessionMgr()->AddSocket(s, this);
  LSP_LOG(5, "[UDP] PeerSockets::Make, peer=%s:%u, port=%u, token=%u",
          common::IpToString(peer.sin_addr.s_addr).c_str(), ntohs(peer.sin_port), ntohs(port),
          session_->token());
  Place& place = places_[count_++];
  place.socket = s;
  place.peer = peer;
  return &place;
}

}  // namespace moru_vyr::lsp
