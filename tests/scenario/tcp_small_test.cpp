// Small messages, a few milliseconds apart. Their sender has asked that none waits for the
// acknowledgement of the one before, which a peer may delay by 200 ms. Through the relay that holds
// too, in both directions, for the first messages of a connection and for later ones.
#include <vector>

#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

sim::Options SavingSegments() {
  sim::Options options;
  options.tcp_saves_segments = true;
  return options;
}

class TcpSmall : public TcpWorld {
 protected:
  static constexpr DWORD kGapMs = 5;

  TcpSmall() {
    sim::LinkOptions far;
    far.delay = 10ms;
    for (sim::Host* host : {&a_host, &b_host, &server_host})
      world.SetLink(world.home().host, *host, far);
  }
  static void HoldNothingBack(SOCKET s) {
    const int on = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  }
  static void SayThree(SOCKET s) {
    for (const char* message : {"one", "two", "six"}) {
      SendText(s, message);
      Sleep(kGapMs);
    }
  }
  // The time from the first of three messages to the last.
  sim::Duration HearThree(SOCKET s) {
    std::string got, end;
    EXPECT_TRUE(Collect(s, 3, &got, &end)) << end;
    const auto first = world.now();
    EXPECT_TRUE(Collect(s, 6, &got, &end)) << end;
    EXPECT_EQ(got, "onetwosix");
    return world.now() - first;
  }
  // Two gaps, and something for the worker.
  static void ExpectPrompt(const std::vector<sim::Duration>& times) {
    EXPECT_EQ(times.size(), 3u);
    for (const sim::Duration time : times) EXPECT_LE(time, 30ms);
  }
  const char* const ways_[3] = {kServer, kDirect, kForced};
};

SCENARIO_WITH_(TcpSmall, AServersMessagesReachTheGameOneByOne, TcpSmall, 1, SavingSegments()) {
  serve = [&](SOCKET t, Call* call) {
    HoldNothingBack(t);
    for (int round = 0; round < 3; ++round) {
      SayThree(t);
      Sleep(500);
    }
    call->end = CollectAll(t, &call->got);
  };
  for (const char* server : ways_) {
    SCOPED_TRACE(server);
    const SOCKET s = Joins(server);
    std::vector<sim::Duration> times;
    for (int round = 0; round < 3; ++round) times.push_back(HearThree(s));
    ExpectPrompt(times);
    closesocket(s);
  }
  ExpectServesAgain();
}

SCENARIO_WITH_(TcpSmall, AGamesMessagesReachItsServerOneByOne, TcpSmall, 1, SavingSegments()) {
  std::vector<sim::Duration> times;
  serve = [&](SOCKET t, Call* call) {
    for (int round = 0; round < 3; ++round) times.push_back(HearThree(t));
    call->end = CollectAll(t, &call->got);
  };
  for (const char* server : ways_) {
    SCOPED_TRACE(server);
    times.clear();
    const SOCKET s = Joins(server);
    HoldNothingBack(s);
    for (int round = 0; round < 3; ++round) {
      SayThree(s);
      Sleep(500);
    }
    ExpectPrompt(times);
    closesocket(s);
    RunFor(1s);
  }
  ExpectServesAgain();
}

}  // namespace
