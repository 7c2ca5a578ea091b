// What a node has done since it began, for the metrics.
#pragma once
#include <array>
#include <map>
#include <string>
#include <utility>

#include "node/behaviour.h"
#include "node/event.h"
#include "node/flow.h"

namespace node {

class Node;

// Bytes of connections, by direction.
struct StreamBytes {
  u64 to_server = 0, to_client = 0;
};

struct NodeFigures {
  enum Protocol { kTcp, kUdp, kProtocols };

  // Counts an event at the moment it happens; the behaviour is the one that brought it about.
  void Add(const Event& event, const Behaviour& now);
  // Adds what is open now to what has ended, for a look at it.
  void AddOpen(const Node& node);

  u64 accepted = 0;
  std::map<std::string, u64> ended = {};  // connections, by how
  std::array<u64, kProtocols> requests = {}, bad_requests = {}, server_failures = {};
  std::array<u64, kProtocols> agreed = {}, garbage = {};
  std::map<std::pair<Protocol, u64>, u64> refusals = {};  // by the result in the answer
  // How often the node did something else than a good one would, by behaviour and its value.
  std::map<std::pair<std::string, std::string>, u64> misbehaved = {};
  StreamBytes streams = {};
  u64 flows_opened = 0, flows_closed = 0;
  FlowCounts flows = {};
  u64 unknown_datagrams = 0;
  u64 errors = 0;
  // Only as told by AddOpen.
  u64 open_connections = 0, open_flows = 0;
  Behaviour behaviour = {};

 private:
  void AddRequest(Protocol protocol, const Behaviour& now);
  void AddAnswer(Protocol protocol, const Event& event);
  void AddEnd(const Event& event, const Behaviour& now);
  void Misbehaved(const char* name, const Behaviour& now);
};

// The figures of a flow by their names in events.
struct FlowCountRow {
  const char* name;
  u64 FlowCounts::*member;
};
const std::array<FlowCountRow, 12>& FlowCountRows();

// In the form of Prometheus.
std::string MetricsOf(const NodeFigures& figures, const std::string& version);

// A behaviour's value in words, or as a number.
std::string ValueText(const BehaviourField& field, const Behaviour& behaviour);

}  // namespace node
