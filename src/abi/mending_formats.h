// Which of the oddities in docs/oddities.md the client program wants mended, game by game. Where
// the region is absent, of another version or zero, nothing is mended. A plain region,
// little-endian, packed. It is read once, when a game starts.
#pragma once
#include <cstddef>

#include "abi/restriction_formats.h"
#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr char kMendingRegionName[] = "vyr_mending_share_mem";
inline constexpr char kMendingMutexName[] = "vyr_mending_named_mutex";

// Bits of MendingRecord::mended. A reader ignores those that it does not know.
inline constexpr u32 kMendHalfClose = 0x1;   // one side may end its sending and go on reading
inline constexpr u32 kMendFailedNode = 0x2;  // a node that cannot be reached is tried and left
inline constexpr u32 kMendReset = 0x4;       // a reset stays a reset
inline constexpr u32 kMendConnectEx = 0x8;   // ConnectEx answers what the next provider answered
inline constexpr u32 kMendRestart = 0x10;    // a process that starts Winsock anew is served anew
inline constexpr u32 kMendFallback = 0x20;   // another way is tried soon, failed nodes rest
inline constexpr u32 kMendConnectedDatagram = 0x40;   // datagram sockets may be connected
inline constexpr u32 kMendOverlappedDatagram = 0x80;  // late receives get their source
inline constexpr u32 kMendAfterSwitch = 0x100;        // a flow that has moved starts anew
inline constexpr u32 kMendJudgement = 0x200;          // a link is judged by what it does
inline constexpr u32 kMendStart = 0x400;              // starting, ending and fullness as without us
inline constexpr u32 kMendNames = 0x800;           // names of both ends of a stream as without us
inline constexpr u32 kMendDatagramMatch = 0x1000;  // no datagram gets another one's address
inline constexpr u32 kMendRefusal = 0x2000;        // a server that refuses is a refused connect
inline constexpr u32 kMendThroughput = 0x4000;     // relayed data moves in larger steps
// What a game misses without it. kMendThroughput is asked for besides: it costs memory.
inline constexpr u32 kMendAll = kMendHalfClose | kMendFailedNode | kMendReset | kMendConnectEx |
                                kMendRestart | kMendFallback | kMendConnectedDatagram |
                                kMendOverlappedDatagram | kMendAfterSwitch | kMendJudgement |
                                kMendStart | kMendNames | kMendDatagramMatch | kMendRefusal;

#pragma pack(push, 1)
struct MendingRecord {
  u32 mended = 0;
  // Of kMendFallback, in milliseconds; 0: the default.
  u32 next_node_ms = 0;     // for the first node's answer, before another way is tried
  u32 direct_ms = 0;        // for the second node's, before the game server itself is tried
  u32 node_rest_ms = 0;     // in which a node that has failed is not asked again
  u8 reserved_16[16] = {};  // zero
};

struct MendingRegion {
  common::SharedMemHeader header;
  u8 reserved_12[4] = {};
  MendingRecord games[kMaxGames];  // each for the game in the same place of RestrictionRegion
};
#pragma pack(pop)

static_assert(sizeof(MendingRecord) == 32);
static_assert(offsetof(MendingRecord, mended) == 0);
static_assert(offsetof(MendingRecord, next_node_ms) == 4);
static_assert(offsetof(MendingRecord, direct_ms) == 8);
static_assert(offsetof(MendingRecord, node_rest_ms) == 12);
static_assert(offsetof(MendingRecord, reserved_16) == 16);

static_assert(sizeof(MendingRegion) == 336);
static_assert(offsetof(MendingRegion, header) == 0);
static_assert(offsetof(MendingRegion, reserved_12) == 12);
static_assert(offsetof(MendingRegion, games) == 16);

}  // namespace moru_vyr::lsp
