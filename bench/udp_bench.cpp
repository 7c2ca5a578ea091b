// The cost of a relayed flow of datagrams, compared with a direct one and with other forwarding
// programs, and how much of it is due to the library's measuring. On this machine and in one run.
// bench/README.md explains the output.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/forwarder.h"
#include "bench/measured_table.h"
#include "bench/private_network.h"
#include "bench/settings.h"
#include "bench/udp_forwarders.h"
#include "bench/udp_game.h"
#include "bench/udp_server.h"

namespace bench {
namespace {

constexpr char kUsage[] =
    "usage: udp_bench [--rounds N] [--only WORD] [--way NAME]... [--quick] [--json]\n"
    "\n"
    "  --rounds N   how often each measurement is taken in each way, in turn (default 9)\n"
    "  --only WORD  the measurements that have this word in their name\n"
    "  --way NAME   this way only, or these: direct, vyr, select, socat, nginx, vyr+node,\n"
    "               select+select; 'no probes', 'no measure'\n"
    "  --quick      small amounts, to see that it runs; its figures mean nothing\n"
    "  --json       a JSON object for each table\n"
    "\n"
    "Runs in the private network of scripts/testbed, which it enters by itself.\n";

constexpr std::uint16_t kNodePort = 9000;
constexpr std::uint16_t kFirstForwarderPort = 20200;
constexpr std::uint32_t kUnderWay = 64;  // datagrams in flight, of all flows together
constexpr std::uint32_t kPacedFlows = 10;
constexpr std::uint32_t kPacedHertz = 60;
// One allocation for each datagram of one direction would be 0.5. The reports at the start of a
// flow are not counted as part of a datagram.
constexpr double kMostAllocationsEach = 0.2;
constexpr double kReportsOfAFlow = 40;

using FlowMeasure = Measure<DatagramOrder, DatagramOutcome>;
using FlowWay = Way<DatagramOrder, DatagramOutcome>;
using FlowTable = MeasuredTable<DatagramOrder, DatagramOutcome>;

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
  return {DatagramTask::kStream,           flows, round_trips / flows,
          std::max(kUnderWay / flows, 1u), 0,     !quick};
}

std::vector<FlowMeasure> ForwardingMeasures(bool quick) {
  const DatagramOrder reply = {DatagramTask::kReply, 1, quick ? 200u : 5000u, 1, 0, !quick};
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
  const DatagramOrder paced = {DatagramTask::kPaced, kPacedFlows, quick ? 6u : 90u, 1,
                               kPacedHertz,          !quick};
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
                                            {"vyr+node", "select+select"}};
const std::vector<Pair> kCarePairs = {{"vyr+node", "no probes"}, {"vyr+node", "no measure"}};

// Starts the ways that the user has chosen, in a network of their own.
class Ways {
 public:
  explicit Ways(const Settings& settings) : settings_(settings), folder_(BenchFolder()) {
    StartEchoServer(&server_port_);
  }

  std::vector<FlowWay> Forwarding() {
    std::vector<FlowWay> ways;
    const DatagramGameOptions direct = Options(kServerAddress, server_port_);
    if (settings_.Wants("direct")) ways.push_back({"direct", {}, StartGame(direct)});
    DatagramGameOptions relayed = direct;
    relayed.with_library = true;
    if (settings_.Wants("vyr")) ways.push_back({"vyr", {}, StartGame(relayed), true});
    AddForwarded("select", BySelect(1), &ways);
    if (HasProgram("socat")) {
      AddForwarded("socat", Started({SocatCommand(NextPort(kServerAddress, server_port_))}), &ways);
    } else {
      LeaveOut("socat");
    }
    AddNginx(&ways);
    AddNode("vyr+node", Care::kAll, &ways);
    AddForwarded("select+select", BySelect(2), &ways);
    return ways;
  }

  std::vector<FlowWay> Cares() {
    std::vector<FlowWay> ways;
    AddNode("vyr+node", Care::kAll, &ways);
    AddNode("no probes", Care::kNoProbes, &ways);
    AddNode("no measure", Care::kNoMeasure, &ways);
    return ways;
  }

 private:
  DatagramGameOptions Options(const std::string& address, std::uint16_t port) const {
    DatagramGameOptions options;
    options.address = address;
    options.port = port;
    options.library.server = kServerAddress;
    options.library.folder = folder_;
    return options;
  }

  ForwardedPort NextPort(const std::string& to, std::uint16_t to_port) {
    return {next_port_++, to, to_port};
  }

  static std::vector<Forwarder> Started(const std::vector<std::vector<std::string>>& commands) {
    std::vector<Forwarder> forwarders;
    for (const auto& command : commands) forwarders.emplace_back(command);
    return forwarders;
  }

  std::vector<Forwarder> BySelect(int count) {
    std::vector<Forwarder> forwarders;
    ForwardedPort port = {0, kServerAddress, server_port_};
    for (int i = 0; i < count; ++i) {
      port.from = next_port_++;
      forwarders.emplace_back([port] { ForwardBySelect(port); });
      port = {0, "127.0.0.1", port.from};
    }
    return forwarders;
  }

  // Adds the game through those forwarders, the last of which has the last port. Counts their
  // processor time.
  void AddForwarded(const std::string& name, std::vector<Forwarder> forwarders,
                    std::vector<FlowWay>* ways) {
    if (!settings_.Wants(name)) return;
    const auto port = static_cast<std::uint16_t>(next_port_ - 1);
    if (!WaitForEcho(port)) {
      std::fprintf(stderr, "udp_bench: %s does not forward; left out\n", name.c_str());
      return;
    }
    DatagramGameOptions options = Options("127.0.0.1", port);
    for (const Forwarder& one : forwarders) options.forwarders.push_back(one.group());
    ways->push_back({name, std::move(forwarders), StartGame(options)});
  }

  void AddNginx(std::vector<FlowWay>* ways) {
    const auto command = NginxCommand(folder_, NextPort(kServerAddress, server_port_));
    if (!HasProgram("nginx") || command.empty()) return LeaveOut("nginx with its stream module");
    AddForwarded("nginx", Started({command}), ways);
  }

  // Each way has a node of its own, so that the load of the nodes is the same, too.
  void AddNode(const std::string& name, Care care, std::vector<FlowWay>* ways) {
    if (!settings_.Wants(name)) return;
    const std::string node = NodeProgram();
    if (node.empty()) return LeaveOut("vyr_node");
    const std::uint16_t port = next_node_port_++;
    std::vector<Forwarder> one =
        Started({{node, "--listen", std::string(kNodeAddress) + ":" + std::to_string(port)}});
    if (!WaitForListener(kNodeAddress, port)) return LeaveOut("vyr_node");
    DatagramGameOptions options = Options(kServerAddress, server_port_);
    options.with_library = true;
    options.library.node = kNodeAddress;
    options.library.node_port = port;
    options.library.care = care;
    options.forwarders = {one[0].group()};
    ways->push_back({name, std::move(one), StartGame(options), true});
  }

  const Settings& settings_;
  const std::string folder_;
  std::uint16_t server_port_ = 0;
  std::uint16_t next_port_ = kFirstForwarderPort;
  std::uint16_t next_node_port_ = kNodePort;
};

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
  Ways ways(settings);
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
