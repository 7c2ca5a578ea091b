// The nodes that a game's datagram flows may begin with and move to, according to the tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/fields/tables.h"

namespace client {

// A node in one or more roles, with the properties that moving a flow depends on.
struct NodeUse {
  std::string key;   // "node[2]", "game[0].forced_proxy"
  std::string name;  // for people
  uint32_t proxy_idc = 0;
  uint32_t type = 0;
  uint32_t flag = 0;
  uint32_t surport_isps = 0;
  uint32_t section1_delay = 0;  // milliseconds
  bool carries = false;         // flows may begin with it
  bool is_candidate = false;    // flows may move to it
  bool may_refuse = false;      // in one role at least acceleration is not forced
};

// One route whose verdict is to accelerate.
struct RouteUse {
  std::string key;  // "route[3]"
  uint32_t last_node = 0;
  bool has_groups = false;
  bool has_group_of_last_node = false;
  bool leads_elsewhere = false;  // one of its groups has another node than the one it begins with
};

struct SwitchWays {
  std::vector<NodeUse> nodes;
  std::vector<RouteUse> routes;
  bool has_manual_candidates = false;
};

// `index` is the game's place among the games. Empty if nothing is accelerated.
SwitchWays WaysOf(const Tables& tables, uint32_t index);

}  // namespace client
