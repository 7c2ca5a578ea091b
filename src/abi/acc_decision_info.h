// The complete outcome of one decision. The session keeps one, and a copy of it is reported to the
// client program, so it is a format: little-endian, packed.
#pragma once
#include <cstddef>

#include "abi/launch_test_formats.h"
#include "abi/proxy_formats.h"
#include "abi/route_table_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
struct AccDecisionInfo {
  u8 used = 0;         // 1 once filled
  char guid[65] = {};  // the socket's identifying text
  u8 reserved_66[2] = {};
  i32 acc_reason = 0;  // see decision.h
  u64 game_id = 0;
  u64 zone_id = 0;
  u32 net_mode = 0;
  u32 process_id = 0;
  u64 socket = 0;       // widened with zero
  i32 socket_type = 0;  // 0 stream, 1 datagram, -1 other
  u32 game_ip = 0;      // host byte order
  u32 game_port = 0;    // host byte order
  u32 game_idc = 0;
  u32 entry_word3 = 0;
  u32 entry_word4 = 0;
  char entry_name[64] = {};
  u32 entry_word21 = 0;
  u32 direct_delay = 0;  // milliseconds
  u32 direct_lost = 0;   // percent
  u32 header0 = 0;
  u32 header1 = 0;
  u32 header2 = 0;
  u32 entry_word0 = 0;
  u32 entry_word1 = 0;
  u32 header3 = 0;
  RouteProxyInfo top_proxy[kTopRefs];
  RouteProxyInfo selected_proxy;  // the one that the session uses
  u8 game_launch_test_use = 0;
  u8 reserved_885[3] = {};
  GltRouteInfo glt_route_info;  // zero where none matched
  u32 glt_word = 0;
};
#pragma pack(pop)

static_assert(sizeof(AccDecisionInfo) == 1128);
static_assert(offsetof(AccDecisionInfo, used) == 0);
static_assert(offsetof(AccDecisionInfo, guid) == 1);
static_assert(offsetof(AccDecisionInfo, reserved_66) == 66);
static_assert(offsetof(AccDecisionInfo, acc_reason) == 68);
static_assert(offsetof(AccDecisionInfo, game_id) == 72);
static_assert(offsetof(AccDecisionInfo, zone_id) == 80);
static_assert(offsetof(AccDecisionInfo, net_mode) == 88);
static_assert(offsetof(AccDecisionInfo, process_id) == 92);
static_assert(offsetof(AccDecisionInfo, socket) == 96);
static_assert(offsetof(AccDecisionInfo, socket_type) == 104);
static_assert(offsetof(AccDecisionInfo, game_ip) == 108);
static_assert(offsetof(AccDecisionInfo, game_port) == 112);
static_assert(offsetof(AccDecisionInfo, game_idc) == 116);
static_assert(offsetof(AccDecisionInfo, entry_word3) == 120);
static_assert(offsetof(AccDecisionInfo, entry_word4) == 124);
static_assert(offsetof(AccDecisionInfo, entry_name) == 128);
static_assert(offsetof(AccDecisionInfo, entry_word21) == 192);
static_assert(offsetof(AccDecisionInfo, direct_delay) == 196);
static_assert(offsetof(AccDecisionInfo, direct_lost) == 200);
static_assert(offsetof(AccDecisionInfo, header0) == 204);
static_assert(offsetof(AccDecisionInfo, header1) == 208);
static_assert(offsetof(AccDecisionInfo, header2) == 212);
static_assert(offsetof(AccDecisionInfo, entry_word0) == 216);
static_assert(offsetof(AccDecisionInfo, entry_word1) == 220);
static_assert(offsetof(AccDecisionInfo, header3) == 224);
static_assert(offsetof(AccDecisionInfo, top_proxy) == 228);
static_assert(offsetof(AccDecisionInfo, selected_proxy) == 720);
static_assert(offsetof(AccDecisionInfo, game_launch_test_use) == 884);
static_assert(offsetof(AccDecisionInfo, reserved_885) == 885);
static_assert(offsetof(AccDecisionInfo, glt_route_info) == 888);
static_assert(offsetof(AccDecisionInfo, glt_word) == 1124);

}  // namespace moru_vyr::lsp
