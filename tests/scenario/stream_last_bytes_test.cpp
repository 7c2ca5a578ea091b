// How long a relayed connection lives after its last bytes have left. At stake: the system needs
// that time to send them, and a session that stays longer keeps two sockets for nothing.
#include <string>

#include "abi/mending_formats.h"
#include "port/sim/scenario.h"
#include "tests/support/direct_stream.h"

namespace {
using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using std::chrono::milliseconds;

class LastBytes : public DirectStreamIn<sim::ScenarioTest> {
 protected:
  explicit LastBytes(u32 bits = 0) : DirectStreamIn(bits) {}

  // Turns the relay until that line is logged, and expects that the session then has 200 ms.
  void ExpectTimeAfter(const std::string& line) {
    const std::string removed = "[TCP]CloseObsoleteSession, remove session, ";
    for (int i = 0; i < 50 && !log.Contains(line); ++i) loop.Turn();
    ASSERT_TRUE(log.Contains(line)) << log.Text();
    provider.OnUpdate(0);
    EXPECT_FALSE(log.Contains(removed));
    world.RunFor(milliseconds(199));
    provider.OnUpdate(199);
    EXPECT_FALSE(log.Contains(removed));
    world.RunFor(milliseconds(1));
    provider.OnUpdate(1);
    EXPECT_TRUE(log.Contains(removed)) << log.Text();
  }
};

SCENARIO_F(LastBytes, OfAGameThatHasClosedHaveTwoHundredMilliseconds) {
  Joins();
  ASSERT_EQ(send(game, "bye", 3, 0), 3);
  game.Close();
  ExpectTimeAfter("DoRemoteWrite, buffer is empty. Marking session obsolete, token=9");
}

class LastBytesOfBoth : public LastBytes {
 protected:
  LastBytesOfBoth() : LastBytes(kMendHalfClose) {}
};

// Each side has ended its sending, and been told of the other's end.
SCENARIO_F(LastBytesOfBoth, HaveTwoHundredMilliseconds) {
  Joins();
  ASSERT_EQ(shutdown(game, SD_SEND), 0);
  const std::string told = "[TCP]TcpSession::PassOnEnd, side=";
  for (int i = 0; i < 50 && !log.Contains(told + "remote"); ++i) loop.Turn();
  ASSERT_EQ(shutdown(server, SD_SEND), 0);
  ExpectTimeAfter(told + "local");
}

}  // namespace
