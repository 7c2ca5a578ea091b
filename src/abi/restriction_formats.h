// The region in which the client program lists the games that it serves. Plain (one buffer, one
// named mutex), little-endian, packed.
#pragma once
#include <cstddef>

#include "abi/acc_config_formats.h"
#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr char kRestrictionRegionName[] = "vyr_restriction_share_mem";
inline constexpr char kRestrictionMutexName[] = "vyr_restriction_named_mutex";
inline constexpr u32 kMaxGames = 10;

#pragma pack(push, 1)
struct RestrictionRegion {
  common::SharedMemHeader header;
  u8 reserved_12[4] = {};
  AccConfigRecord games[kMaxGames];
  char route_binary_file_path[260] = {};
  char second_path[260] = {};
};
#pragma pack(pop)

static_assert(sizeof(RestrictionRegion) == 134216);
static_assert(offsetof(RestrictionRegion, header) == 0);
static_assert(offsetof(RestrictionRegion, reserved_12) == 12);
static_assert(offsetof(RestrictionRegion, games) == 16);
static_assert(offsetof(RestrictionRegion, route_binary_file_path) == 133696);
static_assert(offsetof(RestrictionRegion, second_path) == 133956);

}  // namespace moru_vyr::lsp
