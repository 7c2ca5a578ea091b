#include "tests/model/route_world.h"

#include <winsock2.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

namespace test {

using namespace moru_vyr::lsp;

namespace {

constexpr u32 Ip(u32 a, u32 b, u32 c, u32 d) { return a | b << 8 | c << 16 | d << 24; }

constexpr u32 kIps[] = {
    0,
    Ip(198, 51, 100, 1),
    Ip(198, 51, 100, 2),
    Ip(198, 51, 100, 3),
    Ip(198, 51, 100, 4),
    Ip(198, 51, 100, 5),
    Ip(1, 100, 51, 198),  // the first with its bytes turned round
    Ip(203, 0, 113, 10),
    Ip(203, 0, 113, 100),
    Ip(203, 0, 113, 255),
    Ip(255, 255, 255, 255),
    // Beside and inside what counts as private.
    Ip(9, 255, 255, 255),
    Ip(10, 0, 0, 1),
    Ip(11, 0, 0, 1),
    Ip(1, 0, 0, 10),
    Ip(172, 15, 0, 1),
    Ip(172, 16, 0, 1),
    Ip(172, 31, 0, 1),
    Ip(172, 32, 0, 1),
    Ip(192, 167, 0, 1),
    Ip(192, 168, 0, 1),
    Ip(192, 169, 0, 1),
    Ip(100, 63, 1, 1),
    Ip(100, 64, 1, 1),
    Ip(100, 127, 1, 1),
    Ip(100, 128, 1, 1),
    Ip(100, 191, 1, 1),
    Ip(100, 192, 1, 1),
    Ip(100, 255, 1, 1),
    Ip(101, 64, 1, 1),
    Ip(126, 0, 0, 1),
    Ip(127, 0, 0, 1),
    Ip(128, 0, 0, 1),
};
constexpr u32 kPublicIps = 10;  // kIps[1..10]: a destination is one of them most of the time

constexpr u16 kPorts[] = {0, 80, 20480, 443, 7000, 7001, 8080, 65535};
constexpr u32 kConfiguredPorts[] = {0,    80,   80,   20480, 443,        443,
                                    7000, 8080, 8081, 65535, 65536 + 80, 0xFFFFFFFF};
// Three levels most of the time; the fourth digit and those above play no part in a level.
constexpr u32 kGameIdcs[] = {0, 1, 2, 3, 101, 102, 103, 201, 1001, 1101, 10101, 65537, 905};
constexpr u32 kLevels[] = {0, 0, 0, 1, 1, 1, 2, 9, 10, 101};
constexpr u32 kProxyIdcs[] = {0, 1, 2, 3, 4, 5, 6, 0x10001, 0xFFFFFFFF};
constexpr u32 kLastNodes[] = {0, 1, 2, 3, 65535, 65536, 65537};
constexpr u32 kDecisions[] = {0, 0, 0, 1, 2, 3, 4, 4, 5, 6, 7, 8, 9, 100, 0xFFFFFFFF};
constexpr u32 kDelays[] = {0, 0, 0, 1, 20, 35, 9999, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
constexpr u64 kGameIds[] = {0, 1, 2, 1 + (u64{1} << 32)};
constexpr u32 kNetModeBits[] = {0x8, 0x10, 0x20, 0x10000, 0x10000, 0x20000, 0x20000, 0x2000000};

u32 AnyDelay(Dice& dice) { return dice.Of(kDelays); }

// The count that a table claims. Small most of the time.
u32 AnyCount(Dice& dice, u32 usual, u32 bound) {
  if (!dice.OneIn(12)) return dice.Below(usual + 1);
  const u32 odd[] = {0, bound - 1, bound, bound + 1, 0xFFFFFFFF};
  return dice.Of(odd);
}

// How many records are filled: those that the count claims and a few more, so that a read past the
// count shows.
u32 Filled(u32 count, u32 bound) {
  return count + 3 < bound && count + 3 > count ? count + 3 : bound;
}

template <typename T>
void FillBytes(Dice& dice, T* field) {
  u8* const bytes = reinterpret_cast<u8*>(field);
  for (std::size_t i = 0; i < sizeof *field; ++i) bytes[i] = static_cast<u8>(dice.Below(256));
}

// A text, and behind it the previous content.
template <std::size_t N>
void FillText(Dice& dice, char (&field)[N], const std::string& text) {
  FillBytes(dice, &field);
  for (char& c : field) c = static_cast<char>('a' + (c & 15));
  if (dice.OneIn(20)) return;  // without an end
  std::memcpy(field, text.c_str(), text.size() + 1);
}

std::string Dotted(u32 ip) {
  std::string text;
  for (int i = 0; i < 4; ++i) text += (i > 0 ? "." : "") + std::to_string(ip >> 8 * i & 0xFF);
  return text;
}

std::string AnyProxyAddr(Dice& dice) {
  // Rarely a destination: for a proxy's address nothing further is checked.
  const std::string text = Dotted(dice.OneIn(8) ? AnyIp(dice) : Ip(192, 0, 2, dice.Below(256)));
  switch (dice.Below(12)) {
    case 0:
      return "";
    case 1:
      return text + "0";
    case 2:
      return text.substr(0, text.size() - 1);
    case 3:
      return " " + text;
    default:
      return text;
  }
}

common::SharedMemHeader AnyHeader(Dice& dice, u32 size) {
  common::SharedMemHeader header = {size, 1, 36};
  if (dice.OneIn(60)) header.shared_mem_size = size - 1;
  if (dice.OneIn(60)) header.major_ver = 2;
  if (dice.OneIn(60)) header.minor_ver = 35;
  return header;
}

std::unique_ptr<IpTableRegion> MakeIpTable(Dice& dice, WorldSize size) {
  auto region = std::make_unique<IpTableRegion>();
  region->header = AnyHeader(dice, sizeof *region);
  const bool full = size == WorldSize::kFull;
  const u32 full_counts[] = {1000, kMaxIpRecords - 1, kMaxIpRecords, kMaxIpRecords + 1, 0xFFFFFFFF};
  region->ip_count = full ? dice.Of(full_counts) : dice.Below(40);
  const u32 filled = Filled(region->ip_count, kMaxIpRecords);
  for (u32 i = 0; i < filled; ++i) {
    // In a full table most addresses are never asked about. Those that are may be anywhere, and
    // some are at the very end and behind it.
    const bool at_end = i + 1 >= std::min(region->ip_count, kMaxIpRecords);
    const bool stranger = full && !at_end && !dice.OneIn(2000);
    const u32 ip = stranger ? static_cast<u32>(dice.Word()) | 0xE0 : AnyIp(dice);
    region->records[i] = {AnyGameIdc(dice), ip};
  }
  region->iptable_word = static_cast<u32>(dice.Word());
  return region;
}

std::unique_ptr<BlacklistRegion> MakeBlacklist(Dice& dice) {
  auto region = std::make_unique<BlacklistRegion>();
  region->header = AnyHeader(dice, sizeof *region);
  region->blacklist_count = AnyCount(dice, 5, kMaxBlacklistRecords);
  const u32 filled = Filled(region->blacklist_count, kMaxBlacklistRecords);
  for (u32 i = 0; i < filled; ++i) {
    BlacklistRecord& record = region->records[i];
    const u32 types[] = {1, 1, 2, 2, 0, 3, 257};
    record.type = dice.Of(types);
    if (dice.OneIn(2)) record.game_id = dice.Of(kGameIds);
    if (!dice.OneIn(4)) record.ip = AnyIp(dice);
    if (dice.OneIn(2)) record.port = dice.Of(kConfiguredPorts);
    FillBytes(dice, &record.reserved_20);
  }
  return region;
}

ProxyRef AnyRef(Dice& dice) {
  return {AnyProxyIdc(dice), AnyDelay(dice), AnyDelay(dice), dice.Of(kDecisions),
          AnyLastNode(dice)};
}

RouteEntry AnyEntry(Dice& dice) {
  RouteEntry entry;
  FillBytes(dice, &entry);
  entry.game_idc = AnyGameIdc(dice);
  FillText(dice, entry.entry_name, "entry" + std::to_string(dice.Below(100)));
  for (ProxyRef& ref : entry.top_refs) ref = AnyRef(dice);
  entry.ref_both_modes = AnyRef(dice);
  entry.ref_default = AnyRef(dice);
  for (SwitchGroup& group : entry.switch_groups) {
    group.last_node = AnyLastNode(dice);
    for (ProxyRef& ref : group.candidates) ref = AnyRef(dice);
  }
  return entry;
}

ProxyRecord AnyProxyRecord(Dice& dice) {
  ProxyRecord record;
  FillBytes(dice, &record);
  FillText(dice, record.proxy_addr, AnyProxyAddr(dice));
  FillText(dice, record.proxy_name, "node" + std::to_string(dice.Below(100)));
  record.proxy_idc = AnyProxyIdc(dice);
  record.section1_delay = AnyDelay(dice);
  return record;
}

void FillImage(Dice& dice, RouteTableImage* image) {
  *image = RouteTableImage{};
  for (RouteSet& set : image->route_sets) {
    set.route_count = AnyCount(dice, 20, kMaxRoutes);
    const u32 filled = Filled(set.route_count, kMaxRoutes);
    for (u32 i = 0; i < filled; ++i) set.routes[i] = AnyEntry(dice);
  }
  image->header0 = static_cast<u32>(dice.Word());
  image->header1 = static_cast<u32>(dice.Word());
  image->header2 = static_cast<u32>(dice.Word());
  image->header3 = static_cast<u32>(dice.Word());
  image->proxy_count = AnyCount(dice, 12, kMaxProxies);
  const u32 filled = Filled(image->proxy_count, kMaxProxies);
  for (u32 i = 0; i < filled; ++i) image->proxies[i] = AnyProxyRecord(dice);
}

void FillPortRecords(Dice& dice, AccConfig* config) {
  config->port_idc_count = static_cast<u16>(AnyCount(dice, 4, kMaxPortIdcRecords));
  const u32 filled = Filled(config->port_idc_count, kMaxPortIdcRecords);
  for (u32 i = 0; i < filled; ++i) {
    PortIdcRecord& record = config->port_idc_records[i];
    record = {dice.Of(kConfiguredPorts), AnyGameIdc(dice)};
    if (record.port == 0 && !dice.OneIn(4)) record.port = 7001;  // or it would rule everywhere
  }
}

void FillConfig(Dice& dice, AccConfig* config) {
  config->valid = 1;
  config->game_id = dice.Of(kGameIds);
  config->zone_id = dice.Word();
  config->log_level = 100;  // nothing is logged here
  config->excluded_port_count = AnyCount(dice, 3, kMaxExcludedPorts);
  const u32 filled = Filled(config->excluded_port_count, kMaxExcludedPorts);
  for (u32 i = 0; i < filled; ++i) config->excluded_ports[i] = dice.Of(kConfiguredPorts);
  config->forced_proxy = AnyProxyInfo(dice);
  for (ManualRouteRecord& record : config->manual_routes)
    if (dice.OneIn(4)) record = AnySwitchProxyInfo(dice);
  config->reachability.reach_count = AnyCount(dice, 12, kMaxReachRecords);
  const u32 reaches = Filled(config->reachability.reach_count, kMaxReachRecords);
  for (u32 i = 0; i < reaches; ++i) {
    const u32 delays[] = {0, 50, 9998, 9999, 10000, 0xFFFFFFFF};
    config->reachability.records[i].game_idc = AnyGameIdc(dice);
    config->reachability.records[i].delay = dice.Of(delays);
  }
  config->glt_word = static_cast<u32>(dice.Word());
  FillPortRecords(dice, config);
  config->game_vip_level = dice.Of(kLevels);
  ChangeModes(dice, config);
}

}  // namespace

u32 AnyIp(Dice& dice) {
  if (!dice.OneIn(4)) return kIps[1 + dice.Below(kPublicIps)];
  return dice.Of(kIps);
}

u16 AnyPort(Dice& dice) { return htons(dice.Of(kPorts)); }
u32 AnyGameIdc(Dice& dice) { return dice.Of(kGameIdcs); }
u32 AnyProxyIdc(Dice& dice) { return dice.Of(kProxyIdcs); }
u32 AnyLastNode(Dice& dice) { return dice.Of(kLastNodes); }

RouteProxyInfo AnyProxyInfo(Dice& dice) {
  RouteProxyInfo proxy;
  FillBytes(dice, &proxy);
  FillText(dice, proxy.proxy_addr, AnyProxyAddr(dice));
  FillText(dice, proxy.proxy_name, "node" + std::to_string(dice.Below(100)));
  proxy.proxy_idc = AnyProxyIdc(dice);
  proxy.section1_delay = AnyDelay(dice);
  proxy.section2_delay = AnyDelay(dice);
  proxy.decision = dice.Of(kDecisions);
  proxy.last_node = AnyLastNode(dice);
  return proxy;
}

SwitchProxyInfo AnySwitchProxyInfo(Dice& dice) {
  SwitchProxyInfo pair;
  for (RouteProxyInfo& proxy : pair.proxies) proxy = AnyProxyInfo(dice);
  pair.game_idc = AnyGameIdc(dice);
  pair.last_node = AnyLastNode(dice);
  return pair;
}

std::unique_ptr<SpurRegion> MakeSpurList(Dice& dice) {
  auto region = std::make_unique<SpurRegion>();
  region->header = AnyHeader(dice, sizeof *region);
  region->spur_count = AnyCount(dice, 6, kMaxSpurRecords);
  const u32 filled = Filled(region->spur_count, kMaxSpurRecords);
  for (u32 i = 0; i < filled; ++i) region->records[i] = {AnyGameIdc(dice), AnyIp(dice)};
  return region;
}

std::unique_ptr<LaunchTestRegion> MakeLaunchTest(Dice& dice) {
  auto region = std::make_unique<LaunchTestRegion>();
  region->header = AnyHeader(dice, sizeof *region);
  region->valid_count = AnyCount(dice, 12, kMaxGltRecords);
  const u32 filled = Filled(region->valid_count, kMaxGltRecords);
  for (u32 i = 0; i < filled; ++i) {
    GltRouteInfo& record = region->records[i];
    record.game_idc = AnyGameIdc(dice);
    FillBytes(dice, &record.glt_head);
    record.proxy = AnyProxyInfo(dice);
  }
  return region;
}

void FillRouteBuffer(Dice& dice, RouteRegion* buffer) {
  buffer->header = AnyHeader(dice, sizeof *buffer);
  FillImage(dice, &buffer->image);
}

void ChangeModes(Dice& dice, AccConfig* config) {
  const u32 acc_modes[] = {0, 1, 1, 2, 2, 2, 3, 0x10002};
  const u32 manual_modes[] = {0, 0, 1, 2};
  const u8 uses[] = {0, 1, 1, 2};
  config->acc_mode = dice.Of(acc_modes);
  config->manual_mode = dice.Of(manual_modes);
  config->game_launch_test_use = dice.Of(uses);
  config->net_mode = 0;
  for (const u32 bit : kNetModeBits)
    if (dice.OneIn(2)) config->net_mode = config->net_mode | bit;
}

std::unique_ptr<World> MakeWorld(Dice& dice, WorldSize size) {
  auto world = std::make_unique<World>();
  if (!dice.OneIn(15)) world->ip_table = MakeIpTable(dice, size);
  if (!dice.OneIn(4)) world->blacklist = MakeBlacklist(dice);
  if (!dice.OneIn(4)) world->spur_list = MakeSpurList(dice);
  if (!dice.OneIn(4)) world->launch_test = MakeLaunchTest(dice);
  world->has_route_region = !dice.OneIn(10);
  const u32 selectors[] = {0, 0, 1, 1, 2, 0xFFFFFFFF};
  world->route_selector = dice.Of(selectors);
  for (RouteRegion& buffer : world->route_buffers) FillRouteBuffer(dice, &buffer);
  const RouteFile files[] = {RouteFile::kNoPath, RouteFile::kTooShort, RouteFile::kTooLong,
                             RouteFile::kWhole, RouteFile::kWhole};
  world->route_file = dice.OneIn(100) ? RouteFile::kMissing : dice.Of(files);
  FillImage(dice, &world->route_file_image);
  FillConfig(dice, &world->config);
  world->game_slot = dice.Below(kMaxGames);
  return world;
}

}  // namespace test
