// The header of every datagram between client and node.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"
#include "protocol/codec.h"

namespace moru_vyr::lsp {

// Values of `flags`.
inline constexpr u8 kUdpAcclData = 0;
inline constexpr u8 kUdpAcclEnd = 4;
inline constexpr u8 kUdpAcclSpeedTest = 8;

#pragma pack(push, 1)
// See docs/wire.md, "UdpAcclHeader", and codec.h for Pack and Unpack. Address and port are
// host-order integers.
struct UdpAcclHeader {
  u8 version = kUdpAcclVersion;
  u8 head_len = 0;  // where the payload begins
  u8 flags = 0;
  u8 relay_idx = 0;  // on an answered probe: 0 the only relay, 1 the first, 2 the second
  u32 seq = 0;
  u32 accl_token = 0;
  u32 game_ip = 0;
  u16 game_port = 0;
  u8 reserved = 0;
  u8 lost = 0;  // percent, or 101: not known

  // packed_version 0 takes the record's. Sets the record's own version and head_len to what is
  // packed.
  int Pack(std::span<u8> out, u32 packed_version = 0) noexcept;
  // Returns head_len, at least 20, which may be more than there are bytes: the caller must compare.
  // An unknown version is replaced in the record by the newest.
  int Unpack(std::span<const u8> in) noexcept;
};
#pragma pack(pop)

static_assert(sizeof(UdpAcclHeader) == 20);
static_assert(offsetof(UdpAcclHeader, version) == 0);
static_assert(offsetof(UdpAcclHeader, head_len) == 1);
static_assert(offsetof(UdpAcclHeader, flags) == 2);
static_assert(offsetof(UdpAcclHeader, relay_idx) == 3);
static_assert(offsetof(UdpAcclHeader, seq) == 4);
static_assert(offsetof(UdpAcclHeader, accl_token) == 8);
static_assert(offsetof(UdpAcclHeader, game_ip) == 12);
static_assert(offsetof(UdpAcclHeader, game_port) == 16);
static_assert(offsetof(UdpAcclHeader, reserved) == 18);
static_assert(offsetof(UdpAcclHeader, lost) == 19);

}  // namespace moru_vyr::lsp
