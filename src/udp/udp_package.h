// One datagram in memory, and its source or destination.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

struct UdpPackage {
  u8* data = nullptr;  // not owned
  u32 capacity = 0;    // bytes of room at `data`
  u32 valid_len = 0;   // bytes of the datagram
  sockaddr_in addr = {};
};

}  // namespace moru_vyr::lsp
