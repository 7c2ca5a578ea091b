// The relay's worker: how it starts, what ends it and what does not, and how it keeps time.
#include "engine/relay_mgr.h"

#include <gtest/gtest.h>

#include <memory>

#include "common/handle.h"
#include "port/shared/faults.h"
#include "tests/scenario/game_process.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/mended.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using namespace sim_test;       // NOLINT

constexpr char kServer[] = "198.51.100.10";
constexpr int kServerPort = 80;

SCENARIO(RelayMgr, TokensCountFromOne) {
  EXPECT_EQ(GetRelayMgr().NextToken(), 1u);
  EXPECT_EQ(GetRelayMgr().NextToken(), 2u);
}

SCENARIO(RelayMgr, AnIdleWorkerEndsWithinTwoPasses) {
  test::LogCapture log(0);
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  const auto before = world.now();
  relay.Stop();
  EXPECT_LE(world.now() - before, 61ms);
  EXPECT_TRUE(log.Contains("[0][lsp]RelayMgr::WorkerProc, FD_SIZE=128\n"));
  EXPECT_TRUE(log.Contains(test::kWorkerEnded));
  EXPECT_EQ(relay.GetWorkerThreadId(), 0u);
  EXPECT_TRUE(relay.IsStopping());
  // Kept: it says that it is running although no worker is.
  EXPECT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  EXPECT_FALSE(world.IsRunning(relay.GetWorkerThreadId()));
  EXPECT_TRUE(relay.IsStopping());
}

// A part that ends later may still use one that has ended before.
SCENARIO(RelayMgr, TheTrackerEndsFirstThenDatagramsThenStreams) {
  test::LogCapture log(0);
  ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
  RunFor(1s);
  GetRelayMgr().Stop();
  const std::string text = log.Text();
  size_t at = 0;
  for (const char* line :
       {"RelayMgr::InternalInit, UDP init is true\n", "RelayMgr::InternalInit, TCP init is true\n",
        "RelayMgr::WorkerProc, FD_SIZE=128\n", "[Tracker] Init.", "[Tracker] UnInit.",
        "[UDP] UdpProvider::OnCloseLocalServer",
        "[TCP] TcpProvider::OnCloseLocalServer. socket=", "RelayMgr::WorkerProc Quit\n"}) {
    at = text.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << " is missing or too early\n" << text;
  }
}

// Not fewer, so that what sessions still hold can leave; nor more, since the game waits.
SCENARIO_SEEDS(RelayMgr, AfterAStopTheWorkerMakesTwoMorePasses, 5) {
  ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
  RunFor(1s);
  port::ClearFaults();
  port::CountCalls();
  GetRelayMgr().Stop();
  EXPECT_EQ(port::CallCount("select"), 2u);
}

SCENARIO(RelayMgr, AWorkerThatDoesNotEndIsKilled) {
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  const DWORD worker = relay.GetWorkerThreadId();
  world.Stall(worker, 10s);
  const auto before = world.now();
  relay.Stop();
  EXPECT_EQ(world.now() - before, 200ms);
  RunFor(20s);
  EXPECT_FALSE(world.IsRunning(worker));
  // Locks that it may have held are not taken again.
  sockaddr_in server = At(kServer, 80);
  sockaddr* relay_addr = nullptr;
  int size = 0;
  EXPECT_FALSE(relay.RequestTcpRelaySession(5, 6, &server, &relay_addr, &size, 7));
  EXPECT_EQ(relay_addr, nullptr);
  // Kept: it says that it is running although none ever will.
  relay.AllowAnotherWorker();
  EXPECT_TRUE(relay.CheckAndInit(3000));
  EXPECT_FALSE(relay.Serves());
}

// Each datagram on its way to the relay asks; the look costs some calls of the system.
SCENARIO(RelayMgr, AWorkersThreadIsLookedAtOnceInTheTimeOfTrust) {
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  const auto looks = [&](u32 trust_ms) {
    port::ClearFaults();
    port::CountCalls();
    EXPECT_TRUE(relay.StillServes(trust_ms));
    return port::CallCount("OpenThread");
  };
  EXPECT_EQ(looks(100), 1u);
  RunFor(99ms);
  EXPECT_EQ(looks(100), 0u);
  RunFor(1ms);
  EXPECT_EQ(looks(100), 1u);
  EXPECT_EQ(looks(0), 1u);
}

SCENARIO(RelayMgr, AnIdlePassTakesTwentyMilliseconds) {
  ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
  RunFor(1s);
  port::ClearFaults();
  port::CountCalls();
  RunFor(1s);
  EXPECT_NEAR(port::CallCount("select"), 50, 1);
}

// A burst of probes asks each time. Until then the worker waits as usual, and afterwards its passes
// are as long as before.
SCENARIO(RelayMgr, AnUpdateThatIsAskedForShortensOnePass) {
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  relay.UpdateWithin(25);
  port::ClearFaults();
  port::CountCalls();
  RunFor(1s);
  EXPECT_NEAR(port::CallCount("select"), 51, 1);
}

// Eight places are kept for sockets on their way that were promised room.
SCENARIO(RelayMgr, HasRoomForWhatItCanPollAlthoughOthersAreOnTheirWay) {
  const test::Mended mended(kMendStart);
  RelayMgr& relay = GetRelayMgr();
  EXPECT_TRUE(relay.HasRoom(120));
  EXPECT_FALSE(relay.HasRoom(121));
  relay.AddSocket(77, nullptr);
  EXPECT_TRUE(relay.HasRoom(119));
  EXPECT_FALSE(relay.HasRoom(120));
  relay.RemoveSocket(77);
}

SCENARIO(RelayMgr, ARequestThatIsForgottenLeavesItsPortFree) {
  const test::Mended mended(kMendStart);
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  const sockaddr_in server = At(kServer, kServerPort);
  const auto is_made = [&](u32 token) {
    sockaddr* listener = nullptr;
    int size = 0;
    bool created = false;
    EXPECT_TRUE(
        relay.RequestTcpRelaySession(5, htons(4000), &server, &listener, &size, token, &created));
    return created;
  };
  EXPECT_TRUE(is_made(7));
  EXPECT_FALSE(is_made(7));
  relay.ForgetTcpRelaySession(htons(4000), 7);
  EXPECT_TRUE(is_made(7));
}

// The game's first connections go direct rather than wait for it again and again.
SCENARIO(RelayMgr, AWorkerThatStartsLateIsAwaitedOnce) {
  test::UseSlowProvider();
  test::LogCapture log(4);
  RelayMgr& relay = GetRelayMgr();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_GE(world.now(), 3000ms);
  EXPECT_LE(world.now(), 3010ms);
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::RelayInitialized(1)));
  const auto before = world.now();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_EQ(world.now(), before);
  RunFor(3s);
  EXPECT_TRUE(relay.CheckAndInit(3000));
}

sim::Options CounterEndsInASecond() {
  sim::Options options;
  options.tick_start = 0u - 1000u;
  return options;
}

// Kept: with the counter's new beginning the time that has passed cannot be told, and the game
// waits until the worker is there.
SCENARIO_OPTIONS(RelayMgr, ALateWorkerIsWaitedForToItsEndAcrossTheWrap, CounterEndsInASecond()) {
  test::UseSlowProvider();
  EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000));
  EXPECT_GE(world.now(), 5000ms);
  EXPECT_LE(world.now(), 5010ms);
}

// Kept: a stream relay is there once its socket is bound, whether it listens or not.
SCENARIO(RelayMgr, AStreamRelayThatCannotListenCountsAsStarted) {
  port::FailCall("listen", 1, WSAEOPNOTSUPP);
  test::LogCapture log(4);
  EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000));
  EXPECT_TRUE(log.Contains(test::kTcpListen + "-1, err=10045\n"));
}

// The datagram relay makes the worker's first socket, the stream relay its second.
void ExpectFailsOnce(sim::World& world, unsigned failing_socket, const char* udp_init) {
  port::FailCall("WSPSocket", failing_socket, WSAENOBUFS);
  test::LogCapture log(4);
  RelayMgr& relay = GetRelayMgr();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_TRUE(log.Contains(std::string("RelayMgr::InternalInit, UDP init is ") + udp_init));
  EXPECT_TRUE(log.Contains("RelayMgr::InternalInit, TCP init is false\n"));
  EXPECT_TRUE(log.Contains(test::RelayInitialized(-2147467259)));
  const auto before = world.now();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_EQ(world.now(), before);
}

SCENARIO(RelayMgr, AWorkerWithoutADatagramRelayIsNotStartedAgain) {
  ExpectFailsOnce(world, 1, "false\n");
}

SCENARIO(RelayMgr, AWorkerWithoutAStreamRelayIsNotStartedAgain) {
  ExpectFailsOnce(world, 2, "true\n");
}

// Their handles may belong to other sockets by then.
SCENARIO(RelayMgr, AStartThatFailsClosesNoSocketsThatItDoesNotHave) {
  test::LogCapture log(0);
  port::FailCall("WSPSocket", 2, WSAENOBUFS);
  EXPECT_FALSE(GetRelayMgr().CheckAndInit(3000));
  RunFor(1s);
  EXPECT_FALSE(log.Contains(test::kTcpListenerClosed));
}

// A stop ends a failure as well: the next request tries again.
SCENARIO(RelayMgr, AfterAStopAFailedStartIsTriedAgain) {
  ExpectFailsOnce(world, 2, "true\n");
  RelayMgr& relay = GetRelayMgr();
  relay.Stop();
  EXPECT_EQ(relay.GetWorkerThreadId(), 0u);
  EXPECT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  EXPECT_TRUE(world.IsRunning(relay.GetWorkerThreadId()));
}

// --- the timers -------------------------------------------------------------------------------

// Updates show in a session without sockets, which the next one takes away.
class RelayTimers : public sim::ScenarioTest {
 protected:
  RelayTimers() {
    EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000));
    RunFor(1s);
    log = std::make_unique<test::LogCapture>(4);
  }
  void LeavesASession(int port) {
    const sockaddr_in server = At(kServer, kServerPort);
    sockaddr* listener = nullptr;
    int size = 0;
    const SOCKET s = Tcp();
    EXPECT_EQ(BindTo(s, "127.0.0.1", port), 0);
    EXPECT_TRUE(GetRelayMgr().RequestTcpRelaySession(s, htons(static_cast<u16>(port)), &server,
                                                     &listener, &size, 7));
    port::FailCall("getsockname", 1, WSAENOBUFS);
    EXPECT_EQ(connect(s, listener, size), 0);
  }
  int Updates() const {
    const std::string text = log->Text(), line = "TcpSession::IsObsolete, tick 0, ";
    int lines = 0;
    for (size_t at = text.find(line); at != text.npos; at = text.find(line, at + 1)) ++lines;
    return lines;
  }
  // Any datagram wakes the worker; one that it does not understand has no other effect.
  void WakeTheWorker() {
    sockaddr_in control = {};
    GetRelayMgr().GetUdpLocalAddr(&control);
    sendto(stranger, "x", 1, 0, Raw(control), sizeof control);
    RunFor(200us);
  }
  void AwaitTick(u32 tick) {
    while (GetTickCount() != tick) RunFor(100us);
  }

  std::unique_ptr<test::LogCapture> log;
  const SOCKET stranger = Udp();
};

SCENARIO_F(RelayTimers, UpdatesAreMoreThanThirtyMillisecondsApart) {
  LeavesASession(40'000);
  while (Updates() == 0) RunFor(100us);
  const u32 update = GetTickCount();
  LeavesASession(40'001);
  for (const u32 after : {10u, 20u, 29u, 30u}) {
    AwaitTick(update + after);
    WakeTheWorker();
    EXPECT_EQ(Updates(), 1) << after;
  }
  AwaitTick(update + 31);
  WakeTheWorker();
  EXPECT_EQ(Updates(), 2);
}

// The client program signals an event whose name has the process's number.
SCENARIO(RelayMgr, TheWorkerAlsoTakesCareOfTheRoutesTables) {
  test::LogCapture log(5);
  ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
  RunFor(31s);
  const std::string name = "spur_iplist_change_notify_" + std::to_string(GetCurrentProcessId());
  const common::UniqueHandle changed(CreateEventA(nullptr, FALSE, FALSE, name.c_str()));
  SetEvent(changed.get());
  RunFor(31s);
  EXPECT_TRUE(log.Contains("[Route][OnUpdate] Spur iplist content has changed, reload it!\n"));
}

SCENARIO(RelayMgr, MostErrorsOfSelectDoNotEndTheWorker) {
  test::LogCapture log(0);
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  for (const DWORD error : {WSAENOTSOCK, WSAEINVAL, WSAENOBUFS, WSAEINTR, WSAEINPROGRESS}) {
    port::FailCall("WSPSelect", 1, error);
    RunFor(1s);
    EXPECT_TRUE(log.Contains(
        "[0][lsp]RelayMgr::WorkerProc select return error = " + std::to_string(error) + "\n"));
    EXPECT_TRUE(world.IsRunning(relay.GetWorkerThreadId())) << error;
  }
}

TEST(RelayMgr, ThreeErrorsOfSelectEndTheWorker) {
  for (const DWORD error : {WSANOTINITIALISED, WSAEFAULT, WSAENETDOWN}) {
    SCOPED_TRACE(error);
    sim::RunScenario({}, 1, [error](sim::World& world) {
      test::LogCapture log(0);
      ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
      world.RunFor(1s);
      const DWORD worker = GetRelayMgr().GetWorkerThreadId();
      port::FailCall("WSPSelect", 1, error);
      world.RunFor(1s);
      EXPECT_FALSE(world.IsRunning(worker));
      EXPECT_TRUE(log.Contains(test::kTcpListenerClosed));
      EXPECT_TRUE(log.Contains(test::kWorkerEnded));
    });
  }
}

}  // namespace
