// The datagrams of a flow as the node reads and writes them. What it reads is untrusted.
#pragma once
#include <cstddef>

#include "node/behaviour.h"
#include "node/socket.h"
#include "protocol/udp_accl_header.h"

namespace node {

// A datagram from a client. The payload points into the bytes that were read.
struct ClientDatagram {
  moru_vyr::lsp::UdpAcclHeader header = {};  // host order
  const char* payload = nullptr;
  std::size_t payload_size = 0;
};

// Null if it is valid, otherwise what is wrong with it.
const char* ReadDatagram(const char* bytes, std::size_t size, ClientDatagram* datagram);

inline constexpr std::size_t kLongestHeader = 255;

// Writes header and payload to `out`, which has room for kLongestHeader more than the payload,
// right or wrong as the behaviour says; `header` is in host order. The payload may already be at
// out + kLongestHeader. Returns the whole size.
std::size_t WriteDatagram(const Behaviour& behaviour, moru_vyr::lsp::UdpAcclHeader header,
                          const char* payload, std::size_t payload_size, char* out);

}  // namespace node
