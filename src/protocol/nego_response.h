// A node's answer to a request.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"
#include "protocol/last_node_info.h"
#include "protocol/nego_message.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
// See docs/wire.md, "NegoResponse", and codec.h for Pack and Unpack. Versions 2 and 3 are the same
// bytes. Addresses and ports are host-order integers.
struct NegoResponseBody {
  u8 result = 0;       // 0 accepts; anything else is the node's reason to refuse
  u32 accl_token = 0;  // what this flow's datagrams must carry
  u32 client_isp = 0;  // bit mask, with the bits of the route tables
  u32 client_ip = 0;
  u32 accl_data_ip = 0;
  u16 accl_data_port = 0;
  LastNodeInfo last_node;  // from version 2 on

  // Kept: only the low 16 bits of the length are compared with the header's length.
  static constexpr u32 kLengthMask = 0xFFFF;

  void Init(u32 version) noexcept;
  int Pack(std::span<u8> out, u32 version) const noexcept;
  int Unpack(std::span<const u8> in, u32 version) noexcept;
};

#pragma pack(pop)

// Pack is for nodes: this client sends no responses.
using NegoResponse = NegoMessage<NegoResponseBody>;

static_assert(sizeof(NegoResponseBody) == 31);
static_assert(offsetof(NegoResponseBody, result) == 0);
static_assert(offsetof(NegoResponseBody, accl_token) == 1);
static_assert(offsetof(NegoResponseBody, client_isp) == 5);
static_assert(offsetof(NegoResponseBody, client_ip) == 9);
static_assert(offsetof(NegoResponseBody, accl_data_ip) == 13);
static_assert(offsetof(NegoResponseBody, accl_data_port) == 17);
static_assert(offsetof(NegoResponseBody, last_node) == 19);

static_assert(sizeof(NegoResponse) == 41);
static_assert(offsetof(NegoResponse, header) == 0);
static_assert(offsetof(NegoResponse, body) == 10);

}  // namespace moru_vyr::lsp
