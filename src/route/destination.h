// Questions about a destination that the configuration alone can answer.
#pragma once
#include "abi/acc_config_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

// An address inside the player's own network, which no node could reach. Network byte order.
bool IsInnerIp(u32 ip) noexcept;

// A TCP port that the game keeps direct. Datagram ports never are. Network byte order; socket_type
// as in the socket calls.
bool IsExcludedPort(const AccConfigRecord& config, u16 port, i32 socket_type) noexcept;

// Whether the forced proxy reaches that data centre: its first record decides.
bool IsReachable(const ReachabilityTable* table, u32 game_idc) noexcept;

}  // namespace moru_vyr::lsp
