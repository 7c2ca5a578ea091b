// The tick counter starts again after 49.7 days, at any moment of a connection. Kept: the relay's
// timers then start again, or stand still until the counter has caught up; the bytes never stop.
#include <cstdio>
#include <memory>

#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

constexpr sim::Duration kWrap = 3s;  // at the earliest

class TcpClock : public TcpWorld {
 public:
  using Course = bool (TcpClock::*)(sim::Duration wrap);

  // 100 ms before the counter wraps the server closes. True: the game saw the end.
  bool DeliveryAfterClose(sim::Duration wrap) {
    serve = [&](SOCKET t, Call* call) {
      Sleep(static_cast<DWORD>((wrap - 100ms - world.now()) / 1ms));
      SendAll(t, "goodbye");
      call->end = "closed";
    };
    const SOCKET s = Joins(kDirect);
    std::string got, end;
    EXPECT_TRUE(Collect(s, 7, &got, &end));
    EXPECT_EQ(got, "goodbye");
    EXPECT_LT(world.now(), wrap);
    if (!ReadableWithin(s, 30'000)) return false;
    EXPECT_EQ(CollectAll(s, &got), "closed");
    EXPECT_EQ(got, "goodbye");
    // Marked before the counter wrapped, so the 200 ms count from the wrap on.
    EXPECT_GE(world.now(), wrap + 200ms);
    EXPECT_LE(world.now(), wrap + 320ms);
    return true;
  }

  // Five seconds of a silent node, with the wrap in the middle. True: the time-out came.
  bool Negotiation(sim::Duration wrap) {
    a.StopsAnswering();
    RunFor(100ms);
    const auto start = world.now();
    const SOCKET s = Joins();
    SendAll(s, "early");
    if (!ReadableWithin(s, 60'000)) return false;
    std::string got, end;
    EXPECT_TRUE(Collect(s, 5, &got, &end));
    EXPECT_EQ(got, "early");
    EXPECT_EQ(LastCall().from, "B");
    EXPECT_LT(start, wrap);
    EXPECT_GE(world.now() - start, 5s);
    EXPECT_LE(world.now() - start, 5'200ms);
    return true;
  }

  // Everything that needs no timer goes on. True: the connection could be given up.
  bool Streams(sim::Duration wrap) {
    const SOCKET s = Joins();
    while (world.now() < wrap + 100ms) {
      EXPECT_EQ(Talks(s, Pattern(1000)), Pattern(1000));
      RunFor(world.now() < wrap - 200ms ? 500ms : 7ms);
    }
    const SOCKET t = Joins();
    EXPECT_EQ(Talks(t, Pattern(1000)), Pattern(1000));
    closesocket(t);
    closesocket(s);
    return RunUntil([&] { return NodesAreFree(); }, 30s);
  }
};

// The wrap falls at different points of the worker's passes, one every 20 ms with an update at
// every second one. Returns in how many worlds the timers went on, and in how many they stood
// still.
struct Outcome {
  int went_on = 0;
  int stood_still = 0;
};
Outcome AtEachOffset(TcpClock::Course course) {
  Outcome outcome;
  for (int offset_ms = 0; offset_ms < 40; offset_ms += 4) {
    SCOPED_TRACE(offset_ms);
    const sim::Duration wrap = kWrap + std::chrono::milliseconds(offset_ms);
    sim::Options options;
    options.tick_start = 0u - static_cast<uint32_t>(wrap / 1ms);
    const sim::ChildResult result = sim::RunInChild(
        options,
        [&](sim::World&) {
          std::puts((TcpClock().*course)(wrap) ? "went on" : "stood still");
          std::fflush(stdout);
        },
        sim::GtestVerdict);
    EXPECT_TRUE(result.passed) << result.HowItEnded() << "\n" << result.output << result.last_lines;
    outcome.went_on += result.output.find("went on") != std::string::npos;
    outcome.stood_still += result.output.find("stood still") != std::string::npos;
  }
  return outcome;
}

TEST(TcpClock, LastBytesThatTheCounterInterruptsStartAgainOrWait) {
  const Outcome outcome = AtEachOffset(&TcpClock::DeliveryAfterClose);
  EXPECT_GT(outcome.went_on, 0);
  EXPECT_GT(outcome.stood_still, 0);
}

TEST(TcpClock, ANegotiationThatTheCounterInterruptsTakesItsFiveSecondsOrWaits) {
  const Outcome outcome = AtEachOffset(&TcpClock::Negotiation);
  EXPECT_GT(outcome.went_on, 0);
  EXPECT_GT(outcome.stood_still, 0);
}

TEST(TcpClock, BytesFlowOnEvenWhereTheTimersStandStill) {
  const Outcome outcome = AtEachOffset(&TcpClock::Streams);
  EXPECT_EQ(outcome.went_on + outcome.stood_still, 10);
  EXPECT_GT(outcome.went_on, 0);
}

}  // namespace
