// Datagrams that wait: for the end of a negotiation, or for room in a socket.
#pragma once
#include <winsock2.h>

#include <list>
#include <vector>

#include "common/types.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

// Stands for the link's socket at the time of sending, as it may change until then.
inline constexpr SOCKET kOwnSocket = INVALID_SOCKET;

struct StoredPackage {
  std::vector<u8> data;
  sockaddr_in addr = {};
  SOCKET socket = kOwnSocket;  // to send through

  // Valid while this is. Its data is never null, also where there are no bytes: a datagram of none
  // is one to be sent.
  UdpPackage View() noexcept {
    static u8 nothing = 0;
    const u32 size = static_cast<u32>(data.size());
    return {size != 0 ? data.data() : &nothing, size, size, addr};
  }
};

// Kept: without a limit. What bounds it is the time of a negotiation, or what the game sends.
using StoredPackages = std::list<StoredPackage>;

// Appends a copy. Without memory for it the datagram is lost, as any may be on its way.
inline void Store(StoredPackages* packages, const void* data, u32 len, const sockaddr_in& addr,
                  SOCKET socket = kOwnSocket) noexcept {
  const u8* const bytes = static_cast<const u8*>(data);
  try {
    packages->push_back({std::vector<u8>(bytes, bytes + len), addr, socket});
  } catch (...) {
  }
}

}  // namespace moru_vyr::lsp
