// The two tables that map an address to the number of its data centre: the large one, and the spur
// list, which the client program rewrites while a game runs. Plain regions, little-endian, packed.
#pragma once
#include <cstddef>

#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr char kIpTableRegionName[] = "vyr_iptable_share_mem";
inline constexpr char kIpTableMutexName[] = "vyr_iptable_named_mutex";
inline constexpr u32 kMaxIpRecords = 81920;

inline constexpr char kSpurRegionName[] = "vyr_spur_iptable_share_mem";
inline constexpr char kSpurMutexName[] = "vyr_spur_iptable_named_mutex";
inline constexpr u32 kMaxSpurRecords = 2048;

#pragma pack(push, 1)
// The hundreds digit of game_idc is the VIP level that the record is for.
struct IpRecord {
  u32 game_idc = 0;
  u32 ip = 0;  // network byte order
};

struct IpTableRegion {
  common::SharedMemHeader header;
  u32 ip_count = 0;
  IpRecord records[kMaxIpRecords];
  u32 iptable_word = 0;
};

// For every level alike.
struct SpurIpRecord {
  u32 game_idc = 0;
  u32 ip = 0;  // network byte order
};

struct SpurRegion {
  common::SharedMemHeader header;
  u32 spur_count = 0;
  SpurIpRecord records[kMaxSpurRecords];
};
#pragma pack(pop)

static_assert(sizeof(IpRecord) == 8);
static_assert(offsetof(IpRecord, game_idc) == 0);
static_assert(offsetof(IpRecord, ip) == 4);

static_assert(sizeof(IpTableRegion) == 655380);
static_assert(offsetof(IpTableRegion, header) == 0);
static_assert(offsetof(IpTableRegion, ip_count) == 12);
static_assert(offsetof(IpTableRegion, records) == 16);
static_assert(offsetof(IpTableRegion, iptable_word) == 655376);

static_assert(sizeof(SpurIpRecord) == 8);
static_assert(offsetof(SpurIpRecord, game_idc) == 0);
static_assert(offsetof(SpurIpRecord, ip) == 4);

static_assert(sizeof(SpurRegion) == 16400);
static_assert(offsetof(SpurRegion, header) == 0);
static_assert(offsetof(SpurRegion, spur_count) == 12);
static_assert(offsetof(SpurRegion, records) == 16);

}  // namespace moru_vyr::lsp
