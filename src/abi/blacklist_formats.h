// Destinations that are never accelerated. A plain region, little-endian, packed.
#pragma once
#include <cstddef>

#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr char kBlacklistRegionName[] = "vyr_acc_blacklist_share_mem";
inline constexpr char kBlacklistMutexName[] = "vyr_acc_blacklist_named_mutex";
inline constexpr u32 kMaxBlacklistRecords = 1024;

inline constexpr u32 kBlacklistTcp = 1;
inline constexpr u32 kBlacklistUdp = 2;

#pragma pack(push, 1)
// A zero in any of the first three fields matches everything; type has no such value.
struct BlacklistRecord {
  u64 game_id = 0;
  u32 ip = 0;    // network byte order
  u32 port = 0;  // host byte order
  u32 type = 0;
  u8 reserved_20[4] = {};
};

struct BlacklistRegion {
  common::SharedMemHeader header;
  u8 reserved_12[4] = {};
  u32 blacklist_count = 0;
  u8 reserved_20[4] = {};
  BlacklistRecord records[kMaxBlacklistRecords];
};
#pragma pack(pop)

static_assert(sizeof(BlacklistRecord) == 24);
static_assert(offsetof(BlacklistRecord, game_id) == 0);
static_assert(offsetof(BlacklistRecord, ip) == 8);
static_assert(offsetof(BlacklistRecord, port) == 12);
static_assert(offsetof(BlacklistRecord, type) == 16);
static_assert(offsetof(BlacklistRecord, reserved_20) == 20);

static_assert(sizeof(BlacklistRegion) == 24600);
static_assert(offsetof(BlacklistRegion, header) == 0);
static_assert(offsetof(BlacklistRegion, reserved_12) == 12);
static_assert(offsetof(BlacklistRegion, blacklist_count) == 16);
static_assert(offsetof(BlacklistRegion, reserved_20) == 20);
static_assert(offsetof(BlacklistRegion, records) == 24);

}  // namespace moru_vyr::lsp
