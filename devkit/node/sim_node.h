// The node as an actor of a simulated world: the same code as vyr_node, on a host of its own, with
// the methods that scenarios need.
//
//   node::SimNode a(world, world.AddHost("a", {"198.51.100.20"}));
//   a.StopsAnswering();
//   …
//   EXPECT_EQ(a.Count("request"), 1u);
//
// Use it on the director's thread. A change takes effect at the node's next step, at most 20 ms
// later.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "node/node.h"
#include "port/sim/sim.h"

namespace node {

class SimNode {
 public:
  static constexpr u16 kPort = 7001;
  static constexpr u32 kStepMs = 20;

  // Listens on the host's first address from the world's next moment on. With a port for
  // control, on the same address.
  SimNode(sim::World& world, sim::Host& host, u16 port = kPort, u16 control_port = 0);
  SimNode(sim::World& world, sim::Host& host, NodeOptions options);
  ~SimNode();  // ends it in order, unless its process is dead
  SimNode(const SimNode&) = delete;
  SimNode& operator=(const SimNode&) = delete;

  Address address() const { return options_.listen; }
  sim::Process& process() { return *process_; }
  // For any behaviour that has no method here.
  Behaviour& behaviour() { return shared_->behaviour; }

  SimNode& Behaves(const Behaviour& as = {});  // well, by default
  SimNode& StopsAnswering();
  SimNode& AnswersAgain();
  SimNode& AnswersWith(u8 result);  // not 0: a refusal
  SimNode& AnswersAfter(u32 delay_ms);
  SimNode& AnswersInPiecesOf(u32 bytes, u32 gap_ms = 20);
  SimNode& AnswersGarbage(u32 bytes = 64);
  SimNode& ServesIsps(u32 mask);  // the providers of the client in its answer
  SimNode& CannotReachServers();
  SimNode& ResetsAfter(u64 bytes);
  SimNode& Freezes();
  SimNode& Thaws();
  // Drops all datagrams, as if its cable were pulled: requests, data and probes. Unlike those of a
  // frozen node, they are lost.
  SimNode& GoesDark();
  SimNode& ComesBack();
  // Percent of data and probes: up, down or in both directions.
  SimNode& LosesUp(u32 percent);
  SimNode& LosesDown(u32 percent);
  SimNode& Loses(u32 percent) { return LosesUp(percent).LosesDown(percent); }
  // Half of it in each direction, for data and probes, which stay in order.
  SimNode& DelaysRoundTripBy(u32 delay_ms, u32 jitter_ms = 0);

  // The events so far, in order: all; those of one name; how many; the last one, or an empty one.
  const std::vector<Event>& events() const { return shared_->events; }
  std::vector<Event> Events(const std::string& name) const;
  std::size_t Count(const std::string& name) const { return Events(name).size(); }
  Event Last(const std::string& name) const;
  std::string AllEvents() const;  // for the message of a failed expectation

 private:
  // Used by the node's thread and the director; exists until both have ended.
  struct Shared {
    Behaviour behaviour;
    std::vector<Event> events;
    bool stop = false;
  };

  static void Live(const NodeOptions& options, const std::shared_ptr<Shared>& shared);

  const NodeOptions options_;
  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  sim::Process* process_ = nullptr;
};

}  // namespace node
