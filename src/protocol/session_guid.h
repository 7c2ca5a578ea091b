// The identity of one relayed connection or flow, towards nodes and in reports.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
// See docs/wire.md, "SessionGuid", and codec.h for Pack and Unpack. It is only sent as a part of
// requests, so nothing calls its own Pack and Unpack.
struct SessionGuid {
  static constexpr u32 kTextSize = 37;  // the text form with its terminator

  u32 data1 = 0;
  u16 data2 = 0;
  u16 data3 = 0;
  u8 data4[8] = {};

  // A new one.
  static SessionGuid Make() noexcept;

  int Pack(std::span<u8> out) const noexcept;
  int Unpack(std::span<const u8> in) noexcept;

  // Writes the text form of the host-order record, 36 characters in upper case, and returns
  // `buffer`. Null, with nothing written, if `buffer` is null or `size` below kTextSize.
  char* ToString(char* buffer, u32 size) const noexcept;
};
#pragma pack(pop)

static_assert(sizeof(SessionGuid) == 16);
static_assert(offsetof(SessionGuid, data1) == 0);
static_assert(offsetof(SessionGuid, data2) == 4);
static_assert(offsetof(SessionGuid, data3) == 6);
static_assert(offsetof(SessionGuid, data4) == 8);

}  // namespace moru_vyr::lsp
