// The cost of a relayed flow of datagrams, compared with a direct one and with other forwarding
// programs, and how much of it is due to the library's measuring. On this machine and in one run.
// bench/README.md explains the output.
#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "bench/settings.h"
#include "bench/udp_ways.h"

namespace bench {
namespace {

constexpr char kUsage[] =
    "usage: udp_bench [--rounds N] [--only WORD] [--way NAME]... [--mend LIST] [--quick] [--json]\n"
    "\n"
    "  --rounds N   how often each measurement is taken in each way, in turn (default 9)\n"
    "  --only WORD  the measurements that have this word in their name\n"
    "  --way NAME   this way only, or these: direct, vyr, vyr+mend, select, socat, nginx,\n"
    "               vyr+node, select+select; 'no probes', 'no measure', 'log 4', 'log 0'\n"
    "  --mend LIST  adds vyr+mend, for which this is mended: all, or names with commas between\n"
    "  --quick      small amounts, to see that it runs; its figures mean nothing\n"
    "  --json       a JSON object for each table\n"
    "\n"
    "Runs in the private network of scripts/testbed, which it enters by itself.\n";

constexpr std::uint32_t kUnderWay = 64;  // datagrams in flight, of all flows together
constexpr std::uint32_t kPacedFlows = 10;
constexpr std::uint32_t kPacedHertz = 60;
// One allocation for each datagram of one direction would be 0.5. The reports at the start of a
// flow are not counted as part of a datagram.
constexpr double kMostAllocationsEach = 0.2;
constexpr double kReportsOfAFlow = 40;

// In both directions.
double Datagrams(const DatagramOutcome& outcome) {
  return 2 * static_cast<double>(outcome.round_trips);
}
double MedianUs(const DatagramOrder&, const DatagramOutcome& outcome) { return outcome.median_us; }
double P99Us(const DatagramOrder&, const DatagramOutcome& outcome) { return outcome.p99_us; }
double DatagramsPerSecond(const DatagramOrder&, const DatagramOutcome& outcome) {
  return Datagrams(outcome) / outcome.seconds;
}
double LibraryUs(const DatagramOrder&, const DatagramOutcome& outcome) {
  return outcome.library_cpu_s * 1e6 / Datagrams(outcome);
}
double RelayUs(const DatagramOrder&, const DatagramOutcome& outcome) {
  return (outcome.library_cpu_s + outcome.forwarder_cpu_s) * 1e6 / Datagrams(outcome);
}
double AllUs(const DatagramOrder& order, const DatagramOutcome& outcome) {
  return RelayUs(order, outcome) + outcome.game_cpu_s * 1e6 / Datagrams(outcome);
}
double AllocationsEach(const DatagramOrder&, const DatagramOutcome& outcome) {
  return static_cast<double>(outcome.allocations) / Datagrams(outcome);
}

DatagramOrder Stream(std::uint32_t flows, bool quick) {
  const std::uint64_t round_trips = quick ? 600 : 30'000;
  DatagramOrder order;
  order.task = DatagramTask::kStream;
  order.flows = flows;
  order.round_trips = round_trips / flows;
  order.window = std::max(kUnderWay / flows, 1u);
  order.settle = !quick;
  return order;
}

std::vector<FlowMeasure> ForwardingMeasures(bool quick) {
  DatagramOrder reply;
  reply.round_trips = quick ? 200 : 5000;
  reply.settle = !quick;
  std::vector<FlowMeasure> measures = {
      {{"round trip, median", "us", false}, reply, MedianUs},
      {{"round trip, p99", "us", false}, reply, P99Us},
      {{"round trip, relay", "us each", false}, reply, RelayUs},
      {{"round trip, allocations", "each", false}, reply, AllocationsEach},
  };
  for (const std::uint32_t flows : {1u, 4u, 16u, 60u}) {
    const DatagramOrder order = Stream(flows, quick);
    const std::string of = std::to_string(flows) + " flow" + (flows > 1 ? "s" : "");
    measures.push_back({{of + ", datagrams", "/s", true}, order, DatagramsPerSecond});
    measures.push_back({{of + ", relay", "us each", false}, order, RelayUs});
    measures.push_back({{of + ", game and relay", "us each", false}, order, AllUs});
    measures.push_back({{of + ", allocations", "each", false}, order, AllocationsEach});
  }
  return measures;
}

std::vector<FlowMeasure> CareMeasures(bool quick) {
  DatagramOrder paced;
  paced.task = DatagramTask::kPaced;
  paced.flows = kPacedFlows;
  paced.round_trips = quick ? 6 : 90;
  paced.hertz = kPacedHertz;
  paced.settle = !quick;
  return {
      {{"worker, 10 flows of 60 Hz", "us each", false}, paced, LibraryUs},
      {{"worker, 1 flow", "us each", false}, Stream(1, quick), LibraryUs},
      {{"worker, 16 flows", "us each", false}, Stream(16, quick), LibraryUs},
      {{"worker, 60 flows", "us each", false}, Stream(60, quick), LibraryUs},
  };
}

const std::vector<Pair> kForwardingPairs = {{"vyr", "direct"},
                                            {"vyr", "select"},
                                            {"vyr", "socat"},
                                            {"vyr", "nginx"},
                                            {"vyr+mend", "nginx"},
                                            {"vyr+mend", "vyr"},
                                            {"vyr+node", "select+select"}};
const std::vector<Pair> kCarePairs = {{"vyr+node", "no probes"},
                                      {"vyr+node", "no measure"},
                                      {"vyr+node", "log 4"},
                                      {"vyr+node", "log 0"}};

bool Judge(const FlowWay& way, const FlowMeasure& measure, const DatagramOutcome& outcome) {
  const double most =
      kMostAllocationsEach * Datagrams(outcome) + kReportsOfAFlow * measure.order.flows;
  const bool allocates = static_cast<double>(outcome.allocations) > most;
  if (!outcome.worked || allocates || outcome.lost != 0) {
    std::fprintf(stderr, "udp_bench: %s, %s: %llu lost%s%s\n", way.name.c_str(),
                 measure.row.name.c_str(), static_cast<unsigned long long>(outcome.lost),
                 outcome.worked ? "" : ", did not work",
                 allocates ? ", allocates for its datagrams" : "");
  }
  // If another program fails, the failure is printed, and its figure is missing.
  return !way.has_library || (outcome.worked && !allocates);
}

int Run(const Settings& settings) {
  UdpWays ways(settings);
  const bool quick = settings.quick;
  bool well = FlowTable(settings, ForwardingMeasures(quick), ways.Forwarding(), kForwardingPairs)
                  .Run(Judge);
  if (!settings.json) std::printf("\n");
  well = FlowTable(settings, CareMeasures(quick), ways.Cares(), kCarePairs).Run(Judge) && well;
  return well ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::RunBench(argc, argv, bench::kUsage, bench::Run); }
