#include "tests/model/route_model.h"

#include <algorithm>
#include <cstring>

namespace test {

using namespace moru_vyr::lsp;

namespace {

constexpr u32 kImageSize = 65680;

u16 HostPort(u16 port) { return static_cast<u16>(port << 8 | port >> 8); }

u32 HostIp(u32 ip) { return ip << 24 | (ip & 0xFF00) << 8 | (ip >> 8 & 0xFF00) | ip >> 24; }

std::string Dotted(u32 ip) {
  return std::to_string(ip & 0xFF) + "." + std::to_string(ip >> 8 & 0xFF) + "." +
         std::to_string(ip >> 16 & 0xFF) + "." + std::to_string(ip >> 24);
}

template <typename Region>
bool IsReadable(const Region& region) {
  return region.header.shared_mem_size == sizeof region && region.header.major_ver == 1 &&
         region.header.minor_ver == 36;
}

bool IsInner(u32 ip) {
  const u32 first = ip & 0xFF;
  const u32 second = ip >> 8 & 0xFF;
  if (first == 10 || first == 127) return true;
  if (first == 172) return second >= 16 && second <= 31;
  if (first == 192) return second == 168;
  // Wider than the range of shared addresses: one bit of the second byte is all that counts.
  if (first == 100) return (second >= 64 && second <= 127) || second >= 192;
  return false;
}

struct Verdict {
  u32 decision;
  bool accelerates;
  i32 reason;
};
constexpr Verdict kVerdicts[] = {
    {0, true, 0},   {1, false, 1},  {2, false, 7},  {3, false, 10}, {4, true, 11},
    {5, false, 12}, {6, false, 13}, {7, false, 14}, {8, true, 16},
};

Verdict VerdictOf(u32 decision) {
  for (const Verdict& verdict : kVerdicts)
    if (verdict.decision == decision) return verdict;
  return {decision, false, -1};
}

// A text that fills its field loses its last character to the terminator.
RouteProxyInfo WithTextsEnded(RouteProxyInfo proxy) {
  proxy.proxy_addr[31] = 0;
  proxy.proxy_name[63] = 0;
  return proxy;
}

}  // namespace

// --- loading ---------------------------------------------------------------------------------

void RouteModel::ReadConfig() {
  config_ = world_.config;
  if ((config_.net_mode & 0x20) != 0) config_.net_mode = config_.net_mode | 0x8;
}

bool RouteModel::Load() {
  LoadRoute();
  if (world_.blacklist && IsReadable(*world_.blacklist)) {
    const BlacklistRegion& region = *world_.blacklist;
    for (u32 i = 0; i < region.blacklist_count && i < 1024; ++i) {
      const BlacklistRecord& record = region.records[i];
      if (record.type == 1 || record.type == 2) blacklist_.push_back(record);
    }
  }
  ReloadSpurList();
  LoadPorts();
  if (world_.ip_table && IsReadable(*world_.ip_table)) {
    const IpTableRegion& region = *world_.ip_table;
    for (u32 i = 0; i < region.ip_count && i < 81920; ++i) {
      const IpRecord& record = region.records[i];
      if (record.game_idc / 100 % 10 == config_.game_vip_level) ips_.push_back(record);
    }
  }
  return !ips_.empty();
}

// The region if there is one, whatever it holds, otherwise the file; the choice is made once.
void RouteModel::LoadRoute() {
  if (source_ != Source::kNone) return;
  if (world_.has_route_region)
    source_ = Source::kRegion;
  else if (world_.route_file == RouteFile::kWhole)
    source_ = Source::kFile;
}

void RouteModel::ReloadSpurList() {
  if (!world_.spur_list || !IsReadable(*world_.spur_list)) return;
  const SpurRegion& region = *world_.spur_list;
  std::vector<SpurIpRecord> fresh;
  for (u32 i = 0; i < region.spur_count && i < 2048; ++i) fresh.push_back(region.records[i]);
  if (!fresh.empty()) spurs_ = fresh;
}

void RouteModel::LoadPorts() {
  for (u32 i = 0; i < config_.port_idc_count && i < 256; ++i) {
    const PortIdcRecord& record = config_.port_idc_records[i];
    if (record.idc == 0) continue;
    if (record.port == 0) {
      all_port_idc_ = record.idc;
      ports_.clear();
      return;
    }
    ports_.push_back(record);
  }
}

// --- looking up ------------------------------------------------------------------------------

const RouteTableImage* RouteModel::Image() const {
  if (source_ == Source::kFile) return &world_.route_file_image;
  if (source_ == Source::kNone) return nullptr;
  const RouteRegion& buffer = world_.route_buffers[world_.route_selector == 0 ? 0 : 1];
  static_assert(sizeof buffer == kImageSize);
  return IsReadable(buffer) ? &buffer.image : nullptr;
}

const RouteEntry* RouteModel::FindEntry(u32 game_idc) {
  LoadRoute();
  const RouteTableImage* const image = Image();
  if (image == nullptr) return nullptr;
  const RouteSet& set = image->route_sets[config_.acc_mode == 2 ? 1 : 0];
  for (u32 i = 0; i < set.route_count && i < 60; ++i)
    if (set.routes[i].game_idc == game_idc) return &set.routes[i];
  return nullptr;
}

bool RouteModel::FindProxy(const ProxyRef& ref, RouteProxyInfo* out) const {
  *out = RouteProxyInfo{};
  const RouteTableImage* const image = Image();
  if (image == nullptr) return false;
  for (u32 i = 0; i < image->proxy_count && i < 150; ++i) {
    const ProxyRecord& record = image->proxies[i];
    if (record.proxy_idc != ref.proxy_idc) continue;
    out->type = record.type;
    out->flag = record.flag;
    std::memcpy(out->proxy_addr, record.proxy_addr, 32);
    out->proxy_port = record.proxy_port;
    out->proxy_idc = record.proxy_idc;
    out->proxy_isp = record.proxy_isp;
    std::memcpy(out->proxy_name, record.proxy_name, 64);
    out->section1_delay = record.section1_delay;
    out->section1_lost = record.section1_lost;
    out->to_proxy_speed_isp = record.to_proxy_speed_isp;
    out->to_proxy_speed_ip = record.to_proxy_speed_ip;
    out->surport_isps = record.surport_isps;
    out->version = record.version;
    out->decision = ref.decision;
    out->section2_delay = ref.section2_delay;
    out->section2_lost = ref.section2_lost;
    out->last_node = ref.last_node;
    *out = WithTextsEnded(*out);
    return true;
  }
  return false;
}

bool RouteModel::FindLaunchTest(u32 game_idc, GltRouteInfo* out) const {
  if (!world_.launch_test || !IsReadable(*world_.launch_test)) return false;
  const LaunchTestRegion& region = *world_.launch_test;
  for (u32 i = 0; i < region.valid_count && i < 64; ++i) {
    if (region.records[i].game_idc != game_idc) continue;
    *out = region.records[i];
    out->proxy = WithTextsEnded(out->proxy);
    return true;
  }
  return false;
}

bool RouteModel::GetGameIDC(u32 ip, u16 port, u32* idc, bool ignore_port) const {
  *idc = 0;
  bool found = false;
  for (const IpRecord& record : ips_) {  // to the end: the last record of an address counts
    if (record.ip != ip) continue;
    *idc = record.game_idc;
    found = true;
  }
  if (found) return true;
  for (const SpurIpRecord& record : spurs_) {
    if (record.ip != ip) continue;
    *idc = record.game_idc;
    found = true;
  }
  if (found) return true;
  if (ip == 0 || port == 0) return false;
  if (all_port_idc_ != 0) {
    *idc = all_port_idc_;
    return true;
  }
  for (const PortIdcRecord& record : ports_) {
    if (record.port != HostPort(port)) continue;
    *idc = record.idc;
    found = true;
  }
  if (found) return true;
  if (!ignore_port || ports_.empty()) return false;
  u32 lowest = ports_.front().port;
  for (const PortIdcRecord& record : ports_) lowest = std::min<u32>(lowest, record.port);
  for (const PortIdcRecord& record : ports_)
    if (record.port == lowest) *idc = record.idc;
  return true;
}

// --- tests of a destination ------------------------------------------------------------------

bool RouteModel::IsExcludedPort(u16 port, i32 socket_type) const {
  if (socket_type != 1) return false;
  for (u32 i = 0; i < config_.excluded_port_count && i < 32; ++i)
    if (config_.excluded_ports[i] == HostPort(port)) return true;
  return false;
}

bool RouteModel::IsProxyIp(u32 ip) const {
  const RouteTableImage* const image = Image();
  if (image == nullptr) return false;
  for (u32 i = 0; i < image->proxy_count && i < 150; ++i) {
    const char* const addr = image->proxies[i].proxy_addr;
    if (std::string(addr, strnlen(addr, 32)) == Dotted(ip)) return true;
  }
  return false;
}

bool RouteModel::IsBlacklisted(u32 ip, u16 port, i32 socket_type) const {
  for (const BlacklistRecord& record : blacklist_) {
    if (record.game_id == 0 && record.ip == 0 && record.port == 0) continue;
    if (record.game_id != 0 && record.game_id != config_.game_id) continue;
    if (record.ip != 0 && record.ip != ip) continue;
    if (record.port != 0 && record.port != HostPort(port)) continue;
    if (static_cast<i32>(record.type) == socket_type) return true;
  }
  return false;
}

bool RouteModel::IsReachable(u32 game_idc) const {
  if (game_idc == 0) return false;
  const ReachabilityTable& table = config_.reachability;
  for (u32 i = 0; i < table.reach_count && i < 64; ++i)
    if (table.records[i].game_idc == game_idc) return table.records[i].delay < 9999;
  return false;
}

bool RouteModel::IsManual() const { return config_.acc_mode == 2 && config_.manual_mode != 0; }

bool RouteModel::NeedRelay(u32 ip, u16 port, i32 socket_type) const {
  u32 idc = 0;
  if (IsInner(ip)) return false;
  if (ips_.empty()) return false;
  if (IsExcludedPort(port, socket_type)) return false;
  if (!GetGameIDC(ip, port, &idc, false)) return false;
  return !IsBlacklisted(ip, port, socket_type);
}

// --- decisions -------------------------------------------------------------------------------

bool RouteModel::MakeDecision(u32 ip, u16 port, i32 socket_type, const std::string& guid,
                              u32 process_id, u32 socket, AccDecisionInfo* info,
                              SwitchProxyInfo* switch_cache) {
  if (info == nullptr) return false;
  info->used = 1;
  info->game_id = config_.game_id;
  info->zone_id = config_.zone_id;
  info->net_mode = config_.net_mode;
  info->process_id = process_id;
  info->socket = socket;
  info->socket_type = socket_type == 1 ? 0 : socket_type == 2 ? 1 : -1;
  info->game_ip = HostIp(ip);
  info->game_port = HostPort(port);
  std::memset(info->guid, 0, sizeof info->guid);
  std::memcpy(info->guid, guid.data(), std::min<std::size_t>(guid.size(), 64));
  std::memset(static_cast<void*>(&info->glt_route_info), 0, sizeof info->glt_route_info);
  std::memset(info->selected_proxy.proxy_addr, 0, 32);

  const auto refuse = [info](i32 reason) {
    info->acc_reason = reason;
    return false;
  };
  if (IsInner(ip)) return refuse(2);
  if (ips_.empty()) return refuse(8);
  if (source_ == Source::kNone) return refuse(9);
  if (IsExcludedPort(port, socket_type)) return refuse(4);
  if (IsProxyIp(ip)) return refuse(15);
  u32 game_idc = 0;
  const bool known = GetGameIDC(ip, port, &game_idc, false);
  info->game_idc = game_idc;
  if (!known) return refuse(3);
  RouteProxyInfo proxy;
  if (!ProxyFor(game_idc, &proxy, info, switch_cache)) return refuse(6);
  return VerdictOf(proxy.decision).accelerates;
}

u32 RouteModel::GetServerLag(u32 ip) {
  u32 game_idc = 0;
  RouteProxyInfo proxy;
  if (!GetGameIDC(ip, 0, &game_idc, true)) return 50;
  if (!ProxyFor(game_idc, &proxy, nullptr, nullptr)) return 50;
  if (!VerdictOf(proxy.decision).accelerates) return 0;
  const u32 lag = proxy.section1_delay + proxy.section2_delay;
  return lag == 0 ? 20 : lag;
}

bool RouteModel::ProxyFor(u32 game_idc, RouteProxyInfo* out, AccDecisionInfo* info,
                          SwitchProxyInfo* cache) {
  if (game_idc == 0) return false;
  const RouteEntry* const entry = FindEntry(game_idc);
  if (entry == nullptr) return false;
  Refine(*entry, out);
  if (info == nullptr) return true;
  FillInfo(*entry, *out, info);
  RecordCandidates(*entry, info->selected_proxy.last_node, cache);
  return true;
}

void RouteModel::Refine(const RouteEntry& entry, RouteProxyInfo* out) const {
  const u32 net_mode = config_.net_mode;
  const bool both_modes = (net_mode & 0x10000) != 0 && (net_mode & 0x20000) != 0;
  FindProxy(both_modes ? entry.ref_both_modes : entry.ref_default, out);
  if (config_.acc_mode == 0) {
    out->decision = 3;
  } else if (IsManual() && IsReachable(entry.game_idc)) {
    *out = WithTextsEnded(config_.forced_proxy);
    out->decision = 8;
  }
  RefineByLaunchTest(entry, out);
}

void RouteModel::RefineByLaunchTest(const RouteEntry& entry, RouteProxyInfo* out) const {
  if (config_.game_launch_test_use == 0) return;
  if (out->decision != 0 && out->decision != 4) return;
  GltRouteInfo measured;
  if (!FindLaunchTest(entry.game_idc, &measured)) return;
  for (const ProxyRef& ref : entry.top_refs) {
    if (ref.proxy_idc != measured.proxy.proxy_idc) continue;
    const u32 decision = out->decision;
    *out = measured.proxy;
    out->decision = decision;
    return;
  }
}

void RouteModel::FillInfo(const RouteEntry& entry, const RouteProxyInfo& proxy,
                          AccDecisionInfo* info) const {
  info->acc_reason = VerdictOf(proxy.decision).reason;
  info->entry_word0 = entry.entry_word0;
  info->entry_word1 = entry.entry_word1;
  info->entry_word3 = entry.entry_word3;
  info->entry_word4 = entry.entry_word4;
  std::memcpy(info->entry_name, entry.entry_name, 64);
  info->entry_word21 = entry.entry_word21;
  info->direct_delay = entry.direct_delay;
  info->direct_lost = entry.direct_lost;
  const RouteTableImage& image = *Image();
  info->header0 = image.header0;
  info->header1 = image.header1;
  info->header2 = image.header2;
  info->header3 = image.header3;
  for (int i = 0; i < 3; ++i) FindProxy(entry.top_refs[i], &info->top_proxy[i]);
  info->selected_proxy = proxy;
  info->game_launch_test_use = config_.game_launch_test_use;
  info->glt_word = config_.glt_word;
  FindLaunchTest(entry.game_idc, &info->glt_route_info);
}

// --- switching -------------------------------------------------------------------------------

void RouteModel::RecordCandidates(const RouteEntry& entry, u32 last_node,
                                  SwitchProxyInfo* cache) const {
  if (cache == nullptr) return;
  *cache = SwitchProxyInfo{};
  if (IsManual() || last_node == 0) return;
  for (const SwitchGroup& group : entry.switch_groups) {
    if (group.last_node != last_node) continue;
    cache->game_idc = entry.game_idc;
    cache->last_node = last_node;
    for (int i = 0; i < 2; ++i)
      if (group.candidates[i].proxy_idc != 0) FindProxy(group.candidates[i], &cache->proxies[i]);
    return;
  }
}

bool RouteModel::MakeSwitchDecision(AccDecisionInfo* info, SwitchProxyInfo* cache, u16 last_node) {
  const u32 current = info->selected_proxy.proxy_idc;
  const u32 game_idc = info->game_idc;
  RouteProxyInfo found;
  switch_source_ = SwitchSource::kNone;
  if (last_node != 0) {
    if (SwitchByHand(game_idc, current, last_node, &found))
      switch_source_ = SwitchSource::kManual;
    else if (SwitchByTable(game_idc, current, last_node, &found, cache))
      switch_source_ = SwitchSource::kRouteTable;
    else if (SwitchByRecord(current, last_node, &found, cache))
      switch_source_ = SwitchSource::kSessionRecord;
  }
  if (switch_source_ == SwitchSource::kNone) {
    info->acc_reason = 6;
    return false;
  }
  found.decision = 4;
  info->selected_proxy = found;
  return true;
}

bool RouteModel::SwitchByHand(u32 game_idc, u32 current_proxy, u32 last_node,
                              RouteProxyInfo* out) const {
  if (!IsManual()) return false;
  for (const ManualRouteRecord& record : config_.manual_routes) {
    if (record.game_idc != game_idc) continue;
    bool found = false;
    for (const RouteProxyInfo& proxy : record.proxies) {
      if (proxy.proxy_idc == current_proxy || proxy.last_node != last_node) continue;
      *out = WithTextsEnded(proxy);  // the later of two counts
      found = true;
    }
    if (found) return true;
  }
  return false;
}

bool RouteModel::SwitchByTable(u32 game_idc, u32 current_proxy, u32 last_node, RouteProxyInfo* out,
                               SwitchProxyInfo* cache) {
  const RouteEntry* const entry = FindEntry(game_idc);
  if (entry == nullptr) return false;
  for (const SwitchGroup& group : entry->switch_groups) {
    if (group.last_node != last_node) continue;
    bool found = false;
    for (const ProxyRef& candidate : group.candidates) {
      if (candidate.proxy_idc == 0 || candidate.proxy_idc == current_proxy) continue;
      found = FindProxy(candidate, out);  // the later of two counts, also where it is missing
      if (!found || cache == nullptr) continue;
      cache->game_idc = game_idc;
      cache->last_node = last_node;
      for (int i = 0; i < 2; ++i) {
        RouteProxyInfo proxy;
        if (group.candidates[i].proxy_idc != 0 && FindProxy(group.candidates[i], &proxy))
          cache->proxies[i] = proxy;
      }
    }
    return found;
  }
  return false;
}

bool RouteModel::SwitchByRecord(u32 current_proxy, u32 last_node, RouteProxyInfo* out,
                                const SwitchProxyInfo* cache) const {
  if (cache == nullptr || cache->last_node != last_node) return false;
  for (const RouteProxyInfo& proxy : cache->proxies) {
    if (proxy.proxy_idc == 0 || proxy.proxy_idc == current_proxy) continue;
    *out = proxy;
    return true;
  }
  return false;
}

}  // namespace test
