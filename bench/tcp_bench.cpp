// What a relayed connection costs, beside a direct one and beside other programs that forward the
// same way, on this machine and in one run. See bench/README.md for how to read it.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/comparison.h"
#include "bench/forwarder.h"
#include "bench/private_network.h"
#include "bench/tcp_forwarders.h"
#include "bench/tcp_game.h"
#include "bench/tcp_server.h"

namespace bench {
namespace {

constexpr char kUsage[] =
    "usage: tcp_bench [--rounds N] [--only WORD] [--way NAME]... [--quick] [--json]\n"
    "\n"
    "  --rounds N   how often each measurement is taken in each way, in turn (default 9)\n"
    "  --only WORD  the measurements that have this word in their name\n"
    "  --way NAME   this way only, or these: direct, vyr, socat, haproxy, vyr+node, socat+socat\n"
    "  --quick      small amounts, to see that it runs; its figures mean nothing\n"
    "  --json       one JSON object instead of the table\n"
    "\n"
    "Runs in the private network of scripts/testbed, which it enters by itself.\n";

constexpr std::uint16_t kNodePort = 9000;
constexpr std::uint16_t kFirstForwarderPort = 20100;
constexpr std::uint64_t kLeastBulk = 4 << 20;  // for each connection

struct Settings {
  int rounds = 9;
  std::string only;
  std::vector<std::string> ways;  // empty: all
  bool quick = false;
  bool json = false;
};

// One way from the game to its server.
struct Way {
  std::string name;
  std::vector<Forwarder> forwarders;  // each in front of the one before
  std::unique_ptr<Game> game;
};

struct Measure {
  Row row;
  Order order;
  double (*value)(const Order&, const Outcome&);
};

const std::vector<Pair> kPairs = {
    {"vyr", "direct"}, {"vyr", "socat"}, {"vyr", "haproxy"}, {"vyr+node", "socat+socat"}};

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

std::vector<Measure> Measures(bool quick) {
  const std::uint64_t bytes = quick ? 1 << 20 : 64 << 20;
  const std::uint64_t trips = quick ? 50 : 4000;
  const std::uint64_t connects = quick ? 5 : 200;
  std::vector<Measure> measures = {
      {{"download", "MB/s", true}, {Task::kDownload, 0, bytes, 0}, MegabytesPerSecond},
      {{"upload", "MB/s", true}, {Task::kUpload, 0, bytes, 0}, MegabytesPerSecond},
      {{"reply, median", "us", false}, {Task::kReply, 0, trips, kMessage}, MedianUs},
      {{"reply, p99", "us", false}, {Task::kReply, 0, trips, kMessage}, P99Us},
      {{"in two pieces, median", "us", false},
       {Task::kReply, 0, trips / 20, kMessage, 2},
       MedianUs},
      {{"connections set up", "/s", true}, {Task::kConnect, 0, connects, 0}, StepsPerSecond},
      {{"connection, median", "us", false}, {Task::kConnect, 0, connects, 0}, MedianUs},
  };
  for (const std::uint32_t count : {1u, 4u, 16u, 60u}) {
    const Order bulk = {Task::kBulk, count, std::max(bytes / count, quick ? 0 : kLeastBulk), 0};
    const Order events = {Task::kEvents, count, trips * 2 / count, kMessage};
    const std::string of = ", " + std::to_string(count) + " conn.";
    measures.push_back({{"download" + of, "MB/s", true}, bulk, MegabytesPerSecond});
    measures.push_back({{"processor" + of, "us/MB", false}, bulk, CpuUsPerMegabyte});
    measures.push_back({{"round trips" + of, "/s", true}, events, StepsPerSecond});
    measures.push_back({{"processor" + of, "us/trip", false}, events, CpuUsPerRoundTrip});
  }
  return measures;
}

class Bench {
 public:
  explicit Bench(const Settings& settings)
      : settings_(settings), measures_(Measures(settings.quick)) {
    const char* const folder = std::getenv("VYR_BED_DIR");
    folder_ = std::string(folder != nullptr ? folder : "/tmp") + "/bench";
    std::filesystem::create_directories(folder_);
    server_ = StartServer(&server_port_);
    AddWays();
    const std::vector<std::string>& asked = settings_.ways;
    std::erase_if(ways_, [&](const Way& way) {
      return !asked.empty() && std::find(asked.begin(), asked.end(), way.name) == asked.end();
    });
    std::vector<Row> rows;
    for (const Measure& measure : measures_) rows.push_back(measure.row);
    std::vector<std::string> names;
    for (const Way& way : ways_) names.push_back(way.name);
    comparison_ = std::make_unique<Comparison>(rows, names, kPairs);
  }

  int Run() {
    for (int round = 0; round < settings_.rounds; ++round) {
      if (isatty(STDERR_FILENO) != 0)
        std::fprintf(stderr, "\rround %d of %d", round + 1, settings_.rounds);
      for (std::size_t i = 0; i < measures_.size();) i = TakeTurns(i);
    }
    if (isatty(STDERR_FILENO) != 0) std::fprintf(stderr, "\r                    \r");
    settings_.json ? comparison_->PrintJson(settings_.rounds) : comparison_->PrintTable();
    return failed_ ? 1 : 0;
  }

 private:
  static bool SameOrder(const Order& a, const Order& b) {
    return a.task == b.task && a.connections == b.connections && a.amount == b.amount &&
           a.pieces == b.pieces;
  }

  // All ways, one after the other; what is measured together is one run of the game.
  std::size_t TakeTurns(std::size_t first) {
    const Order& order = measures_[first].order;
    std::size_t end = first;
    while (end < measures_.size() && SameOrder(measures_[end].order, order)) ++end;
    if (measures_[first].row.name.find(settings_.only) == std::string::npos) return end;
    for (Way& way : ways_) {
      const Outcome outcome = way.game->Does(order);
      if (!outcome.worked) {
        std::fprintf(stderr, "tcp_bench: '%s' failed for %s\n", measures_[first].row.name.c_str(),
                     way.name.c_str());
        failed_ = true;
        continue;
      }
      for (std::size_t i = first; i < end; ++i) {
        comparison_->Add(i, way.name, measures_[i].value(order, outcome));
      }
    }
    return end;
  }

  GameOptions Options(const std::string& address, std::uint16_t port) const {
    GameOptions options;
    options.server = address;
    options.port = port;
    options.folder = folder_;
    return options;
  }

  // The game through those forwarders; what they use counts.
  void AddForwarded(const std::string& name, std::vector<Forwarder> forwarders,
                    std::uint16_t port) {
    if (!WaitForListener("127.0.0.1", port)) {
      std::fprintf(stderr, "tcp_bench: %s does not listen; left out\n", name.c_str());
      return;
    }
    GameOptions options = Options("127.0.0.1", port);
    for (const Forwarder& one : forwarders) options.forwarders.push_back(one.group());
    auto game = std::make_unique<Game>(options);
    ways_.push_back({name, std::move(forwarders), std::move(game)});
  }

  void AddWays() {
    ways_.push_back({"direct", {}, std::make_unique<Game>(Options(kServerAddress, server_port_))});
    GameOptions relayed = Options(kServerAddress, server_port_);
    relayed.with_library = true;
    ways_.push_back({"vyr", {}, std::make_unique<Game>(relayed)});
    AddSocat();
    AddHaproxy();
    AddNode(relayed);
  }

  void AddSocat() {
    if (!HasProgram("socat")) return LeaveOut("socat");
    std::vector<Forwarder> one;
    one.emplace_back(SocatCommand(kFirstForwarderPort, kServerAddress, server_port_));
    AddForwarded("socat", std::move(one), kFirstForwarderPort);
  }

  void AddHaproxy() {
    if (!HasProgram("haproxy")) return LeaveOut("haproxy");
    const std::uint16_t port = kFirstForwarderPort + 1;
    std::vector<Forwarder> one;
    one.emplace_back(HaproxyCommand(folder_, port, kServerAddress, server_port_));
    AddForwarded("haproxy", std::move(one), port);
  }

  // Two relays, the library's and the node; beside it, two of the simplest.
  void AddNode(GameOptions relayed) {
    const std::string node =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../bin/vyr_node";
    if (access(node.c_str(), X_OK) != 0) return LeaveOut("vyr_node");
    std::vector<Forwarder> one;
    one.emplace_back(std::vector<std::string>{
        node, "--listen", std::string(kNodeAddress) + ":" + std::to_string(kNodePort)});
    if (!WaitForListener(kNodeAddress, kNodePort)) return LeaveOut("vyr_node");
    relayed.forwarders = {one[0].group()};
    relayed.node = kNodeAddress;
    relayed.node_port = kNodePort;
    ways_.push_back({"vyr+node", std::move(one), std::make_unique<Game>(relayed)});
    if (!HasProgram("socat")) return;
    std::vector<Forwarder> two;
    const std::uint16_t port = kFirstForwarderPort + 2;
    two.emplace_back(SocatCommand(port, kServerAddress, server_port_));
    two.emplace_back(SocatCommand(port + 1, "127.0.0.1", port));
    AddForwarded("socat+socat", std::move(two), port + 1);
  }

  static void LeaveOut(const char* name) {
    std::fprintf(stderr, "tcp_bench: no %s here; left out\n", name);
  }

  const Settings settings_;
  const std::vector<Measure> measures_;
  std::string folder_;
  pid_t server_ = 0;
  std::uint16_t server_port_ = 0;
  std::vector<Way> ways_;
  std::unique_ptr<Comparison> comparison_;
  bool failed_ = false;
};

bool ReadArguments(int argc, char** argv, Settings* settings) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--quick") {
      settings->quick = true;
    } else if (word == "--json") {
      settings->json = true;
    } else if (word == "--rounds" && i + 1 < argc && std::atoi(argv[i + 1]) > 0) {
      settings->rounds = std::atoi(argv[++i]);
    } else if (word == "--only" && i + 1 < argc) {
      settings->only = argv[++i];
    } else if (word == "--way" && i + 1 < argc) {
      settings->ways.push_back(argv[++i]);
    } else {
      return false;
    }
  }
  return true;
}

// Some machines' default lets every sender pace itself by what it thinks of the network. Over a
// loopback that is what would be measured, in all ways alike. Where it cannot be changed it stays.
void UsePlainCongestionControl() {
  std::ofstream("/proc/sys/net/ipv4/tcp_congestion_control") << "reno";
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Settings settings;
  if (!bench::ReadArguments(argc, argv, &settings)) {
    std::fputs(bench::kUsage, argc == 2 && !std::strcmp(argv[1], "--help") ? stdout : stderr);
    return argc == 2 && !std::strcmp(argv[1], "--help") ? 0 : 2;
  }
  if (!bench::InPrivateNetwork()) return bench::EnterPrivateNetwork(argc, argv);
  bench::UsePlainCongestionControl();
  return bench::Bench(settings).Run();
}
