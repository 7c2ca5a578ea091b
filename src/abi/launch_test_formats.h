// What the client program measured when the game was launched: the best proxy for a data centre.
// A plain region, little-endian, packed.
#pragma once
#include <cstddef>

#include "abi/proxy_formats.h"
#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr char kLaunchTestRegionName[] = "vyr_game_launch_test_shared_mem";
inline constexpr char kLaunchTestMutexName[] = "vyr_game_launch_test_named_mutex";
inline constexpr u32 kMaxGltRecords = 64;

#pragma pack(push, 1)
struct GltRouteInfo {
  u32 game_idc = 0;
  u8 glt_head[68] = {};  // copied into reports, otherwise unused
  RouteProxyInfo proxy;
};

struct LaunchTestRegion {
  common::SharedMemHeader header;
  u32 valid_count = 0;
  GltRouteInfo records[kMaxGltRecords];
};
#pragma pack(pop)

static_assert(sizeof(GltRouteInfo) == 236);
static_assert(offsetof(GltRouteInfo, game_idc) == 0);
static_assert(offsetof(GltRouteInfo, glt_head) == 4);
static_assert(offsetof(GltRouteInfo, proxy) == 72);

static_assert(sizeof(LaunchTestRegion) == 15120);
static_assert(offsetof(LaunchTestRegion, header) == 0);
static_assert(offsetof(LaunchTestRegion, valid_count) == 12);
static_assert(offsetof(LaunchTestRegion, records) == 16);

}  // namespace moru_vyr::lsp
