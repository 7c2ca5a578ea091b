// The nodes that failed recently, and how long each is still passed over.
//
// Worker thread only. Nothing throws, nothing allocates.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

class RestingNodes {
 public:
  static constexpr u32 kMost = 16;

  // For connections (SOCK_STREAM) and for datagrams (SOCK_DGRAM) a node rests separately: a network
  // that loses datagrams says nothing about connections. Where there is no room, the node that
  // failed longest ago is forgotten.
  void Add(const sockaddr_in& node, i32 socket_type, u32 now_ms, u32 rest_ms) noexcept;
  void Remove(const sockaddr_in& node, i32 socket_type) noexcept;
  bool Has(const sockaddr_in& node, i32 socket_type, u32 now_ms) noexcept;

 private:
  struct Entry {
    u32 ip = 0;  // network order, as the port is
    u16 port = 0;
    i32 socket_type = 0;  // 0: a free entry
    u32 since_ms = 0;     // by the tick counter, which may wrap meanwhile
    u32 rest_ms = 0;
  };

  Entry* Find(const sockaddr_in& node, i32 socket_type) noexcept;
  Entry* FindPlace(u32 now_ms) noexcept;

  Entry entries_[kMost];
};

}  // namespace moru_vyr::lsp
