// The cost of the route policy as its tables grow. The product's IP table is compared with the two
// obvious containers, a tree and a sorted array with binary search, on the same keys and in one
// run. NeedRelay and MakeDecision are measured with empty, small and full tables. The argument is
// the number of rows of the IP table.
//
//   build/posix/bench/route_bench
//
// "bytes_per_row" is the heap memory of the loaded table.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "common/text.h"
#include "route/acc_config.h"
#include "route/ip_table.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

constexpr std::size_t kQuestions = 4096;  // in random order, so branches cannot be predicted
constexpr u32 kGameIdc = 1001;

std::size_t HeapInUse() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;  // in the arenas, and mapped separately
}

void ServeGame(u32 acc_mode = 1) {
  AccConfig config;
  config.valid = 1;
  config.net_mode = kNetModeTcp | kNetModeUdp;
  config.acc_mode = acc_mode;
  config.log_level = 6;  // as in production: nothing of this is written
  ReplaceAccConfig(config);
}

// Rows of different public addresses, in random order.
std::unique_ptr<IpTableRegion> MakeRegion(std::int64_t rows) {
  auto region = std::make_unique<IpTableRegion>();
  region->header = {sizeof *region, 1, 36};
  region->ip_count = static_cast<u32>(rows);
  std::vector<u32> hosts(kMaxIpRecords);
  for (u32 i = 0; i < kMaxIpRecords; ++i) hosts[i] = i;
  std::shuffle(hosts.begin(), hosts.end(), std::mt19937(1));
  for (u32 i = 0; i < region->ip_count; ++i) {
    // Runs of consecutive addresses, as in a game's data centres.
    region->records[i] = {kGameIdc, htonl(0xCB000000 + hosts[i] % 64 + hosts[i] / 64 * 4096)};
  }
  return region;
}

enum class Asked { kKnown, kUnknown };

std::vector<u32> MakeQuestions(const IpTableRegion& region, Asked asked) {
  std::mt19937 dice(2);
  std::vector<u32> ips(kQuestions);
  for (u32& ip : ips) {
    const u32 known =
        region.ip_count > 0 ? u32{region.records[dice() % region.ip_count].ip} : htonl(0xCB000001);
    ip = asked == Asked::kKnown ? known : known ^ htonl(0x800);
  }
  return ips;
}

// --- the three containers --------------------------------------------------------------------

struct Product {
  explicit Product(const IpTableRegion& region) { table.LoadIpTableFromMem(region); }
  const u32* Find(u32 ip) const { return table.Find(ip); }
  IpTable table;
};

struct Tree {
  explicit Tree(const IpTableRegion& region) {
    for (u32 i = 0; i < region.ip_count; ++i) {
      const IpRecord& record = region.records[i];
      if (record.game_idc / 100 % 10 == 0) rows[u32{record.ip}] = record.game_idc;
    }
  }
  const u32* Find(u32 ip) const {
    const auto found = rows.find(ip);
    return found != rows.end() ? &found->second : nullptr;
  }
  std::map<u32, u32> rows;
};

struct SortedArray {
  explicit SortedArray(const IpTableRegion& region) {
    for (u32 i = 0; i < region.ip_count; ++i) {
      const IpRecord& record = region.records[i];
      if (record.game_idc / 100 % 10 == 0) rows.emplace_back(record.ip, record.game_idc);
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    rows.shrink_to_fit();
  }
  const u32* Find(u32 ip) const {
    const auto found = std::lower_bound(rows.begin(), rows.end(), ip,
                                        [](const auto& row, u32 key) { return row.first < key; });
    return found != rows.end() && found->first == ip ? &found->second : nullptr;
  }
  std::vector<std::pair<u32, u32>> rows;
};

template <typename Table>
void Load(benchmark::State& state) {
  ServeGame();
  const auto region = MakeRegion(state.range(0));
  for (auto _ : state) {
    const Table table(*region);
    benchmark::DoNotOptimize(&table);
  }
  const std::size_t before = HeapInUse();
  const Table table(*region);
  state.counters["bytes_per_row"] =
      static_cast<double>(HeapInUse() - before) / static_cast<double>(state.range(0));
}
BENCHMARK(Load<Product>)->Arg(1000)->Arg(kMaxIpRecords)->Unit(benchmark::kMicrosecond);
BENCHMARK(Load<Tree>)->Arg(1000)->Arg(kMaxIpRecords)->Unit(benchmark::kMicrosecond);
BENCHMARK(Load<SortedArray>)->Arg(1000)->Arg(kMaxIpRecords)->Unit(benchmark::kMicrosecond);

template <typename Table, Asked asked>
void Find(benchmark::State& state) {
  ServeGame();
  const auto region = MakeRegion(state.range(0));
  const Table table(*region);
  const std::vector<u32> questions = MakeQuestions(*region, asked);
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(table.Find(questions[i++ % kQuestions]));
}
#define FIND_BENCHMARK(asked)                                             \
  BENCHMARK(Find<Product, asked>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords); \
  BENCHMARK(Find<Tree, asked>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords);    \
  BENCHMARK(Find<SortedArray, asked>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords)
FIND_BENCHMARK(Asked::kKnown);
FIND_BENCHMARK(Asked::kUnknown);

// --- whole questions -------------------------------------------------------------------------

// The route table as the client program writes it, with as many routes and proxies as fit. Those in
// use are the last ones.
class RouteRegionOfClient {
 public:
  RouteRegionOfClient()
      : mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kSize,
                                    kRouteRegionName)),
        view_(static_cast<u8*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, kSize))) {
    const auto region = std::make_unique<RouteRegion>();
    region->header = {sizeof *region, 1, 36};
    RouteSet& routes = region->image.route_sets[0];
    routes.route_count = kMaxRoutes;
    for (u32 i = 0; i < kMaxRoutes; ++i) routes.routes[i].game_idc = i;
    RouteEntry& entry = routes.routes[kMaxRoutes - 1];
    entry.game_idc = kGameIdc;
    entry.ref_default.proxy_idc = kMaxProxies;
    region->image.proxy_count = kMaxProxies;
    for (u32 i = 0; i < kMaxProxies; ++i) {
      ProxyRecord& proxy = region->image.proxies[i];
      proxy.proxy_idc = i + 1;
      common::SetFieldText(proxy.proxy_addr, "198.51.100." + std::to_string(i));
    }
    std::memcpy(view_ + 4, region.get(), sizeof *region);
  }
  ~RouteRegionOfClient() {
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
  }
  RouteRegionOfClient(const RouteRegionOfClient&) = delete;
  RouteRegionOfClient& operator=(const RouteRegionOfClient&) = delete;

 private:
  static constexpr u32 kSize = 131364;
  HANDLE mapping_;
  u8* view_;
};

template <Asked asked>
void NeedRelay(benchmark::State& state) {
  ServeGame();
  const auto region = MakeRegion(state.range(0));
  Route route;
  route.ip_table().LoadIpTableFromMem(*region);
  const std::vector<u32> questions = MakeQuestions(*region, asked);
  std::size_t i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(
        route.NeedRelay(questions[i++ % kQuestions], htons(7000), SOCK_DGRAM, 1, 1));
}
BENCHMARK(NeedRelay<Asked::kKnown>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords);
BENCHMARK(NeedRelay<Asked::kUnknown>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords);

template <Asked asked>
void MakeDecision(benchmark::State& state) {
  ServeGame();
  const auto region = MakeRegion(state.range(0));
  const RouteRegionOfClient client;
  Route route;
  route.ip_table().LoadIpTableFromMem(*region);
  route.route_table().LoadRoute();
  const std::vector<u32> questions = MakeQuestions(*region, asked);
  const std::string guid(36, 'g');
  AccDecisionInfo info;
  SwitchProxyInfo record;
  std::size_t i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(route.MakeDecision(questions[i++ % kQuestions], htons(7000),
                                                SOCK_DGRAM, guid, &info, &record, 1, 1));
}
BENCHMARK(MakeDecision<Asked::kKnown>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords);
BENCHMARK(MakeDecision<Asked::kUnknown>)->Arg(0)->Arg(1000)->Arg(kMaxIpRecords);

}  // namespace
}  // namespace moru_vyr::lsp
