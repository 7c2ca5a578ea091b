// What a player feels of a relay: the delay that it adds at a game's pace, how that varies, and the
// processor time of a minute of play, beside other forwarding programs. With the machine otherwise
// idle, and with a game that keeps every processor busy, as games do. bench/README.md explains it.
#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/settings.h"
#include "bench/udp_ways.h"

namespace bench {
namespace {

constexpr char kUsage[] =
    "usage: pace_bench [--rounds N] [--datagrams N] [--only WORD] [--way NAME]... [--quick] "
    "[--json]\n"
    "\n"
    "  --rounds N     how often each measurement is taken in each way, in turn (default 9)\n"
    "  --datagrams N  round trips of each figure and way, in all rounds together (default 5000);\n"
    "                 a million of '60 flows' takes two minutes a way\n"
    "  --only WORD    the measurements that have this word in their name\n"
    "  --way NAME     this way only, or these: direct, vyr, vyr+mend, select, socat, nginx,\n"
    "                 vyr+node, select+select\n"
    "  --mend LIST    adds vyr+mend, for which this is mended: all, or names with commas between\n"
    "  --quick        small amounts, to see that it runs; its figures mean nothing\n"
    "  --json         a JSON object for the table and one for the percentiles\n"
    "\n"
    "Runs in the private network of scripts/testbed, which it enters by itself.\n";

struct Pace {
  const char* name;
  std::uint32_t flows, hertz, bytes;
  bool busy;
};

// Heartbeats, a usual shooter, a fast one with large states; and a server's worth of flows.
constexpr Pace kPaces[] = {
    {"30/s of 40 B", 10, 30, 40, false},        {"60/s of 100 B", 10, 60, 100, false},
    {"128/s of 1200 B", 10, 128, 1200, false},  {"60 flows, 128/s of 100 B", 60, 128, 100, false},
    {"busy, 60/s of 100 B", 10, 60, 100, true}, {"busy, 128/s of 1200 B", 10, 128, 1200, true},
};

const std::vector<Pair> kPairs = {{"vyr", "direct"},     {"vyr", "select"},
                                  {"vyr", "socat"},      {"vyr", "nginx"},
                                  {"vyr+mend", "nginx"}, {"vyr+node", "select+select"}};

DatagramOrder OrderOf(const Pace& pace, const Settings& settings) {
  DatagramOrder order;
  order.task = DatagramTask::kPaced;
  order.flows = pace.flows;
  order.hertz = pace.hertz;
  order.bytes = pace.bytes;
  order.busy = pace.busy;
  order.settle = !settings.quick;
  order.brief = settings.quick;
  const std::uint64_t wanted =
      settings.quick ? pace.flows * 2
                     : settings.datagrams / static_cast<std::uint64_t>(settings.rounds);
  order.round_trips = std::max<std::uint64_t>(wanted / pace.flows, 1);
  return order;
}

double MedianUs(const DatagramOrder&, const DatagramOutcome& outcome) { return outcome.median_us; }
double P99Us(const DatagramOrder&, const DatagramOutcome& outcome) { return outcome.p99_us; }
double JitterUs(const DatagramOrder&, const DatagramOutcome& outcome) { return outcome.jitter_us; }
// Of one flow, and only what the relay uses.
double CpuMsAMinute(const DatagramOrder& order, const DatagramOutcome& outcome) {
  const double relay = outcome.library_cpu_s + outcome.forwarder_cpu_s;
  return relay * 1e3 * 60 / outcome.seconds / order.flows;
}

std::vector<FlowMeasure> PaceMeasures(const Settings& settings) {
  std::vector<FlowMeasure> measures;
  for (const Pace& pace : kPaces) {
    const DatagramOrder order = OrderOf(pace, settings);
    const std::string of = pace.name;
    measures.push_back({{of + ", p50", "us", false}, order, MedianUs});
    measures.push_back({{of + ", p99", "us", false}, order, P99Us});
    measures.push_back({{of + ", jitter", "us", false}, order, JitterUs});
    measures.push_back({{of + ", processor", "ms/min", false}, order, CpuMsAMinute});
  }
  return measures;
}

std::string NameOf(const DatagramOrder& order) {
  for (const Pace& pace : kPaces) {
    if (pace.flows == order.flows && pace.hertz == order.hertz && pace.bytes == order.bytes &&
        pace.busy == order.busy) {
      return pace.name;
    }
  }
  return "";
}

// All rounds together: one round has too few round trips for its slowest thousandth.
class Percentiles {
 public:
  void Add(const std::string& way, const DatagramOrder& order, const DatagramOutcome& outcome) {
    all_[NameOf(order)][way].Add(outcome.times);
  }

  void Print(bool json) const {
    if (json) return PrintJson();
    std::printf("\n%-28s%-14s%10s%10s%10s%10s%10s\n", "round trips of all rounds, us", "", "count",
                "p50", "p90", "p99", "p99.9");
    for (const Pace& pace : kPaces) {
      for (const auto& [way, times] : Of(pace)) {
        std::printf("%-28s%-14s%10llu", pace.name, way.c_str(),
                    static_cast<unsigned long long>(times.count()));
        for (const double share : {0.5, 0.9, 0.99, 0.999})
          std::printf("%10.1f", static_cast<double>(times.Quantile(share)) / 1e3);
        std::printf("\n");
      }
    }
  }

 private:
  void PrintJson() const {
    nlohmann::ordered_json all;
    for (const Pace& pace : kPaces) {
      for (const auto& [way, times] : Of(pace)) {
        auto& entry = all["percentiles"][pace.name][way];
        entry["count"] = times.count();
        for (const double share :
             {0.0, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.99, 0.995, 0.999, 0.9999})
          entry["us"].push_back({share, static_cast<double>(times.Quantile(share)) / 1e3});
      }
    }
    std::printf("%s\n", all.dump().c_str());
  }

  using OfWays = std::map<std::string, Histogram>;
  OfWays Of(const Pace& pace) const {
    const auto found = all_.find(pace.name);
    return found != all_.end() ? found->second : OfWays{};
  }

  std::map<std::string, OfWays> all_;
};

bool Judge(const FlowWay& way, const FlowMeasure& measure, const DatagramOutcome& outcome) {
  if (outcome.worked && outcome.lost == 0) return true;
  std::fprintf(stderr, "pace_bench: %s, %s: %llu lost%s\n", way.name.c_str(),
               measure.row.name.c_str(), static_cast<unsigned long long>(outcome.lost),
               outcome.worked ? "" : ", did not work");
  // If another program fails, the failure is printed, and its figure is missing.
  return !way.has_library || outcome.worked;
}

int Run(const Settings& settings) {
  UdpWays ways(settings);
  FlowTable table(settings, PaceMeasures(settings), ways.Forwarding(), kPairs);
  Percentiles percentiles;
  table.Observe([&](const std::string& way, const DatagramOrder& order,
                    const DatagramOutcome& outcome) { percentiles.Add(way, order, outcome); });
  const bool well = table.Run(Judge);
  percentiles.Print(settings.json);
  return well ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::RunBench(argc, argv, bench::kUsage, bench::Run); }
