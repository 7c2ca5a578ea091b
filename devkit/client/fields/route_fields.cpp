#include "abi/route_table_formats.h"
#include "client/fields/decision_names.h"
#include "client/fields/field_rows.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

using Node = ProxyRecord;
constexpr Field kNodeFields[] = {
    {.key = "proxy_name",
     .kind = Kind::kText,
     AT(Node, proxy_name),
     .doc = "name of the node, by which the rest of this file and the reports know it"},
    {.key = "proxy_addr",
     .kind = Kind::kAddress,
     AT(Node, proxy_addr),
     .doc = "address of the node",
     .required = true},
    {.key = "proxy_port", AT(Node, proxy_port), .doc = "its port", .required = true, .min = 1},
    {.key = "proxy_idc",
     AT(Node, proxy_idc),
     .doc = "identity of the node",
     .required = true,
     .min = 1},
    {.key = "proxy_isp", AT(Node, proxy_isp), .doc = "its internet provider, carried into reports"},
    {.key = "section1_delay",
     AT(Node, section1_delay),
     .doc = "delay from the player to the node, milliseconds"},
    {.key = "section1_lost",
     AT(Node, section1_lost),
     .doc = "loss on that section, percent",
     .max = kPercent},
    {.key = "surport_isps",
     AT(Node, surport_isps),
     .doc = "bit mask of the internet providers that the node serves"},
    {.key = "type",
     AT(Node, type),
     .doc = "its link type, by which link_switch_mask opens measuring; carried into reports"},
    {.key = "flag",
     AT(Node, flag),
     .doc =
         "bits: 2, links through the node may be measured; 4, flows may move away from it. 6 for "
         "a node that takes part in switching"},
    {.key = "to_proxy_speed_isp", AT(Node, to_proxy_speed_isp), .doc = "carried into reports"},
    {.key = "to_proxy_speed_ip", AT(Node, to_proxy_speed_ip), .doc = "carried into reports"},
    {.key = "version", AT(Node, version), .doc = "carried into reports"},
};

constexpr Field kRefFields[] = {
    {.key = "node",
     .kind = Kind::kNode,
     AT(ProxyRef, proxy_idc),
     .doc = "the node, by name or by proxy_idc; 0 leaves the place empty",
     .required = true},
    {.key = "decision",
     .kind = Kind::kNames,
     AT(ProxyRef, decision),
     .doc = "the verdict on this way: one of the DECISION_ names, or its number; DECISION_ACCE "
            "when the key is missing",
     .names = kDecisionNames},
    {.key = "section2_delay",
     AT(ProxyRef, section2_delay),
     .doc = "delay from the node to the game server, milliseconds"},
    {.key = "section2_lost",
     AT(ProxyRef, section2_lost),
     .doc = "loss on that section, percent",
     .max = kPercent},
    {.key = "last_node",
     .kind = Kind::kLastNode,
     AT(ProxyRef, last_node),
     .doc = "the last node on the way to the game server; a flow changes only to a way with the "
            "same one"},
};
constexpr Shape kRefShape = {"ProxyRef", sizeof(ProxyRef), kRefFields, true};

constexpr Field kSwitchGroupFields[] = {
    {.key = "last_node",
     .kind = Kind::kLastNode,
     AT(SwitchGroup, last_node),
     .doc = "the last node of the ways that this group serves",
     .required = true,
     .min = 1},
    {.key = "candidates",
     .kind = Kind::kRecord,
     LIST(SwitchGroup, candidates),
     .doc = "one or two nodes to change to; of two that will do, the later is taken",
     .required = true,
     .shape = &kRefShape},
};
constexpr Shape kSwitchGroupShape = {"SwitchGroup", sizeof(SwitchGroup), kSwitchGroupFields, true};

constexpr const char* kOnePerLastNode[] = {"last_node"};
using Route = RouteEntry;
constexpr Field kRouteFields[] = {
    {.key = "game_idc",
     .kind = Kind::kIdc,
     AT(Route, game_idc),
     .doc = "the data centre that this route leads to, by name or by number",
     .required = true,
     .min = 1},
    {.key = "entry_name",
     .kind = Kind::kText,
     AT(Route, entry_name),
     .doc = "name of the route, carried into reports"},
    {.key = "direct_delay",
     AT(Route, direct_delay),
     .doc = "delay without any node, milliseconds; carried into reports"},
    {.key = "direct_lost",
     AT(Route, direct_lost),
     .doc = "loss without any node, percent; carried into reports",
     .max = kPercent},
    {.key = "ref_default",
     .kind = Kind::kRecord,
     AT(Route, ref_default),
     .doc = "the way that is taken, and the verdict on it",
     .required = true,
     .shape = &kRefShape},
    {.key = "ref_both_modes",
     .kind = Kind::kRecord,
     AT(Route, ref_both_modes),
     .doc = "takes the place of ref_default for games whose net_mode has REF_BOTH_MODES",
     .shape = &kRefShape},
    {.key = "top_refs",
     .kind = Kind::kRecord,
     LIST(Route, top_refs),
     .doc = "the best three ways; a launch test's node is used only if it is one of them",
     .shape = &kRefShape},
    {.key = "switch_groups",
     .kind = Kind::kRecord,
     LIST(Route, switch_groups),
     .doc = "where a flow may move when its link degrades",
     .shape = &kSwitchGroupShape,
     .unique = kOnePerLastNode},
    {.key = "entry_word0", AT(Route, entry_word0), .doc = "carried into reports"},
    {.key = "entry_word1", AT(Route, entry_word1), .doc = "carried into reports"},
    {.key = "entry_word3", AT(Route, entry_word3), .doc = "carried into reports"},
    {.key = "entry_word4", AT(Route, entry_word4), .doc = "carried into reports"},
    {.key = "entry_word21", AT(Route, entry_word21), .doc = "carried into reports"},
};

}  // namespace

constexpr Shape kNodeShape = {"ProxyRecord", sizeof(Node), kNodeFields};
constexpr Shape kRouteShape = {"RouteEntry", sizeof(Route), kRouteFields};

}  // namespace client
