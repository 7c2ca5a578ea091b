// The client's request to a node: to carry one connection or flow to a game server.
#pragma once
#include <cstddef>
#include <span>

#include "common/types.h"
#include "protocol/last_node_info.h"
#include "protocol/nego_message.h"
#include "protocol/session_guid.h"

namespace moru_vyr::lsp {

// In `flags`: the request moves a flow to this node that another node carries now.
inline constexpr u32 kNegoFlagSwitch = 2;

#pragma pack(push, 1)
// See docs/wire.md, "NegoRequest", and codec.h for Pack and Unpack. Each version adds fields to the
// one before; the fields that a version lacks are neither read nor written. Addresses and ports
// are host-order integers.
struct NegoRequestBody {
  u32 flags = 0;
  u8 retry = 0;  // changes of node so far
  u64 uin = 0;
  u32 game_id_low = 0;
  u32 game_ip = 0;
  u16 game_port = 0;
  SessionGuid guid;
  LastNodeInfo last_node;  // from version 2 on, with game_idc
  u32 game_idc = 0;
  u64 game_id = 0;  // from version 3 on

  static constexpr u32 kLengthMask = 0xFFFFFFFF;  // see NegoMessage

  void Init(u32 version) noexcept;
  int Pack(std::span<u8> out, u32 version) const noexcept;
  int Unpack(std::span<const u8> in, u32 version) noexcept;
};

#pragma pack(pop)

// Unpack is for nodes: this client reads no requests.
using NegoRequest = NegoMessage<NegoRequestBody>;

static_assert(sizeof(NegoRequestBody) == 63);
static_assert(offsetof(NegoRequestBody, flags) == 0);
static_assert(offsetof(NegoRequestBody, retry) == 4);
static_assert(offsetof(NegoRequestBody, uin) == 5);
static_assert(offsetof(NegoRequestBody, game_id_low) == 13);
static_assert(offsetof(NegoRequestBody, game_ip) == 17);
static_assert(offsetof(NegoRequestBody, game_port) == 21);
static_assert(offsetof(NegoRequestBody, guid) == 23);
static_assert(offsetof(NegoRequestBody, last_node) == 39);
static_assert(offsetof(NegoRequestBody, game_idc) == 51);
static_assert(offsetof(NegoRequestBody, game_id) == 55);

static_assert(sizeof(NegoRequest) == 73);
static_assert(offsetof(NegoRequest, header) == 0);
static_assert(offsetof(NegoRequest, body) == 10);

}  // namespace moru_vyr::lsp
