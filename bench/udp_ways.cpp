#include "bench/udp_ways.h"

#include <errno.h>

#include <cstdio>
#include <utility>

#include "bench/private_network.h"
#include "bench/udp_server.h"

namespace bench {
namespace {

constexpr std::uint16_t kNodePort = 9000;
constexpr std::uint16_t kFirstForwarderPort = 20200;

std::vector<Forwarder> Started(const std::vector<std::vector<std::string>>& commands) {
  std::vector<Forwarder> forwarders;
  for (const auto& command : commands) forwarders.emplace_back(command);
  return forwarders;
}

}  // namespace

UdpWays::UdpWays(const Settings& settings)
    : settings_(settings),
      folder_(BenchFolder()),
      next_port_(kFirstForwarderPort),
      next_node_port_(kNodePort) {
  StartEchoServer(&server_port_);
}

std::vector<FlowWay> UdpWays::Forwarding() {
  std::vector<FlowWay> ways;
  const DatagramGameOptions direct = Options(kServerAddress, server_port_);
  if (settings_.Wants("direct")) ways.push_back({"direct", {}, StartGame(direct)});
  DatagramGameOptions relayed = direct;
  relayed.with_library = true;
  if (settings_.Wants("vyr")) ways.push_back({"vyr", {}, StartGame(relayed), true});
  relayed.library.mended = settings_.mended;
  if (settings_.mended != 0 && settings_.Wants("vyr+mend")) {
    ways.push_back({"vyr+mend", {}, StartGame(relayed), true});
  }
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

std::vector<FlowWay> UdpWays::Cares() {
  std::vector<FlowWay> ways;
  AddNode("vyr+node", Care::kAll, &ways);
  AddNode("no probes", Care::kNoProbes, &ways);
  AddNode("no measure", Care::kNoMeasure, &ways);
  LibrarySetup logs;
  logs.log_level = 4;
  AddNode("log 4", logs, &ways);
  logs.log_level = 0;
  AddNode("log 0", logs, &ways);
  return ways;
}

DatagramGameOptions UdpWays::Options(const std::string& address, std::uint16_t port) const {
  DatagramGameOptions options;
  options.address = address;
  options.port = port;
  options.library.server = kServerAddress;
  options.library.folder = folder_;
  return options;
}

ForwardedPort UdpWays::NextPort(const std::string& to, std::uint16_t to_port) {
  return {next_port_++, to, to_port};
}

std::vector<Forwarder> UdpWays::BySelect(int count) {
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
void UdpWays::AddForwarded(const std::string& name, std::vector<Forwarder> forwarders,
                           std::vector<FlowWay>* ways) {
  if (!settings_.Wants(name)) return;
  const auto port = static_cast<std::uint16_t>(next_port_ - 1);
  if (!WaitForEcho(port)) {
    std::fprintf(stderr, "%s: %s does not forward; left out\n", program_invocation_short_name,
                 name.c_str());
    return;
  }
  DatagramGameOptions options = Options("127.0.0.1", port);
  for (const Forwarder& one : forwarders) options.forwarders.push_back(one.group());
  ways->push_back({name, std::move(forwarders), StartGame(options)});
}

void UdpWays::AddNginx(std::vector<FlowWay>* ways) {
  const auto command = NginxCommand(folder_, NextPort(kServerAddress, server_port_));
  if (!HasProgram("nginx") || command.empty()) return LeaveOut("nginx with its stream module");
  AddForwarded("nginx", Started({command}), ways);
}

void UdpWays::AddNode(const std::string& name, Care care, std::vector<FlowWay>* ways) {
  LibrarySetup library;
  library.care = care;
  AddNode(name, library, ways);
}

// Each way has a node of its own, so that the load of the nodes is the same, too.
void UdpWays::AddNode(const std::string& name, const LibrarySetup& library,
                      std::vector<FlowWay>* ways) {
  if (!settings_.Wants(name)) return;
  const std::string node = NodeProgram();
  if (node.empty()) return LeaveOut("vyr_node");
  const std::uint16_t port = next_node_port_++;
  std::vector<Forwarder> one =
      Started({{node, "--listen", std::string(kNodeAddress) + ":" + std::to_string(port)}});
  if (!WaitForListener(kNodeAddress, port)) return LeaveOut("vyr_node");
  DatagramGameOptions options = Options(kServerAddress, server_port_);
  options.with_library = true;
  options.library.care = library.care;
  options.library.log_level = library.log_level;
  options.library.node = kNodeAddress;
  options.library.node_port = port;
  options.forwarders = {one[0].group()};
  ways->push_back({name, std::move(one), StartGame(options), true});
}

}  // namespace bench
