#include "client/check/switch_ways.h"

#include <algorithm>
#include <span>

#include "common/text.h"
#include "route/acc_mode.h"
#include "route/decision.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

std::string Indexed(const std::string& list, size_t index) {
  return list + "[" + std::to_string(index) + "]";
}

template <typename Node>  // a ProxyRecord or a RouteProxyInfo
NodeUse UseOf(const Node& node, const std::string& key) {
  const std::string name(common::FieldText(node.proxy_name));
  return {.key = key,
          .name = name.empty() ? "node " + std::to_string(node.proxy_idc) : "'" + name + "'",
          .proxy_idc = node.proxy_idc,
          .type = node.type,
          .flag = node.flag,
          .surport_isps = node.surport_isps,
          .section1_delay = node.section1_delay};
}

class Collector {
 public:
  Collector(const Tables& tables, uint32_t index)
      : image_(tables.route.image),
        game_(tables.restriction.games[index]),
        game_key_(Indexed("game", index)) {}

  SwitchWays Run() {
    if (game_.acc_mode == kAccModeNone) return {};
    const uint32_t set_index = RouteSetIndex(game_);
    const RouteSet& set = image_.route_sets[set_index];
    for (uint32_t i = 0; i < std::min(set.route_count, kMaxRoutes); ++i) {
      Route(set.routes[i], Indexed(set_index == 0 ? "route" : "route_mode2", i));
    }
    if (IsManualMode(game_)) ManualNodes();
    return std::move(ways_);
  }

 private:
  void Route(const RouteEntry& entry, const std::string& key) {
    const bool both = (game_.net_mode & kNetModeBothModes) == kNetModeBothModes;
    const ProxyRef& ref = both ? entry.ref_both_modes : entry.ref_default;
    if (ref.proxy_idc == 0 || !Accelerates(ref.decision)) return;
    const bool forced = ref.decision != DECISION_ACCE;
    if (NodeUse* const node = FindNode(ref.proxy_idc)) {
      node->carries = true;
      node->may_refuse |= !forced;
    }
    RouteUse route = {.key = key, .last_node = ref.last_node};
    for (const SwitchGroup& group : entry.switch_groups) {
      if (group.last_node == 0) continue;
      route.has_groups = true;
      route.has_group_of_last_node |= group.last_node == ref.last_node;
      for (const ProxyRef& candidate : group.candidates) {
        if (candidate.proxy_idc == 0) continue;
        route.leads_elsewhere |= candidate.proxy_idc != ref.proxy_idc;
        NodeUse* const node = FindNode(candidate.proxy_idc);
        if (node == nullptr) continue;
        node->is_candidate = true;
        node->may_refuse |= !forced;  // if the first way is forced, those behind it are as well
      }
    }
    ways_.routes.push_back(route);
  }

  void ManualNodes() {
    if (game_.forced_proxy.proxy_idc != 0) {
      ways_.nodes.push_back(UseOf(game_.forced_proxy, game_key_ + ".forced_proxy"));
      ways_.nodes.back().carries = true;
    }
    for (uint32_t i = 0; i < kMaxManualRoutes; ++i) {
      const ManualRouteRecord& route = game_.manual_routes[i];
      for (uint32_t k = 0; k < std::size(route.proxies); ++k) {
        if (route.game_idc == 0 || route.proxies[k].proxy_idc == 0) continue;
        const std::string key = Indexed(game_key_ + ".manual_routes", i);
        ways_.nodes.push_back(UseOf(route.proxies[k], Indexed(key + ".proxies", k)));
        ways_.nodes.back().is_candidate = true;
        ways_.has_manual_candidates = true;
      }
    }
  }

  // The node's entry among those in use, made now if there is none. Null if no node has that
  // number.
  NodeUse* FindNode(uint32_t proxy_idc) {
    const auto known = std::find_if(ways_.nodes.begin(), ways_.nodes.end(),
                                    [&](const NodeUse& n) { return n.proxy_idc == proxy_idc; });
    if (known != ways_.nodes.end()) return &*known;
    for (uint32_t i = 0; i < std::min(image_.proxy_count, kMaxProxies); ++i) {
      if (image_.proxies[i].proxy_idc != proxy_idc) continue;
      return &ways_.nodes.emplace_back(UseOf(image_.proxies[i], Indexed("node", i)));
    }
    return nullptr;
  }

  const RouteTableImage& image_;
  const AccConfigRecord& game_;
  const std::string game_key_;
  SwitchWays ways_;
};

}  // namespace

SwitchWays WaysOf(const Tables& tables, uint32_t index) { return Collector(tables, index).Run(); }

}  // namespace client
