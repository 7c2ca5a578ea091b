// A probe of the link: what it carries after its header, and how its answer is recognised and read.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"
#include "protocol/udp_accl_header.h"

namespace moru_vyr::lsp {

inline constexpr u32 kSpeedTestMagic = 0x253ABD8F;
inline constexpr u32 kMaxSpeedTestDelay = 9999;  // milliseconds

#pragma pack(push, 1)
// See docs/wire.md, "SpeedTestPayload". Has no Pack of its own: it travels in host order, because
// only this library reads it.
struct SpeedTestPayload {
  u32 magic = kSpeedTestMagic;
  u32 seq = 0;        // equal to the header's
  u64 send_time = 0;  // milliseconds since 1 January 1970
};

// The whole datagram of a probe.
struct SpeedTestPackage {
  UdpAcclHeader header;
  SpeedTestPayload payload;

  int Pack(std::span<u8> out) noexcept;
};
#pragma pack(pop)

static_assert(sizeof(SpeedTestPayload) == 16);
static_assert(offsetof(SpeedTestPayload, magic) == 0);
static_assert(offsetof(SpeedTestPayload, seq) == 4);
static_assert(offsetof(SpeedTestPayload, send_time) == 8);

static_assert(sizeof(SpeedTestPackage) == 36);
static_assert(offsetof(SpeedTestPackage, header) == 0);
static_assert(offsetof(SpeedTestPackage, payload) == 20);

// Whether the datagram is the answer to a probe; if so, both parts of it in host order. Any other
// datagram is data, even if it has the speed test's flag.
bool ReadSpeedTestReply(std::span<const u8> datagram, UdpAcclHeader* header,
                        SpeedTestPayload* payload) noexcept;

// From sending to `now`, both in milliseconds since 1 January 1970. At least 1, even if the clock
// was set back or a node invented the time, and at most kMaxSpeedTestDelay.
u32 SpeedTestDelay(u64 now, u64 send_time) noexcept;

}  // namespace moru_vyr::lsp
