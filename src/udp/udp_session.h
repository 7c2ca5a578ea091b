// One relayed socket of the game: the queues that carry the true addresses of its datagrams past
// the loopback hop, and a remote session for each group of destinations.
//
// A destination that the route tables know has a remote session for its address, which all ports
// share; all destinations that they do not know share one. The first remote session's socket is
// where the game sends to and receives from, whichever remote session the datagram belongs to.
//
// The provider makes it, owns it and outlives it. Worker thread only, but for the queues. Nothing
// but the constructor throws.
#pragma once
#include <winsock2.h>

#include <map>
#include <memory>

#include "common/types.h"
#include "udp/live_queues.h"
#include "udp/peer_sockets.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

class UdpProvider;
class UdpRemoteSession;

class UdpSession {
 public:
  // Where the game's socket is, its first destination, and the sizes of its buffers.
  UdpSession(UdpProvider* provider, u32 token, const sockaddr_in& local_addr,
             const sockaddr_in& remote_addr, u32 send_size, u32 recv_size);
  ~UdpSession();  // ends the links and tells their nodes

  // Makes the first remote session, and with it the game's relay port.
  bool Init() noexcept;
  // The address for the game to send to: the loopback address, although that port listens on all.
  bool GetRelayAddr(sockaddr_in* out) const noexcept;
  // The same for that destination, which may have a port of its own.
  bool GetRelayAddrFor(const sockaddr_in& destination, sockaddr_in* out) noexcept;
  // Whether each address has a port of its own, so that the queues are not used.
  bool HasPeerPorts() const noexcept { return peer_sockets_ != nullptr; }
  bool IsOf(const sockaddr_in& game) const noexcept;  // whether that is the game's socket

  u32 token() const noexcept { return token_; }
  u32 sock_send_buf_size() const noexcept { return sock_send_buf_size_; }
  u32 sock_recv_buf_size() const noexcept { return sock_recv_buf_size_; }
  UdpProvider* provider() const noexcept { return provider_; }
  UdpPackageQueue* send_queue() const noexcept { return &queues_->send_queue; }
  UdpPackageQueue* recv_queue() const noexcept { return &queues_->recv_queue; }
  const std::shared_ptr<UdpQueues>& queues() const noexcept { return queues_; }

  void OnUpdate(u32 elapsed_ms) noexcept;

  // Whether none of the game's datagrams waits for room in a socket. Those that have reached a port
  // of its own are read first, since the message that the socket has closed overtakes them. A
  // remote session with such datagrams is told to close after them; those that wait for a
  // negotiation count only with fast fallback.
  bool CanClose() noexcept;
  // The same check, without telling anything to close.
  bool OwesServers() const noexcept;
  // For parts of the session that must not end it directly: the provider ends it after this timer
  // tick.
  void WantClose() noexcept { close_wanted_ = true; }
  bool IsCloseWanted() const noexcept { return close_wanted_; }
  // The game's socket was found to be gone.
  void SetForgotten() noexcept { forgotten_ = true; }
  bool IsForgotten() const noexcept { return forgotten_; }

  // Hands a game datagram to the remote session of its destination, package.addr.
  void RouteFromGame(const UdpPackage& package) noexcept;
  // The same where that is not the first remote session's; makes the session if there is none.
  void RouteToRemoteSession(const UdpPackage& package) noexcept;
  // A datagram from the network; package.addr is its true source. Nothing is delivered by ports of
  // their own once the session is only to deliver what it owes: its socket is closed, or has been
  // left direct and would no longer be told the source.
  void DeliverToGame(const UdpPackage& package) noexcept;

 private:
  UdpRemoteSession* CreateRemoteSession(const sockaddr_in& addr, bool bind) noexcept;
  UdpRemoteSession* FindRemoteSession(u32 ip, u16 port) const noexcept;
  u32 RemoteSessionKey(u32 ip, u16 port) const noexcept;

  UdpProvider* const provider_;
  const u32 token_;
  const sockaddr_in local_addr_;
  const sockaddr_in remote_addr_;
  const u32 sock_send_buf_size_;
  const u32 sock_recv_buf_size_;
  const std::shared_ptr<UdpQueues> queues_;
  UdpRemoteSession* first_remote_session_ = nullptr;
  std::map<u32, std::unique_ptr<UdpRemoteSession>> remote_sessions_;  // see RemoteSessionKey
  bool closing_ = false;
  bool close_wanted_ = false;
  bool forgotten_ = false;
  std::unique_ptr<PeerSockets> peer_sockets_;  // null where the queues are used
};

}  // namespace moru_vyr::lsp
