// One datagram in memory with its source or destination, and the buffer into which one after
// another is received.
#pragma once
#include <winsock2.h>

#include "common/types.h"
#include "protocol/udp_accl_header.h"

namespace moru_vyr::lsp {

// Longer datagrams than this are neither received nor wrapped.
inline constexpr u32 kDatagramBufferSize = 2048;
// Bytes in front of a received or stored datagram that are nobody's: it is wrapped where it lies.
inline constexpr u32 kWrapRoom = sizeof(UdpAcclHeader);

struct UdpPackage {
  u8* data = nullptr;  // not owned
  u32 capacity = 0;    // bytes of room at `data`
  u32 valid_len = 0;   // bytes of the datagram
  sockaddr_in addr = {};
};

class DatagramBuffer {
 public:
  // 0 and the datagram, which stays here until the next call; or the Winsock error.
  int Receive(SOCKET socket, UdpPackage* package) noexcept {
    sockaddr_in addr = {};
    int addr_size = sizeof addr;
    u8* const data = bytes_ + kWrapRoom;
    const int received = recvfrom(socket, reinterpret_cast<char*>(data), kDatagramBufferSize, 0,
                                  reinterpret_cast<sockaddr*>(&addr), &addr_size);
    if (received < 0) return WSAGetLastError();
    *package = {data, kDatagramBufferSize, static_cast<u32>(received), addr};
    return 0;
  }

 private:
  u8 bytes_[kWrapRoom + kDatagramBufferSize];
};

}  // namespace moru_vyr::lsp
