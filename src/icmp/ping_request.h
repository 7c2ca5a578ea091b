// An echo request that is held back until its forged reply is due.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr u32 kMinIcmpSize = 8;    // a header without payload
inline constexpr u32 kMaxIcmpSize = 256;  // longer messages go to the network
inline constexpr u32 kIpHeaderSize = 20;

struct ping_request_t {
  u32 req_time = 0;   // tick at which it was checked in
  u32 lag = 0;        // milliseconds until its reply is due
  u32 ip = 0;         // network order: the address that was pinged
  u32 from_heap = 0;  // 0: a slot of the pool, 1: an allocation of its own
  u32 size = 0;       // of the message
  u8 data[kMaxIcmpSize] = {};
};

}  // namespace moru_vyr::lsp
