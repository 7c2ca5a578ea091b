// The cost of a relayed connection, compared with a direct one and with other forwarding programs,
// on this machine and in one run. bench/README.md explains the output.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/forwarder.h"
#include "bench/measured_table.h"
#include "bench/private_network.h"
#include "bench/settings.h"
#include "bench/tcp_forwarders.h"
#include "bench/tcp_game.h"
#include "bench/tcp_server.h"

namespace bench {
namespace {

constexpr char kUsage[] =
    "usage: tcp_bench [--rounds N] [--only WORD] [--way NAME]... [--mend LIST] [--quick] [--json]\n"
    "\n"
    "  --rounds N   how often each measurement is taken in each way, in turn (default 9)\n"
    "  --only WORD  the measurements that have this word in their name\n"
    "  --way NAME   this way only, or these: direct, vyr, vyr+mend, socat, haproxy, vyr+node,\n"
    "               socat+socat\n"
    "  --mend LIST  adds vyr+mend, for which this is mended: all, or names with commas between\n"
    "  --quick      small amounts, to see that it runs; its figures mean nothing\n"
    "  --json       one JSON object instead of the table\n"
    "\n"
    "Runs in the private network of scripts/testbed, which it enters by itself.\n";

constexpr std::uint16_t kNodePort = 9000;
constexpr std::uint16_t kFirstForwarderPort = 20100;
constexpr std::uint64_t kLeastBulk = 4 << 20;  // for each connection

using StreamMeasure = Measure<Order, Outcome>;
using StreamWay = Way<Order, Outcome>;
using StreamTable = MeasuredTable<Order, Outcome>;

const std::vector<Pair> kPairs = {
    {"vyr", "direct"},       {"vyr", "socat"},    {"vyr", "haproxy"},         {"vyr+mend", "socat"},
    {"vyr+mend", "haproxy"}, {"vyr+mend", "vyr"}, {"vyr+node", "socat+socat"}};

double MegabytesPerSecond(const Order& order, const Outcome& outcome) {
  const double connections = std::max<std::uint32_t>(order.connections, 1);
  return static_cast<double>(order.amount) * connections / outcome.seconds / 1e6;
}
double MedianUs(const Order&, const Outcome& outcome) { return outcome.median_us; }
double P99Us(const Order&, const Outcome& outcome) { return outcome.p99_us; }
double StepsPerSecond(const Order& order, const Outcome& outcome) {
  const double connections = std::max<std::uint32_t>(order.connections, 1);
  return static_cast<double>(order.amount) * connections / outcome.seconds;
}
double CpuSeconds(const Outcome& outcome) {
  return std::max(outcome.library_cpu_s, 0.0) + outcome.forwarder_cpu_s;
}
double CpuUsPerMegabyte(const Order& order, const Outcome& outcome) {
  return CpuSeconds(outcome) * 1e12 / (static_cast<double>(order.amount) * order.connections);
}
double CpuUsPerRoundTrip(const Order& order, const Outcome& outcome) {
  return CpuSeconds(outcome) * 1e6 / (static_cast<double>(order.amount) * order.connections);
}

std::vector<StreamMeasure> Measures(bool quick) {
  const std::uint64_t bytes = quick ? 1 << 20 : 64 << 20;
  const std::uint64_t trips = quick ? 50 : 4000;
  const std::uint64_t connects = quick ? 5 : 200;
  std::vector<StreamMeasure> measures = {
      {{"download", "MB/s", true}, {Task::kDownload, 0, bytes, 0}, MegabytesPerSecond},
      {{"upload", "MB/s", true}, {Task::kUpload, 0, bytes, 0}, MegabytesPerSecond},
      {{"reply, median", "us", false}, {Task::kReply, 0, trips, kMessage}, MedianUs},
      {{"reply, p99", "us", false}, {Task::kReply, 0, trips, kMessage}, P99Us},
      {{"in two pieces, median", "us", false},
       {Task::kReply, 0, trips / 20, kMessage, 2},
       MedianUs},
      {{"answer in two, median", "us", false},
       {Task::kReply, 0, trips / 20, kMessage, 1, true},
       MedianUs},
      {{"first in two pieces, median", "us", false},
       {Task::kConnect, 0, connects, kMessage, 2},
       MedianUs},
      {{"first answer in two, median", "us", false},
       {Task::kConnect, 0, connects, kMessage, 1, true},
       MedianUs},
      {{"connections set up", "/s", true}, {Task::kConnect, 0, connects, 0}, StepsPerSecond},
      {{"connection, median", "us", false}, {Task::kConnect, 0, connects, 0}, MedianUs},
  };
  for (const std::uint32_t count : {1u, 4u, 16u, 60u}) {
    const Order bulk = {Task::kBulk, count, std::max(bytes / count, quick ? 0 : kLeastBulk), 0};
    const Order up = {Task::kBulkUp, count, bulk.amount, 0};
    const Order events = {Task::kEvents, count, trips * 2 / count, kMessage};
    const std::string of = ", " + std::to_string(count) + " conn.";
    measures.push_back({{"download" + of, "MB/s", true}, bulk, MegabytesPerSecond});
    measures.push_back({{"processor" + of, "us/MB", false}, bulk, CpuUsPerMegabyte});
    measures.push_back({{"upload" + of, "MB/s", true}, up, MegabytesPerSecond});
    measures.push_back({{"round trips" + of, "/s", true}, events, StepsPerSecond});
    measures.push_back({{"processor" + of, "us/trip", false}, events, CpuUsPerRoundTrip});
  }
  return measures;
}

// Starts the ways that the user has chosen, in a network of their own.
class Ways {
 public:
  explicit Ways(const Settings& settings) : settings_(settings), folder_(BenchFolder()) {
    StartServer(&server_port_);
  }

  std::vector<StreamWay> All() {
    const GameOptions direct = Options(kServerAddress, server_port_);
    Add("direct", {}, direct);
    GameOptions relayed = direct;
    relayed.with_library = true;
    Add("vyr", {}, relayed);
    GameOptions mended = relayed;
    mended.mended = settings_.mended;
    if (settings_.mended != 0) Add("vyr+mend", {}, mended);
    AddSocat();
    AddHaproxy();
    AddNode(relayed);
    AddTwoSocats();
    return std::move(ways_);
  }

 private:
  GameOptions Options(const std::string& address, std::uint16_t port) const {
    GameOptions options;
    options.server = address;
    options.port = port;
    options.folder = folder_;
    return options;
  }

  // Counts the processor time of the forwarders.
  void Add(const std::string& name, std::vector<Forwarder> forwarders, GameOptions options) {
    if (!settings_.Wants(name)) return;
    for (const Forwarder& one : forwarders) options.forwarders.push_back(one.group());
    ways_.push_back({name, std::move(forwarders), StartGame(options), options.with_library});
  }

  // Adds the game through those forwarders, one of which listens on that port.
  void AddForwarded(const std::string& name, std::vector<Forwarder> forwarders,
                    std::uint16_t port) {
    if (WaitForListener("127.0.0.1", port)) {
      return Add(name, std::move(forwarders), Options("127.0.0.1", port));
    }
    std::fprintf(stderr, "tcp_bench: %s does not listen; left out\n", name.c_str());
  }

  void AddSocat() {
    if (!settings_.Wants("socat")) return;
    if (!HasProgram("socat")) return LeaveOut("socat");
    std::vector<Forwarder> one;
    one.emplace_back(SocatCommand(kFirstForwarderPort, kServerAddress, server_port_));
    AddForwarded("socat", std::move(one), kFirstForwarderPort);
  }

  void AddHaproxy() {
    if (!settings_.Wants("haproxy")) return;
    if (!HasProgram("haproxy")) return LeaveOut("haproxy");
    const std::uint16_t port = kFirstForwarderPort + 1;
    std::vector<Forwarder> one;
    one.emplace_back(HaproxyCommand(folder_, port, kServerAddress, server_port_));
    AddForwarded("haproxy", std::move(one), port);
  }

  // Adds two relays, the library's and the node, and for comparison two of the simplest forwarders.
  void AddNode(GameOptions relayed) {
    if (!settings_.Wants("vyr+node")) return;
    const std::string node = NodeProgram();
    if (node.empty()) return LeaveOut("vyr_node");
    std::vector<Forwarder> one;
    one.emplace_back(std::vector<std::string>{
        node, "--listen", std::string(kNodeAddress) + ":" + std::to_string(kNodePort)});
    if (!WaitForListener(kNodeAddress, kNodePort)) return LeaveOut("vyr_node");
    relayed.node = kNodeAddress;
    relayed.node_port = kNodePort;
    Add("vyr+node", std::move(one), relayed);
  }

  void AddTwoSocats() {
    if (!settings_.Wants("socat+socat") || !HasProgram("socat")) return;
    std::vector<Forwarder> two;
    const std::uint16_t port = kFirstForwarderPort + 2;
    two.emplace_back(SocatCommand(port, kServerAddress, server_port_));
    two.emplace_back(SocatCommand(port + 1, "127.0.0.1", port));
    AddForwarded("socat+socat", std::move(two), port + 1);
  }

  const Settings& settings_;
  const std::string folder_;
  std::uint16_t server_port_ = 0;
  std::vector<StreamWay> ways_;
};

// On some machines, senders pace themselves by an estimate of the network. On a loopback device the
// benchmark would then measure the pacing, which is the same in all ways. If the setting cannot be
// changed, it stays.
void UsePlainCongestionControl() {
  std::ofstream("/proc/sys/net/ipv4/tcp_congestion_control") << "reno";
}

bool Judge(const StreamWay& way, const StreamMeasure& measure, const Outcome& outcome) {
  if (outcome.worked) return true;
  std::fprintf(stderr, "tcp_bench: '%s' failed for %s\n", measure.row.name.c_str(),
               way.name.c_str());
  return false;
}

int Run(const Settings& settings) {
  UsePlainCongestionControl();
  StreamTable table(settings, Measures(settings.quick), Ways(settings).All(), kPairs);
  return table.Run(Judge) ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::RunBench(argc, argv, bench::kUsage, bench::Run); }
