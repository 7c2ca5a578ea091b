#include "udp/peer_ports.h"

#include <algorithm>

namespace moru_vyr::lsp {

bool PeerPorts::IsUsed() const noexcept {
  common::Lock hold(lock_);
  return count_ != 0;
}

bool PeerPorts::IsFull() const noexcept {
  common::Lock hold(lock_);
  return count_ == kPlaces;
}

bool PeerPorts::FindPort(const sockaddr_in& peer, u16* port) const noexcept {
  common::Lock hold(lock_);
  const Place* const found = Find(peer);
  if (found == nullptr) return false;
  *port = found->loopback_port;
  return true;
}

bool PeerPorts::FindPeer(u16 port, sockaddr_in* peer) const noexcept {
  if (port == 0) return false;
  common::Lock hold(lock_);
  const Place* const end = places_.data() + count_;
  const Place* const found = std::find_if(
      places_.data(), end, [=](const Place& place) { return place.loopback_port == port; });
  if (found == end) return false;
  *peer = {};
  peer->sin_family = AF_INET;
  peer->sin_addr.s_addr = found->ip;
  peer->sin_port = found->port;
  return true;
}

bool PeerPorts::Add(const sockaddr_in& peer, u16 port) noexcept {
  common::Lock hold(lock_);
  if (count_ == kPlaces || Find(peer) != nullptr) return false;
  places_[count_++] = {static_cast<u32>(peer.sin_addr.s_addr), peer.sin_port, port};
  return true;
}

const PeerPorts::Place* PeerPorts::Find(const sockaddr_in& peer) const noexcept {
  const Place* const end = places_.data() + count_;
  const Place* const found = std::find_if(places_.data(), end, [&](const Place& place) {
    return place.ip == static_cast<u32>(peer.sin_addr.s_addr) && place.port == peer.sin_port;
  });
  return found != end ? found : nullptr;
}

}  // namespace moru_vyr::lsp
