// The relay's sessions in the simulation, turned by hand: two nodes and a game server on one host,
// played by the target, and the tables that lead to them. Time passes only in Turn and Sleep, so a
// finding repeats exactly.
//
// There is one simulated world for the whole run (world.cpp). What the product keeps for the
// process (statistics, resting nodes, the configuration) starts anew with each HandRelay.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <map>
#include <memory>
#include <new>
#include <string>

#include "abi/ip_table_formats.h"
#include "abi/route_formats.h"
#include "check.h"
#include "common/text.h"
#include "port/sim/sim.h"
#include "port/sim/sockets.h"
#include "relay/node_choice.h"
#include "relay/relay_interfaces.h"
#include "relay/socket_sets.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "route/mending.h"
#include "route/route.h"
#include "tracker/tracker.h"

namespace fuzz {

using common::u16;
using common::u32;
using common::u8;
using namespace moru_vyr::lsp;  // NOLINT: nearly every name here is the product's

inline constexpr char kServer[] = "192.0.2.1";        // the simulated host itself
inline constexpr char kUnlisted[] = "198.51.100.77";  // not in the tables; absent
inline constexpr u16 kServerPort = 27015;
inline constexpr u16 kNodePorts[] = {7001, 7002};
inline constexpr u32 kServedIsps = 0x0F;
inline constexpr u16 kLastNode = 61;

inline sockaddr_in At(const char* ip, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = static_cast<u32>(inet_addr(ip));
  address.sin_port = htons(static_cast<u16>(port));
  return address;
}
inline sockaddr* Raw(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }
inline const sockaddr* Raw(const sockaddr_in* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

// A socket of the target's, which never blocks.
inline SOCKET OpenSocket(int type, const char* ip, int port) {
  const SOCKET s = socket(AF_INET, type, 0);
  Require(s != INVALID_SOCKET, "a socket");
  const sockaddr_in address = At(ip, port);
  Require(bind(s, Raw(&address), sizeof address) == 0, "its address");
  u_long on = 1;
  ioctlsocket(s, static_cast<long>(FIONBIO), &on);
  return s;
}

inline sockaddr_in NameOf(SOCKET s) {
  sockaddr_in name = {};
  int size = sizeof name;
  getsockname(s, Raw(&name), &size);
  return name;
}

// Bytes of which no two places are alike for long.
inline std::string Pattern(std::size_t from, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    const std::size_t at = from + i;
    bytes[i] = static_cast<char>(at * 7 + (at >> 8) * 13 + (at >> 16));
  }
  return bytes;
}

// The relay's loop, a pass at a time.
class Loop final : public IRelaySocketMgr {
 public:
  u32 AddSocket(SOCKET s, IRelaySocketDelegate* delegate) noexcept override {
    delegates.try_emplace(s, delegate);
    return sets_.Add(s, delegate);
  }
  u32 EnableWrite(SOCKET s) noexcept override { return sets_.EnableWrite(s, true); }
  void StopReading(SOCKET s) noexcept override { sets_.StopReading(s); }
  void ResumeReading(SOCKET s) noexcept override { sets_.ResumeReading(s); }
  bool HasRoom(u32 sockets) const noexcept override { return sets_.FreePlaces() >= sockets + 8; }
  IRelaySocketDelegate* RemoveSocket(SOCKET s) noexcept override {
    delegates.erase(s);
    return sets_.Remove(s);
  }
  u32 NextToken() noexcept override { return ++token_; }

  // Takes 10 ms at most, and none if something is to be done.
  void Turn() {
    int error = 0;
    sets_.Poll(timeval{0, 10000}, &error);
  }

  std::map<SOCKET, IRelaySocketDelegate*> delegates;

 private:
  SocketSets sets_;
  u32 token_ = 0;
};

class HandRelay {
 public:
  // `mended` are bits of MendingRecord; `log_level` 6 is silent.
  HandRelay(u32 mended, u32 log_level, bool forced) {
    GetTracker().~Tracker();
    new (&GetTracker()) Tracker;
    AccConfig config;
    config.valid = 1;
    config.acc_mode = 1;
    config.game_id = 7;
    config.net_mode = 0x18;
    config.log_level = log_level;
    config.link_switch_mask = 3;
    common::SetFieldText(config.list_text, "7");
    config.switch_open = config.game_link_switch_open = 1;
    config.max_link_except_rep_num = config.max_link_switch_count = 100;
    config.max_high_freq_test_count = 100;
    config.switching_max_real_route_lost = 60;
    config.max_delay_avg = config.max_delay_amp = 10000;
    ReplaceAccConfig(config);
    ReplaceMending(Mending({.mended = mended}));
    ForgetRestingNodes();
    LoadTables(forced);
  }
  ~HandRelay() {
    ReplaceMending(Mending());
    ReplaceAccConfig(AccConfig{});
  }
  HandRelay(const HandRelay&) = delete;
  HandRelay& operator=(const HandRelay&) = delete;

  std::size_t OpenSockets() const { return world.sockets().size(); }

  sim::World& world = sim::TheWorld();
  Route route;
  Loop loop;

 private:
  void LoadTables(bool forced) {
    auto image = std::make_unique<RouteTableImage>();
    image->proxy_count = 2;
    for (u32 i = 0; i < 2; ++i) {
      ProxyRecord& proxy = image->proxies[i];
      proxy.proxy_idc = i + 1;
      common::SetFieldText(proxy.proxy_addr, "127.0.0.1");
      proxy.proxy_port = kNodePorts[i];
      proxy.surport_isps = kServedIsps;
      proxy.flag = 6;  // may be measured, and may switch
    }
    RouteSet& set = image->route_sets[0];
    set.route_count = 1;
    RouteEntry& entry = set.routes[0];
    entry.game_idc = 11;
    entry.ref_default = Ref(1, forced ? DECISION_FORCE_ACCE_AUTO : DECISION_ACCE);
    entry.top_refs[0] = Ref(1, DECISION_ACCE);
    entry.top_refs[1] = Ref(2, DECISION_ACCE);
    entry.switch_groups[0].last_node = kLastNode;
    entry.switch_groups[0].candidates[0] = Ref(1, DECISION_ACCE);
    entry.switch_groups[0].candidates[1] = Ref(2, DECISION_ACCE);
    route.route_table().LoadRouteFromMem(*image);
    auto ips = std::make_unique<IpTableRegion>();
    ips->ip_count = 1;
    ips->records[0] = {11, static_cast<u32>(inet_addr(kServer))};
    route.ip_table().LoadIpTableFromMem(*ips);
  }
  static ProxyRef Ref(u32 idc, u32 decision) {
    ProxyRef ref;
    ref.proxy_idc = idc;
    ref.decision = decision;
    ref.last_node = kLastNode;
    return ref;
  }
  static void ForgetRestingNodes() {
    for (const u16 port : kNodePorts) {
      AccDecisionInfo decision;
      common::SetFieldText(decision.selected_proxy.proxy_addr, "127.0.0.1");
      decision.selected_proxy.proxy_port = port;
      NoteNodeServes(SOCK_STREAM, decision);
      NoteNodeServes(SOCK_DGRAM, decision);
    }
  }
};

}  // namespace fuzz
