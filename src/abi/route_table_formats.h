// The route table: which proxies lead to which data centre of a game, and the client program's
// decision on each. It is in a double-buffered region, or by itself in a binary file.
// Little-endian, packed. Nothing in it can be trusted: counts can exceed their arrays, references
// can dangle, texts can be unterminated.
#pragma once
#include <array>
#include <cstddef>

#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr char kRouteRegionName[] = "vyr_route_share_mem";
inline constexpr char kRouteMutexName[] = "vyr_route_named_mutex";
inline constexpr u32 kMaxRoutes = 60;
inline constexpr u32 kMaxProxies = 150;
inline constexpr u32 kTopRefs = 3;
inline constexpr u32 kSwitchGroups = 4;
inline constexpr u32 kSwitchCandidates = 2;

// The four words that are copied with every decision into its report.
inline constexpr u32 kRouteHeaderWords = 4;
using RouteHeader = std::array<u32, kRouteHeaderWords>;

#pragma pack(push, 1)
// One proxy as a way to one data centre. proxy_idc 0: no proxy.
struct ProxyRef {
  u32 proxy_idc = 0;
  u32 section2_delay = 0;  // from the proxy to the game server, milliseconds
  u32 section2_lost = 0;   // percent
  u32 decision = 0;        // one of the DECISION_ values
  u32 last_node = 0;       // identity of the last node on this path
};

// Where a flow may move if its path ends in last_node. last_node 0: no group.
struct SwitchGroup {
  u32 last_node = 0;
  ProxyRef candidates[kSwitchCandidates];
};

// The route to one data centre of a game, found by its game_idc.
struct RouteEntry {
  u32 entry_word0 = 0;
  u32 entry_word1 = 0;
  u32 game_idc = 0;
  u32 entry_word3 = 0;
  u32 entry_word4 = 0;
  char entry_name[64] = {};
  u32 entry_word21 = 0;
  u32 direct_delay = 0;  // milliseconds
  u32 direct_lost = 0;   // percent
  ProxyRef top_refs[kTopRefs];
  ProxyRef ref_both_modes;  // where net_mode has both of its mode bits
  ProxyRef ref_default;
  SwitchGroup switch_groups[kSwitchGroups];
};

struct RouteSet {
  u32 route_count = 0;
  RouteEntry routes[kMaxRoutes];
};

struct ProxyRecord {
  u32 type = 0;
  u32 flag = 0;
  char proxy_addr[32] = {};  // dotted IPv4 text
  u16 proxy_port = 0;        // host byte order
  u8 reserved_42[2] = {};
  u32 proxy_idc = 0;  // identity of the proxy
  u32 proxy_isp = 0;
  char proxy_name[64] = {};
  u32 section1_delay = 0;  // from the user to the proxy, milliseconds
  u32 section1_lost = 0;   // percent
  u32 to_proxy_speed_isp = 0;
  u32 to_proxy_speed_ip = 0;
  u32 surport_isps = 0;  // bit mask of the providers that the proxy serves
  u32 version = 0;
};

// What the binary file holds, byte by byte and nothing else.
struct RouteTableImage {
  RouteSet route_sets[2];  // the second where acc_mode is 2
  u32 header0 = 0;
  u32 header1 = 0;
  u32 header2 = 0;
  u32 header3 = 0;
  u32 proxy_count = 0;
  ProxyRecord proxies[kMaxProxies];
};

// One of the region's two buffers.
struct RouteRegion {
  common::SharedMemHeader header;
  RouteTableImage image;
};
#pragma pack(pop)

static_assert(sizeof(ProxyRef) == 20);
static_assert(offsetof(ProxyRef, proxy_idc) == 0);
static_assert(offsetof(ProxyRef, section2_delay) == 4);
static_assert(offsetof(ProxyRef, section2_lost) == 8);
static_assert(offsetof(ProxyRef, decision) == 12);
static_assert(offsetof(ProxyRef, last_node) == 16);

static_assert(sizeof(SwitchGroup) == 44);
static_assert(offsetof(SwitchGroup, last_node) == 0);
static_assert(offsetof(SwitchGroup, candidates) == 4);

static_assert(sizeof(RouteEntry) == 372);
static_assert(offsetof(RouteEntry, entry_word0) == 0);
static_assert(offsetof(RouteEntry, entry_word1) == 4);
static_assert(offsetof(RouteEntry, game_idc) == 8);
static_assert(offsetof(RouteEntry, entry_word3) == 12);
static_assert(offsetof(RouteEntry, entry_word4) == 16);
static_assert(offsetof(RouteEntry, entry_name) == 20);
static_assert(offsetof(RouteEntry, entry_word21) == 84);
static_assert(offsetof(RouteEntry, direct_delay) == 88);
static_assert(offsetof(RouteEntry, direct_lost) == 92);
static_assert(offsetof(RouteEntry, top_refs) == 96);
static_assert(offsetof(RouteEntry, ref_both_modes) == 156);
static_assert(offsetof(RouteEntry, ref_default) == 176);
static_assert(offsetof(RouteEntry, switch_groups) == 196);

static_assert(sizeof(RouteSet) == 22324);
static_assert(offsetof(RouteSet, route_count) == 0);
static_assert(offsetof(RouteSet, routes) == 4);

static_assert(sizeof(ProxyRecord) == 140);
static_assert(offsetof(ProxyRecord, type) == 0);
static_assert(offsetof(ProxyRecord, flag) == 4);
static_assert(offsetof(ProxyRecord, proxy_addr) == 8);
static_assert(offsetof(ProxyRecord, proxy_port) == 40);
static_assert(offsetof(ProxyRecord, reserved_42) == 42);
static_assert(offsetof(ProxyRecord, proxy_idc) == 44);
static_assert(offsetof(ProxyRecord, proxy_isp) == 48);
static_assert(offsetof(ProxyRecord, proxy_name) == 52);
static_assert(offsetof(ProxyRecord, section1_delay) == 116);
static_assert(offsetof(ProxyRecord, section1_lost) == 120);
static_assert(offsetof(ProxyRecord, to_proxy_speed_isp) == 124);
static_assert(offsetof(ProxyRecord, to_proxy_speed_ip) == 128);
static_assert(offsetof(ProxyRecord, surport_isps) == 132);
static_assert(offsetof(ProxyRecord, version) == 136);

static_assert(sizeof(RouteTableImage) == 65668);
static_assert(offsetof(RouteTableImage, route_sets) == 0);
static_assert(offsetof(RouteTableImage, header0) == 44648);
static_assert(offsetof(RouteTableImage, header1) == 44652);
static_assert(offsetof(RouteTableImage, header2) == 44656);
static_assert(offsetof(RouteTableImage, header3) == 44660);
static_assert(offsetof(RouteTableImage, proxy_count) == 44664);
static_assert(offsetof(RouteTableImage, proxies) == 44668);
static_assert(offsetof(RouteTableImage, route_sets[1]) == 22324);

static_assert(sizeof(RouteRegion) == 65680);
static_assert(offsetof(RouteRegion, header) == 0);
static_assert(offsetof(RouteRegion, image) == 12);

}  // namespace moru_vyr::lsp
