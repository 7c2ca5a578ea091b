#include "gametest/test_mode.h"

#include <exception>
#include <memory>

#include "abi/ip_table_formats.h"
#include "abi/route_table_formats.h"
#include "common/process_info.h"
#include "common/text.h"
#include "gametest/lsp_game_tester.h"
#include "route/acc_config.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

// The one data centre and the one node of these tables.
constexpr u32 kGameIdc = 1;
constexpr u32 kProxyIdc = 1;
constexpr u32 kReachableMs = 1;

// Every port leads to the data centre, and the node reaches it. The log goes to the program's
// folder, where the developer has put the file as well.
void CompleteConfig() noexcept {
  AccConfig config = *GetAccConfig();
  common::SetFieldText(config.log_path, common::FieldText(common::GetProcessInfo().process_path));
  config.forced_proxy.proxy_idc = kProxyIdc;
  config.port_idc_count = 1;
  config.port_idc_records[0] = {0, kGameIdc};
  config.reachability.proxy_idc = kProxyIdc;
  config.reachability.reach_count = 1;
  config.reachability.records[0].game_idc = kGameIdc;
  config.reachability.records[0].delay = kReachableMs;
  ReplaceAccConfig(config);
}

// An IP table must not be empty, so it holds an address that no host has.
void AddIpTable() {
  const auto region = std::make_unique<IpTableRegion>();
  region->ip_count = 1;
  region->records[0].game_idc = kGameIdc;
  GetRoute()->ip_table().LoadIpTableFromMem(*region);
}

// The node is listed so that nothing that goes to the node itself is relayed.
void AddRouteTable() {
  const RouteProxyInfo& forced = GetAccConfig()->forced_proxy;
  const auto image = std::make_unique<RouteTableImage>();
  image->proxy_count = 1;
  ProxyRecord& proxy = image->proxies[0];
  proxy.type = forced.type;
  common::SetFieldText(proxy.proxy_addr, common::FieldText(forced.proxy_addr));
  proxy.proxy_port = forced.proxy_port;
  proxy.proxy_idc = kProxyIdc;
  for (RouteSet& set : image->route_sets) {
    set.route_count = 1;
    set.routes[0].game_idc = kGameIdc;
    set.routes[0].ref_default.proxy_idc = kProxyIdc;
    set.routes[0].ref_both_modes.proxy_idc = kProxyIdc;
  }
  GetRoute()->route_table().LoadRouteFromMem(*image);
}

}  // namespace

bool ReadTestConfig() noexcept {
  try {
    LspGameTester& tester = GetLspGameTester();
    if (!tester.Init() || !tester.IsEnabled()) return ReadAccConfig();
    if (!tester.ReadAccConfig()) return false;
    CompleteConfig();
    AddIpTable();
    AddRouteTable();
    return true;
  } catch (const std::exception&) {
    return false;  // out of memory: this process is not served
  }
}

}  // namespace moru_vyr::lsp
