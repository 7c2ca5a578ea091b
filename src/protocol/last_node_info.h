// The node that served a flow before.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
// See docs/wire.md, "LastNodeInfo", and codec.h for Pack and Unpack. It is only sent as a part of
// requests and responses, so nothing calls its own Pack and Unpack. All zero: there is none.
struct LastNodeInfo {
  u16 node_id = 0;
  u16 port = 0;
  u32 ip = 0;
  u32 accl_token = 0;

  int Pack(std::span<u8> out) const noexcept;
  int Unpack(std::span<const u8> in) noexcept;
};
#pragma pack(pop)

static_assert(sizeof(LastNodeInfo) == 12);
static_assert(offsetof(LastNodeInfo, node_id) == 0);
static_assert(offsetof(LastNodeInfo, port) == 2);
static_assert(offsetof(LastNodeInfo, ip) == 4);
static_assert(offsetof(LastNodeInfo, accl_token) == 8);

}  // namespace moru_vyr::lsp
