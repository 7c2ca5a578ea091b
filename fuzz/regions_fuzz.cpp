// Every region of shared memory as another program may leave it, read by the library: the tables,
// and the slots into which it reports. The regions hold a small sample; the input changes bytes of
// any of them, and in half of the runs a second thread goes on changing the same bytes while they
// are read. Then a finding may need several runs to repeat.
#include "region_views.h"
//
#include <iterator>
#include <memory>

#include "abi/blacklist_formats.h"
#include "abi/ip_table_formats.h"
#include "abi/launch_test_formats.h"
#include "abi/mending_formats.h"
#include "abi/report_records.h"
#include "abi/restriction_formats.h"
#include "abi/route_formats.h"
#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/mending.h"
#include "route/route.h"
#include "tracker/reports.h"

namespace {

using namespace moru_vyr::lsp;
using common::u16;
using common::u32;
using common::u8;
using fuzz::Require;

constexpr char kGame[] = "C:\\game\\game.exe";
constexpr u32 kIp = 0x0A6433C6;  // 198.51.100.10 in network order
constexpr u32 kSpurIp = 0x0B6433C6;

struct Kind {
  const ReportChannel& channel;
  void (*report)();
};
const Kind kKinds[] = {
    {kLoadedChannel, [] { ReportLspLoadedInfo({}); }},
    {kLogPathChannel, [] { ReportLogPath({}); }},
    {kNegotiationResultChannel, [] { ReportNegRetValue({}); }},
    {kDecisionChannel, [] { ReportAcceDecisionInfo({}); }},
    {kRealNegotiationChannel, [] { ReportRealNego({}); }},
    {kRecoverySwitchChannel, [] { ReportRecoverySwitch({}); }},
    {kCommunicationChannel, [] { ReportCommunicationStatistic({}); }},
};

template <class Record>
std::unique_ptr<Record> WithHeader() {
  auto record = std::make_unique<Record>();
  record->header = {sizeof(Record), 1, 36};
  return record;
}

void AddGames(fuzz::RegionViews* all) {
  auto mending = WithHeader<MendingRegion>();
  all->Add(kMendingRegionName, *mending);
  auto games = WithHeader<RestrictionRegion>();
  AccConfigRecord& game = games->games[0];
  game.valid = 1;
  game.path_count = 1;
  game.net_mode = 0x18;
  game.acc_mode = 1;
  game.game_launch_test_use = 1;
  common::SetFieldText(game.game_paths[0], kGame);
  all->Add(kRestrictionRegionName, *games);
}

void AddRoutes(fuzz::RegionViews* all) {
  auto route = WithHeader<RouteRegion>();
  RouteTableImage& image = route->image;
  image.proxy_count = 2;
  for (u32 i = 0; i < 2; ++i) {
    image.proxies[i].proxy_idc = i + 1;
    common::SetFieldText(image.proxies[i].proxy_addr, "198.51.100.20");
  }
  image.route_sets[0].route_count = 1;
  RouteEntry& entry = image.route_sets[0].routes[0];
  entry.game_idc = 11;
  entry.ref_default.proxy_idc = entry.top_refs[0].proxy_idc = 1;
  entry.top_refs[1].proxy_idc = 2;
  entry.switch_groups[0].last_node = 61;
  entry.switch_groups[0].candidates[0].proxy_idc = 2;
  const auto* const bytes = reinterpret_cast<const u8*>(route.get());
  std::vector<u8> both(4);  // the selector
  for (int i = 0; i < 2; ++i) both.insert(both.end(), bytes, bytes + sizeof *route);
  all->Add(kRouteRegionName, std::move(both));
}

void AddLists(fuzz::RegionViews* all) {
  auto ips = WithHeader<IpTableRegion>();
  ips->ip_count = 1;
  ips->records[0] = {11, kIp};
  all->Add(kIpTableRegionName, *ips);
  auto blacklist = WithHeader<BlacklistRegion>();
  blacklist->blacklist_count = 1;
  all->Add(kBlacklistRegionName, *blacklist);
  auto spur = WithHeader<SpurRegion>();
  spur->spur_count = 1;
  spur->records[0].game_idc = 11;
  spur->records[0].ip = kSpurIp;
  all->Add(kSpurRegionName, *spur);
  auto launch = WithHeader<LaunchTestRegion>();
  launch->valid_count = 1;
  launch->records[0].game_idc = 11;
  launch->records[0].proxy.proxy_idc = 2;
  all->Add(kLaunchTestRegionName, *launch);
}

fuzz::RegionViews& Regions() {
  static auto& regions = *[] {
    auto* const all = new fuzz::RegionViews;
    AddGames(all);
    AddRoutes(all);
    AddLists(all);
    for (const Kind& kind : kKinds) all->Add(kind.channel);
    return all;
  }();
  return regions;
}

template <std::size_t N>
void RequireText(const char (&field)[N]) {
  Require(std::memchr(field, 0, N) != nullptr, "a text has its end");
}

void CheckProxy(const RouteProxyInfo& proxy) {
  RequireText(proxy.proxy_addr);
  RequireText(proxy.proxy_name);
}

void CheckConfig(const AccConfig& config) {
  Require(config.path_count <= std::size(config.game_paths));
  Require(config.excluded_port_count <= std::size(config.excluded_ports));
  Require(config.port_idc_count <= std::size(config.port_idc_records));
  RequireText(config.uin);
  RequireText(config.log_path);
  RequireText(config.list_text);
  RequireText(config.route_binary_file_path);
  CheckProxy(config.forced_proxy);
}

void AskOnce(Route* route, u32 ip, int type, bool is_still) {
  constexpr u16 kPort = 0x8769;  // 27015 in network order
  AccDecisionInfo info;
  SwitchProxyInfo cache;
  route->NeedRelay(ip, kPort, type, 1, 1);
  const bool taken = route->MakeDecision(ip, kPort, type, "guid", &info, &cache, 1, 1);
  CheckProxy(info.selected_proxy);
  for (const RouteProxyInfo& proxy : info.top_proxy) CheckProxy(proxy);
  CheckProxy(info.glt_route_info.proxy);
  if (is_still) {
    AccDecisionInfo again;
    SwitchProxyInfo cache_again;
    const bool taken_again =
        route->MakeDecision(ip, kPort, type, "guid", &again, &cache_again, 1, 1);
    Require(taken == taken_again && std::memcmp(&info, &again, sizeof info) == 0,
            "equal questions have equal answers");
  }
  const u16 last_node = static_cast<u16>(cache.last_node);
  route->MakeSwitchDecision(&info, &cache, &last_node, 1);
  CheckProxy(info.selected_proxy);
}

void AskRoute(bool is_still) {
  const auto route = std::make_unique<Route>();
  route->Load(1, 0);
  Require(route->ip_table().size() <= kMaxIpRecords, "counts are cut");
  Require(route->blacklist().size() <= kMaxBlacklistRecords, "counts are cut");
  for (const u32 ip : {kIp, kSpurIp, u32{0}}) {
    AskOnce(route.get(), ip, SOCK_STREAM, is_still);
    AskOnce(route.get(), ip, SOCK_DGRAM, is_still);
    route->GetServerLag(ip);
  }
}

// A report changes the first free slot and nothing else, and nothing in a region of another
// version.
void CheckReport(const Kind& kind, bool is_still) {
  const ReportChannel& channel = kind.channel;
  const u8* const view = Regions().Of(channel.mapping_name);
  const std::vector<u8> before(view, view + channel.region_size);
  kind.report();
  if (!is_still) return;
  std::size_t begin = 0, end = 0;  // of the slot that may change
  for (u32 slot = 0; fuzz::HasHeader(before.data(), channel) && slot < channel.slot_count; ++slot) {
    const std::size_t at = kReportHeaderSize + std::size_t{slot} * channel.slot_size;
    if (before[at] != 0) continue;
    begin = at;
    end = at + channel.slot_size;
    Require(view[at] == 1, "the first free slot is taken");
    break;
  }
  Require(std::equal(view, view + begin, before.begin()), "nothing before it changes");
  Require(std::equal(view + end, view + before.size(), before.begin() + static_cast<long>(end)),
          "nothing behind it changes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Regions().Reset();
  ReplaceAccConfig(AccConfig{});
  common::SetFieldText(common::GetProcessInfo().process_path, kGame);
  fuzz::Input input(data, size);
  const u8 mode = input.Byte();
  const bool is_still = mode % 2 == 0;
  const std::vector<fuzz::Patch> patches = Regions().TakePatches(&input);
  {
    const fuzz::Writer writer(patches, is_still);
    ReadAccConfig();
    CheckConfig(*GetAccConfig());
    AskRoute(is_still);
    ReplaceAccConfig(AccConfig{});  // reports of any game, with lines of any level
    CheckReport(kKinds[mode / 4 % std::size(kKinds)], is_still);
  }
  ReplaceMending(Mending());
  return 0;
}
