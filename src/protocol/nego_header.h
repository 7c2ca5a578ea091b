// The header of the request and the response of a negotiation.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"
#include "protocol/codec.h"

namespace moru_vyr::lsp {

inline constexpr u32 kNegoMagic = 0x78DB3964;

#pragma pack(push, 1)
// See docs/wire.md, "NegoHeader".
struct NegoHeader {
  u32 magic = kNegoMagic;
  u16 pkg_len = 0;  // of the whole record, this header included
  u16 version = kNegoVersion;
  u16 reserved = 0;

  int Pack(std::span<u8> out) const noexcept;
  // A wrong magic is kBadMagic; all fields are in the record all the same.
  int Unpack(std::span<const u8> in) noexcept;
};
#pragma pack(pop)

static_assert(sizeof(NegoHeader) == 10);
static_assert(offsetof(NegoHeader, magic) == 0);
static_assert(offsetof(NegoHeader, pkg_len) == 4);
static_assert(offsetof(NegoHeader, version) == 6);
static_assert(offsetof(NegoHeader, reserved) == 8);

}  // namespace moru_vyr::lsp
