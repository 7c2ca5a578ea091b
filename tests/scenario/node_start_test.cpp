// A node that cannot find its own addresses must not start: it would tell every client a port at
// which nobody listens.
#include "port/shared/faults.h"
#include "tests/scenario/node_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests

class NodeStart : public NodeWorld {
 protected:
  // Why the node does not start while the n-th question for a socket's address fails; empty if it
  // starts. 0: none fails.
  std::string ProblemWhereNoNameIsFound(unsigned nth) {
    std::string problem;
    OnNode([&problem, nth] {
      if (nth > 0) port::FailCall("getsockname", nth, WSAENOBUFS);
      node::NodeOptions options;
      options.listen = At(7001);
      options.control = At(7002);
      node::Node node(options, [](const node::Event&) {});
      const bool started = node.Start(&problem);
      EXPECT_EQ(started, problem.empty());
      port::ClearFaults();
    });
    EXPECT_TRUE(RunToTheEnd());
    return problem;
  }

 private:
  static node::Address At(int port) { return node::Address::Of(sim_test::At(kNode, port)); }
};

SCENARIO_F(NodeStart, SucceedsWhereEachOfItsAddressesIsFound) {
  EXPECT_EQ(ProblemWhereNoNameIsFound(0), "");
}

SCENARIO_F(NodeStart, FailsWhereItsOwnAddressIsNotFound) {
  EXPECT_EQ(ProblemWhereNoNameIsFound(1), "cannot listen on 198.51.100.20:7001: error 10055");
}

SCENARIO_F(NodeStart, FailsWhereItsAddressForDataIsNotFound) {
  EXPECT_EQ(ProblemWhereNoNameIsFound(2), "cannot listen on 198.51.100.20:0: error 10055");
}

SCENARIO_F(NodeStart, FailsWhereItsAddressForCommandsIsNotFound) {
  EXPECT_EQ(ProblemWhereNoNameIsFound(3), "cannot listen on 198.51.100.20:7002: error 10055");
}

}  // namespace
