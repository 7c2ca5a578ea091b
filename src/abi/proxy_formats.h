// One acceleration proxy as a decision sees it, and a pair of them to switch to. Both also occur
// ready-made in regions that the client program writes. Little-endian, packed.
#pragma once
#include <cstddef>

#include "common/types.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
struct RouteProxyInfo {
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
  u32 user_isp = 0;  // filled in by the node's answer, as user_ip is
  u32 user_ip = 0;
  u32 surport_isps = 0;  // bit mask of the providers that the proxy serves
  u32 version = 0;
  u32 decision = 0;
  u32 section2_delay = 0;  // from the proxy to the game server, milliseconds
  u32 section2_lost = 0;   // percent
  u32 last_node = 0;       // identity of the last node on this path
};

struct SwitchProxyInfo {
  RouteProxyInfo proxies[2];
  u32 game_idc = 0;
  u32 last_node = 0;
};
#pragma pack(pop)

static_assert(sizeof(RouteProxyInfo) == 164);
static_assert(offsetof(RouteProxyInfo, type) == 0);
static_assert(offsetof(RouteProxyInfo, flag) == 4);
static_assert(offsetof(RouteProxyInfo, proxy_addr) == 8);
static_assert(offsetof(RouteProxyInfo, proxy_port) == 40);
static_assert(offsetof(RouteProxyInfo, reserved_42) == 42);
static_assert(offsetof(RouteProxyInfo, proxy_idc) == 44);
static_assert(offsetof(RouteProxyInfo, proxy_isp) == 48);
static_assert(offsetof(RouteProxyInfo, proxy_name) == 52);
static_assert(offsetof(RouteProxyInfo, section1_delay) == 116);
static_assert(offsetof(RouteProxyInfo, section1_lost) == 120);
static_assert(offsetof(RouteProxyInfo, to_proxy_speed_isp) == 124);
static_assert(offsetof(RouteProxyInfo, to_proxy_speed_ip) == 128);
static_assert(offsetof(RouteProxyInfo, user_isp) == 132);
static_assert(offsetof(RouteProxyInfo, user_ip) == 136);
static_assert(offsetof(RouteProxyInfo, surport_isps) == 140);
static_assert(offsetof(RouteProxyInfo, version) == 144);
static_assert(offsetof(RouteProxyInfo, decision) == 148);
static_assert(offsetof(RouteProxyInfo, section2_delay) == 152);
static_assert(offsetof(RouteProxyInfo, section2_lost) == 156);
static_assert(offsetof(RouteProxyInfo, last_node) == 160);

static_assert(sizeof(SwitchProxyInfo) == 336);
static_assert(offsetof(SwitchProxyInfo, proxies) == 0);
static_assert(offsetof(SwitchProxyInfo, game_idc) == 328);
static_assert(offsetof(SwitchProxyInfo, last_node) == 332);

}  // namespace moru_vyr::lsp
