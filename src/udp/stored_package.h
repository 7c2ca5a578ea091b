// Datagrams that wait: for the end of a negotiation, or for room in a socket.
#pragma once
#include <winsock2.h>

#include <algorithm>
#include <list>
#include <utility>
#include <vector>

#include "common/types.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

// Means the link's socket at the time of sending, because it may change until then.
inline constexpr SOCKET kOwnSocket = INVALID_SOCKET;

struct StoredPackage {
  std::vector<u8> bytes;  // kWrapRoom, then the datagram
  sockaddr_in addr = {};
  SOCKET socket = kOwnSocket;  // to send through

  // Valid while this object is. An empty datagram is sent too.
  UdpPackage View() noexcept {
    const u32 size = static_cast<u32>(bytes.size()) - kWrapRoom;
    return {bytes.data() + kWrapRoom, size, size, addr};
  }
};

// Kept: without a limit. It is bounded only by the duration of a negotiation, or by what the game
// sends.
using StoredPackages = std::list<StoredPackage>;

// Appends a copy. Without memory for it the datagram is lost, as any may be on the network.
inline void Store(StoredPackages* packages, const void* data, u32 len, const sockaddr_in& addr,
                  SOCKET socket = kOwnSocket) noexcept {
  try {
    std::vector<u8> bytes(kWrapRoom + len);
    std::copy_n(static_cast<const u8*>(data), len, bytes.begin() + kWrapRoom);
    packages->push_back({std::move(bytes), addr, socket});
  } catch (...) {
  }
}

}  // namespace moru_vyr::lsp
