// The route policy: which destinations the relay takes, through which proxy, and where a flow may
// move when its link degrades. It does not judge whether acceleration pays off: the client program
// has done that, and left its verdict in the tables.
//
// NeedRelay and GetServerLag are called by application threads, the other decisions and OnUpdate by
// the relay worker, Load while the provider starts, before there is a worker. Addresses and ports
// are in network byte order throughout, socket types as in the socket calls. Nothing here throws or
// fails: a refusal is false, a log line and, in a decision, a reason.
#pragma once
#include <winsock2.h>

#include <atomic>
#include <string>

#include "abi/acc_decision_info.h"
#include "abi/proxy_formats.h"
#include "common/types.h"
#include "route/blacklist.h"
#include "route/ip_table.h"
#include "route/launch_test.h"
#include "route/port_map.h"
#include "route/route_table.h"
#include "route/spur_list.h"

namespace moru_vyr::lsp {

// The verdict on a destination, in the order of the checks.
enum class RelayVerdict {
  kInnerIp,
  kNoIpTable,
  kExcludedPort,
  kNotInIpTable,
  kBlacklisted,
  kWillRelay,
};

class Route {
 public:
  // --- loading (route_load.cpp) ---

  // Loads the tables. If the configuration says wait_route, it tries again, with a pause after each
  // attempt, until the IP table is there; otherwise it tries once. True if the IP table is there:
  // the others may be missing.
  bool Load(u32 try_times, u32 interval_ms) noexcept;

  // Loads the tables that the client program held while Load tried, once they are free; see
  // client_wait.h. Never waits, and looks at most four times a second. NeedRelay calls it.
  void LoadWhatWasHeld() noexcept;

  // Checks every 30 seconds, by the elapsed time that it is given, whether the client program has
  // signalled a new spur list, and loads it.
  void OnUpdate(u32 elapsed_ms) noexcept;

  // --- destinations (route_relay.cpp) ---

  // The data centre of an address: by the IP table, the spur list, the record for every port, the
  // port. With ignore_port any port will do. Kept: port 0 ends the search after the two lists, so a
  // caller that does not know the port never gets as far as that.
  bool GetGameIDC(u32 ip, u16 port, u32* idc, bool ignore_port) noexcept;

  // The checks of NeedRelay. Fills *idc once the destination is known.
  RelayVerdict ExamineRelay(u32 ip, u16 port, i32 socket_type, u32* idc) noexcept;

  // Whether the relay should take this destination at all. Cheap; never reads the route table.
  bool NeedRelay(u32 ip, u16 port, i32 socket_type, SOCKET s, u32 token) noexcept;
  bool NeedRelay(const sockaddr_in* address, i32 socket_type, SOCKET s, u32 token) noexcept;

  // --- decisions (route_decision.cpp) ---

  // Whether this socket goes through a node, and through which: *info has all details, with either
  // answer. Kept: of what *info held, only glt_route_info and the selected proxy's address are
  // cleared first. switch_cache is null for TCP.
  bool MakeDecision(u32 ip, u16 port, i32 socket_type, const std::string& guid,
                    AccDecisionInfo* info, SwitchProxyInfo* switch_cache, SOCKET s,
                    u32 token) noexcept;

  // The delay in milliseconds with which a ping of that address is answered: 50 if the target is
  // unknown, 0 if it is not accelerated, 20 if the route stores none.
  u32 GetServerLag(u32 ip) noexcept;

  // --- proxies (route_proxy.cpp) ---

  // The proxy for a data centre. info and switch_cache may be null.
  bool GetProxyInfoFromIdc(u32 game_idc, RouteProxyInfo* out, AccDecisionInfo* info,
                           SwitchProxyInfo* switch_cache) noexcept;
  void RefineProxyInfo(const RouteEntry* entry, RouteProxyInfo* out) noexcept;
  void RefineByGltRouteInfo(const RouteEntry* entry, RouteProxyInfo* out) noexcept;
  void FillAccDecisionInfo(const RouteEntry* entry, const RouteProxyInfo* proxy,
                           const RouteHeader& header, AccDecisionInfo* info) noexcept;

  // --- switching (route_switch.cpp) ---

  // Finds another proxy that leads to the same last node, and makes it the selected one of *info.
  // The last node has 16 bits: numbers above 65535 cannot be asked for. `cache` is the session's
  // record of candidates; a search that finds a proxy in the route table refreshes it.
  bool MakeSwitchDecision(AccDecisionInfo* info, SwitchProxyInfo* cache, const u16* last_node,
                          u32 token) noexcept;
  bool GetSwitchProxyInfo(u32 game_idc, u32 current_proxy, u32 last_node, AccDecisionInfo* info,
                          SwitchProxyInfo* cache) noexcept;
  bool GetSwitchProxyInfoFromManualRoute(u32 game_idc, u32 current_proxy, u32 last_node,
                                         RouteProxyInfo* out) noexcept;
  bool GetSwitchProxyInfoFromIntelliRoute(u32 game_idc, u32 current_proxy, u32 last_node,
                                          RouteProxyInfo* out, SwitchProxyInfo* cache) noexcept;
  // The candidates at the start of a session. A null cache is left alone.
  void CacheSwitchProxy(const RouteEntry* entry, u32 last_node, SwitchProxyInfo* cache) noexcept;

  // --- the tables, for those who load or show them one by one ---
  RouteTable& route_table() noexcept { return route_table_; }
  IpTable& ip_table() noexcept { return ip_table_; }
  Blacklist& blacklist() noexcept { return blacklist_; }
  SpurList& spur_list() noexcept { return spur_list_; }
  PortMap& port_map() noexcept { return port_map_; }
  LaunchTest& launch_test() noexcept { return launch_test_; }

 private:
  bool LoadAll() noexcept;
  bool LoadHeld(u32 table) noexcept;
  void CreateNotifyEvent() noexcept;
  bool AdmitDestination(u32 ip, u16 port, i32 socket_type, AccDecisionInfo* info,
                        u32 token) noexcept;
  void CopyCandidates(const SwitchGroup& group, u32 game_idc, SwitchProxyInfo* cache) noexcept;

  RouteTable route_table_;
  IpTable ip_table_;
  Blacklist blacklist_;
  SpurList spur_list_;
  bool spur_is_due_ = false;  // the worker's: it has changed and could not be read yet
  PortMap port_map_;
  LaunchTest launch_test_;

  std::atomic<u32> held_{0};             // the tables that were held: bits
  std::atomic<bool> loads_held_{false};  // by one thread at a time
  u32 looked_ms_ = 0;                    // that thread's: when it last looked

  // Used by the worker only.
  u32 elapsed_ms_ = 0;
  int notify_event_tries_ = 0;
  HANDLE notify_event_ = nullptr;  // never closed: it ends with the process
};

// The one for this process: built at first use (which may throw std::bad_alloc), alive until the
// process ends.
Route* GetRoute();

}  // namespace moru_vyr::lsp
