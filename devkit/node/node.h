// The reference acceleration node. One object, one thread: its owner calls Step in a loop.
#pragma once
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "node/connection.h"
#include "node/control_port.h"
#include "node/data_path.h"
#include "node/flow_table.h"
#include "node/negotiation.h"
#include "node/node_figures.h"

namespace node {

struct NodeOptions {
  Address listen = {};                  // port 0: any; the event "listening" has it
  u16 data_port = 0;                    // of datagram flows; 0: any; in the same event
  std::optional<Address> control = {};  // none: no control port
  std::optional<Address> metrics = {};  // where the owner serves them; none: nowhere
  std::optional<u32> source_ip = {};    // none: as the listening address says, see Start
  Limits limits = {};
  Behaviour behaviour = {};
};

class Node {
 public:
  // `sink` gets every event when it happens, on the thread that calls Step, beginning with its
  // number (1, 2, …) and the time. It must not call back. The behaviour may be owned by the caller;
  // "restore" then restores that of the options.
  Node(NodeOptions options, EventSink sink, Behaviour* behaviour = nullptr);
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // False if a port is not available; *problem says which and why. Unless a source address is
  // given, connections to game servers come from the listening address, if that can reach other
  // machines, so a game server sees the node's address.
  bool Start(std::string* problem);

  // Waits for something to do, `most_ms` at most, and does what can be done now.
  void Step(u32 most_ms);

  // Whether the control port was asked to end the node.
  bool stop_asked() const { return stop_asked_; }
  // May be changed between steps.
  Behaviour& behaviour() { return *behaviour_; }
  const Behaviour& behaviour() const { return *behaviour_; }
  Address listening() const { return context_.own; }
  Address data() const { return context_.data; }
  Address control() const { return context_.control; }
  std::size_t connections() const { return connections_.size(); }
  std::size_t flows() const { return flows_.all().size(); }
  // What those that are open have carried so far.
  StreamBytes OpenStreamBytes() const;
  FlowCounts OpenFlowCounts() const;

 private:
  u64 Now() const { return context_.clock.Now(); }
  void Emit(const Event& event);
  ControlTarget MakeControlTarget();
  bool StartPorts(std::string* problem);
  bool TryPorts(Address* address, int* error);
  bool StartControl(const Address& address, std::string* problem);
  u64 WantAll(u64 now, u64 due);
  void Accept(u64 now);
  u64 CloseAll(bool reset, const std::string& reason);

  const NodeOptions options_;
  const EventSink sink_;
  Behaviour own_behaviour_;
  Behaviour* const behaviour_;
  NodeContext context_;
  Poller poller_;
  Socket listener_;
  FlowTable flows_{&context_};
  Negotiation negotiation_{&context_, &flows_};
  DataPath data_{&context_, &flows_};
  ControlPort control_;
  std::list<std::unique_ptr<Connection>> connections_;
  u64 events_ = 0;
  u64 next_id_ = 1;
  u64 accept_again_at_ = 0;
  bool stop_asked_ = false;
};

}  // namespace node
