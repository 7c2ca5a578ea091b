// Every region of shared memory as another program may leave it, read by all of its readers: the
// library's tables and reports, and this repository's client program. The regions hold a complete
// sample; the input changes bytes of any of them, and in half of the runs a second thread goes on
// changing the same bytes while they are read. Then a finding may need several runs to repeat.
#include <winsock2.h>
//
#include <windows.h>

#include <array>
#include <atomic>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "abi/blacklist_formats.h"
#include "abi/ip_table_formats.h"
#include "abi/launch_test_formats.h"
#include "abi/mending_formats.h"
#include "abi/report_channels.h"
#include "abi/report_records.h"
#include "abi/restriction_formats.h"
#include "abi/route_formats.h"
#include "check.h"
#include "client/check/config_file.h"
#include "client/dump/dump.h"
#include "client/dump/region_reader.h"
#include "client/fields/tables.h"
#include "client/sample/sample.h"
#include "client/watch/report_drain.h"
#include "client/watch/report_fields.h"
#include "client/watch/report_json.h"
#include "client/watch/report_words.h"
#include "common/process_info.h"
#include "common/text.h"
#include "input.h"
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

struct Region {
  const char* name = nullptr;
  std::vector<u8> sample;
  u8* view = nullptr;
};

std::size_t MappedSize(const client::RegionRow& row) {
  return row.double_buffered ? 4 + 2 * row.size : row.size;
}

class Regions {
 public:
  Regions() {
    const client::ConfigFile file = client::ParseConfig(client::WriteSample({}));
    Require(!HasErrors(file.problems), "the sample");
    for (const client::RegionRow& row : client::Regions()) {
      const auto* const bytes = reinterpret_cast<const u8*>(RegionOf(*file.tables, row));
      std::vector<u8> sample(MappedSize(row));
      std::copy_n(bytes, row.size, sample.begin() + (row.double_buffered ? 4 : 0));
      if (row.double_buffered)
        std::copy_n(bytes, row.size, sample.end() - static_cast<long>(row.size));
      Make(row.name, std::move(sample));
    }
    for (int kind = 0; kind < client::kReportKindCount; ++kind) {
      const ReportChannel& channel =
          *client::ChannelOf(static_cast<client::ReportKind>(kind)).channel;
      std::vector<u8> sample(channel.region_size);
      const common::SharedMemHeader header = {channel.region_size, 1, 36};
      std::memcpy(sample.data(), &header, sizeof header);
      for (u32 slot = 0; slot < channel.slot_count; slot += 2) {
        sample[kReportHeaderSize + std::size_t{slot} * channel.slot_size] =
            1;  // every other is used
      }
      Make(channel.mapping_name, std::move(sample));
    }
  }
  void Reset() {
    for (Region& region : all) std::copy(region.sample.begin(), region.sample.end(), region.view);
  }
  Region& Of(const char* name) {
    for (Region& region : all) {
      if (std::strcmp(region.name, name) == 0) return region;
    }
    std::abort();
  }

  std::vector<Region> all;

 private:
  void Make(const char* name, std::vector<u8> sample) {
    const auto size = static_cast<DWORD>(sample.size());
    const HANDLE mapping =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
    auto* const view = static_cast<u8*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size));
    Require(view != nullptr, name);
    all.push_back({name, std::move(sample), view});
  }
};

Regions& AllRegions() {
  static auto& regions = *new Regions;
  return regions;
}

// One run of bytes that the other program changes.
struct Patch {
  u8* at = nullptr;
  std::vector<u8> before, after;
};

void Write(u8* at, const std::vector<u8>& bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::atomic_ref<u8>(at[i]).store(bytes[i], std::memory_order_relaxed);
  }
}

// The other program, writing for as long as this object exists.
class Writer {
 public:
  explicit Writer(const std::vector<Patch>* patches)
      : thread_([this, patches] {
          for (bool now = false; !stop_.load(); now = !now) {
            for (const Patch& patch : *patches) Write(patch.at, now ? patch.after : patch.before);
          }
        }) {}
  ~Writer() {
    stop_.store(true);
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

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

// What games ask of the tables. With nobody writing, two equal questions have the same answer.
void AskRoute(bool is_still) {
  static auto& route = *new std::unique_ptr<Route>;
  route = std::make_unique<Route>();
  route->Load(1, 0);
  Require(route->ip_table().size() <= kMaxIpRecords &&
              route->blacklist().size() <= kMaxBlacklistRecords,
          "counts are cut");
  const auto* const ips =
      reinterpret_cast<const IpTableRegion*>(AllRegions().Of(kIpTableRegionName).view);
  for (const u32 ip : {u32{ips->records[0].ip}, u32{ips->records[1].ip}, 0x0A6433C6u, 0u}) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
      AccDecisionInfo info, again;
      SwitchProxyInfo cache, cache_again;
      const u16 port = htons(27015);
      route->NeedRelay(ip, port, type, 1, 1);
      const bool taken = route->MakeDecision(ip, port, type, "guid", &info, &cache, 1, 1);
      CheckProxy(info.selected_proxy);
      for (const RouteProxyInfo& proxy : info.top_proxy) CheckProxy(proxy);
      CheckProxy(info.glt_route_info.proxy);
      if (is_still) {
        const bool taken_again =
            route->MakeDecision(ip, port, type, "guid", &again, &cache_again, 1, 1);
        Require(taken == taken_again && std::memcmp(&info, &again, sizeof info) == 0,
                "the same answer");
      }
      const u16 last_node = static_cast<u16>(cache.last_node);
      route->MakeSwitchDecision(&info, &cache, &last_node, 1);
      CheckProxy(info.selected_proxy);
    }
    route->GetServerLag(ip);
  }
}

void Report(client::ReportKind kind) {
  switch (kind) {
    case client::kLoadedReport:
      return ReportLspLoadedInfo({});
    case client::kLogPathReport:
      return ReportLogPath({});
    case client::kNegotiationResultReport:
      return ReportNegRetValue({});
    case client::kDecisionReport:
      return ReportAcceDecisionInfo({});
    case client::kRealNegotiationReport:
      return ReportRealNego({});
    case client::kRecoverySwitchReport:
      return ReportRecoverySwitch({});
    default:
      return ReportCommunicationStatistic({});
  }
}

// A report changes the first free slot and nothing else, and nothing in a region of another
// version.
void CheckReport(client::ReportKind kind, bool is_still) {
  const ReportChannel& channel = *client::ChannelOf(kind).channel;
  const Region& region = AllRegions().Of(channel.mapping_name);
  const std::vector<u8> before(region.view, region.view + channel.region_size);
  Report(kind);
  if (!is_still) return;
  const common::SharedMemHeader expected = {channel.region_size, 1, 36};
  std::size_t begin = 0, end = 0;  // of the slot that may change
  if (std::memcmp(before.data(), &expected, sizeof expected) == 0) {
    for (u32 slot = 0; slot < channel.slot_count && end == 0; ++slot) {
      const std::size_t at = kReportHeaderSize + std::size_t{slot} * channel.slot_size;
      if (before[at] != 0) continue;
      begin = at;
      end = at + channel.slot_size;
      Require(region.view[at] == 1, "the first free slot is taken");
    }
  }
  for (std::size_t i = 0; i < before.size(); ++i) {
    Require(region.view[i] == before[i] || (i >= begin && i < end), "nothing else changes");
  }
}

std::size_t UsedSlots(const ReportChannel& channel) {
  const u8* const view = AllRegions().Of(channel.mapping_name).view;
  const common::SharedMemHeader expected = {channel.region_size, 1, 36};
  if (std::memcmp(view, &expected, sizeof expected) != 0) return 0;
  std::size_t used = 0;
  for (u32 slot = 0; slot < channel.slot_count; ++slot) {
    used += view[kReportHeaderSize + std::size_t{slot} * channel.slot_size] != 0;
  }
  return used;
}

std::size_t UsedSlots() {
  std::size_t used = 0;
  for (int kind = 0; kind < client::kReportKindCount; ++kind) {
    used += UsedSlots(*client::ChannelOf(static_cast<client::ReportKind>(kind)).channel);
  }
  return used;
}

void DrainReports(bool is_still) {
  client::ReportDrain drain;
  const std::size_t used = UsedSlots();
  std::vector<client::Report> reports = drain.Take(1000);
  if (is_still) Require(reports.size() == used, "each used slot is a report");
  for (const client::Report& report : reports) {
    Require(client::ReportWords(report).find('\n') == std::string::npos, "a report is one line");
    const std::string json = client::ReportJson(report);
    Require(json.find('\n') == std::string::npos && nlohmann::json::accept(json), "it is JSON");
    client::Problem problem;
    const auto read = client::ReportFromJson(json, &problem);
    Require(read.has_value() && read->kind == report.kind, "and can be read again");
  }
  drain.GiveBack(std::move(reports), 1000);
  if (is_still) Require(UsedSlots() == 0, "and each slot is free again");
}

void Prepare() {
  AllRegions().Reset();
  ReplaceAccConfig(AccConfig{});
  common::SetFieldText(common::GetProcessInfo().process_path, "C:\\vyr\\ffmpeg.exe");
}

std::vector<Patch> TakePatches(fuzz::Input* input) {
  std::vector<Patch> patches;
  while (input->size() >= 6 && patches.size() < 64) {
    Region& region = AllRegions().all[input->Byte() % AllRegions().all.size()];
    std::size_t offset = input->Word();
    offset = (offset | std::size_t{input->Byte()} << 16) % region.sample.size();
    std::string bytes = input->Bytes(input->Byte());
    bytes.resize(std::min(bytes.size(), region.sample.size() - offset));
    u8* const at = region.view + offset;
    patches.push_back({at, {at, at + bytes.size()}, {bytes.begin(), bytes.end()}});
  }
  return patches;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Prepare();
  fuzz::Input input(data, size);
  const u8 mode = input.Byte();
  const auto kind = static_cast<client::ReportKind>(mode / 4 % client::kReportKindCount);
  const bool is_still = mode % 2 == 0;
  const std::vector<Patch> patches = TakePatches(&input);
  for (const Patch& patch : patches) Write(patch.at, patch.after);
  {
    const std::unique_ptr<Writer> writer(is_still ? nullptr : new Writer(&patches));
    ReadAccConfig();
    CheckConfig(*GetAccConfig());
    AskRoute(is_still);
    ReplaceAccConfig(AccConfig{});  // the sample logs nothing; from here on lines are formatted
    CheckReport(kind, is_still);
    DrainReports(is_still);
    if (mode % 4 >= 2) {
      const client::StandingTables standing = client::ReadRegions(1000);
      Require(nlohmann::json::accept(client::DumpJson(*standing.tables)), "a dump is JSON");
      client::DumpToml(*standing.tables);
    }
  }
  ReplaceMending(Mending());
  return 0;
}
