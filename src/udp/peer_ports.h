// Which loopback port of the relay stands for which address on the network, for one session.
//
// What the game sends to a port is for its address, and what it gets from a port is from that
// address. The port alone decides: neither the content of a datagram, nor how often it is read, nor
// the loss of others matters. An address keeps its port for as long as the session lives.
//
// Any thread; the lock is a leaf, held for one search. Nothing allocates, nothing throws.
#pragma once
#include <winsock2.h>

#include <array>

#include "common/lock.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class PeerPorts {
 public:
  static constexpr u32 kPlaces = 32;
  // How many of them are for addresses that the game has not sent to. Anyone may send to the relay.
  static constexpr u32 kStrangers = 16;

  // A session has none until its first address is added.
  bool IsUsed() const noexcept;
  bool IsFull() const noexcept;

  // The port, in network order, is 0 for an address that the game reaches directly. False if the
  // address is not known.
  bool FindPort(const sockaddr_in& peer, u16* port) const noexcept;
  // False, with *peer unchanged, if that is none of the ports.
  bool FindPeer(u16 port, sockaddr_in* peer) const noexcept;

  // False if the address is known already, with any port, or if there is no place for it.
  bool Add(const sockaddr_in& peer, u16 port) noexcept;

 private:
  struct Place {
    u32 ip = 0;  // all in network order
    u16 port = 0;
    u16 loopback_port = 0;
  };
  const Place* Find(const sockaddr_in& peer) const noexcept;

  mutable common::Mutex lock_;  // guards all below
  std::array<Place, kPlaces> places_;
  u32 count_ = 0;
};

}  // namespace moru_vyr::lsp
