// Datagrams that wait: for the end of a negotiation, or for room in a socket.
#pragma once
#include <winsock2.h>

#include <list>
#include <vector>

#include "common/types.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

// Means the link's socket at the time of sending, because it may change until then.
inline constexpr SOCKET kOwnSocket = INVALID_SOCKET;

struct StoredPackage {
  std::vector<u8> data;
  sockaddr_in addr = {};
  SOCKET socket = kOwnSocket;  // to send through

  // Valid while this object is. Its data is never null, even without any bytes: an empty datagram
  // is sent too.
  UdpPackage View() noexcept {
    static u8 nothing = 0;
    const u32 size = static_cast<u32>(data.size());
    return {size != 0 ? data.data() : &nothing, size, size, addr};
  }
};

// Kept: without a limit. It is bounded only by the duration of a negotiation, or by what the game
// sends.
using StoredPackages = std::list<StoredPackage>;

// Appends a copy. Without memory for it the datagram is lost, as any may be on the network.
inline void Store(StoredPackages* packages, const void* data, u32 len, const sockaddr_in& addr,
                  SOCKET socket = kOwnSocket) noexcept {
  const u8* const bytes = static_cast<const u8*>(data);
  try {
    packages->push_back({std::vector<u8>(bytes, bytes + len), addr, socket});
  } catch (...) {
  }
}

}  // namespace moru_vyr::lsp
