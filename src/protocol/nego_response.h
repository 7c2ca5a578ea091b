// A node's answer to a request.
#pragma once
#include <cstddef>

#include "common/types.h"
#include "protocol/codec.h"
#include "protocol/last_node_info.h"
#include "protocol/nego_header.h"

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

  void Init(u32 version) noexcept;
  int Pack(void* buffer, u32 length, u32 version) noexcept;
  int Unpack(const void* buffer, u32 length, u32 version) noexcept;
};

struct NegoResponse {
  NegoHeader header;
  NegoResponseBody body;

  void Init(u32 version) noexcept;
  // For nodes: this client sends no responses. As NegoRequest::Pack.
  int Pack(void* buffer, u32 length, u32 version) noexcept;
  // The header's version says how much is read, and an unknown one is replaced in the record by the
  // newest. Kept: only the low 16 bits of `length` are compared with the header's length.
  int Unpack(const void* buffer, u32 length) noexcept;
};
#pragma pack(pop)

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
