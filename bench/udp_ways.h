// The ways from a game of datagrams to its server that the benchmarks compare.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "bench/forwarder.h"
#include "bench/measured_table.h"
#include "bench/settings.h"
#include "bench/udp_forwarders.h"
#include "bench/udp_game.h"

namespace bench {

using FlowMeasure = Measure<DatagramOrder, DatagramOutcome>;
using FlowWay = Way<DatagramOrder, DatagramOutcome>;
using FlowTable = MeasuredTable<DatagramOrder, DatagramOutcome>;

// Starts the ways that the user has chosen, in a network of their own, and their server.
class UdpWays {
 public:
  explicit UdpWays(const Settings& settings);

  // What README.md lists: direct, vyr, select, socat, nginx, vyr+node, select+select.
  std::vector<FlowWay> Forwarding();
  // The library with less and less care for its flows.
  std::vector<FlowWay> Cares();

 private:
  DatagramGameOptions Options(const std::string& address, std::uint16_t port) const;
  ForwardedPort NextPort(const std::string& to, std::uint16_t to_port);
  std::vector<Forwarder> BySelect(int count);
  void AddForwarded(const std::string& name, std::vector<Forwarder> forwarders,
                    std::vector<FlowWay>* ways);
  void AddNginx(std::vector<FlowWay>* ways);
  void AddNode(const std::string& name, Care care, std::vector<FlowWay>* ways);
  void AddNode(const std::string& name, const LibrarySetup& library, std::vector<FlowWay>* ways);

  const Settings& settings_;
  const std::string folder_;
  std::uint16_t server_port_ = 0;
  std::uint16_t next_port_;
  std::uint16_t next_node_port_;
};

}  // namespace bench
