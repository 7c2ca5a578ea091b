// Flows of a game that may start Winsock anew, while it does not: they are found alive at each
// send.
#include "abi/mending_formats.h"
#include "tests/scenario/udp_world.h"

namespace {
using namespace udp_test;  // NOLINT: the verbs of these tests

class RestartableFlow : public UdpWorld {
 protected:
  RestartableFlow() : UdpWorld(moru_vyr::lsp::kMendRestart) { Starts(); }
};

SCENARIO_F(RestartableFlow, StaysWithItsRelayFromSendToSend) {
  const SOCKET s = Udp();
  for (const char* const text : {"one", "two", "three"}) {
    EXPECT_EQ(Talks(s, text), std::string(text) + " from 198.51.100.10:27015");
  }
  EXPECT_EQ(Heard("A"), (std::vector<std::string>{"one", "two", "three"})) << AllHeard();
}

}  // namespace
