// The sockets behind a session's PeerPorts: one on the loopback interface for each address that the
// game exchanges datagrams with.
//
// The session owns it. Worker thread only. Nothing but the constructor throws.
#pragma once
#include <winsock2.h>

#include <array>

#include "relay/relay_interfaces.h"
#include "udp/peer_ports.h"
#include "udp/read_pace.h"
#include "udp/stored_package.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

class UdpSession;

class PeerSockets final : public IRelaySocketDelegate {
 public:
  static constexpr size_t kMostBlocked = 256;

  // `game` is the game's socket; `ports` outlives this.
  PeerSockets(UdpSession* session, const sockaddr_in& game, PeerPorts* ports) noexcept
      : session_(session), game_(game), ports_(ports) {}
  ~PeerSockets() override;

  // A port for an address that the game wants to send to; true if it has one afterwards.
  bool Open(const sockaddr_in& peer) noexcept;
  // Sends a datagram from the network to the game, from the port of its source, package.addr. Drops
  // it if there is no port left for the source, as the network may. While the loopback interface
  // has no room the datagram waits, with up to kMostBlocked others.
  void SendToGame(const UdpPackage& package) noexcept;

  // For the timer: what waits for room is tried again.
  void OnUpdate() noexcept;

  // Reads what the game has sent before it closed its socket.
  void ReadAll() noexcept;

  void OnReadable(SOCKET socket) noexcept override;
  void OnWritable(SOCKET socket) noexcept override;
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

 private:
  struct Place {
    SOCKET socket = INVALID_SOCKET;
    sockaddr_in peer = {};
    ReadPace pace;
  };
  void Read(Place* place, bool to_the_end) noexcept;
  // Whether it left or was dropped; false if it has to wait for room.
  bool Send(SOCKET socket, const UdpPackage& package) noexcept;
  const Place* Find(const sockaddr_in& peer) const noexcept;
  const Place* Make(const sockaddr_in& peer) noexcept;

  UdpSession* const session_;
  const sockaddr_in game_;
  PeerPorts* const ports_;
  std::array<Place, PeerPorts::kPlaces> places_;
  u32 count_ = 0;
  u32 strangers_ = 0;
  StoredPackages blocked_;  // for the game, in the order in which they came
};

}  // namespace moru_vyr::lsp
