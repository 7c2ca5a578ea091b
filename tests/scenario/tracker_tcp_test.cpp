// What the client program learns of TCP connections: every way through a node, past it or around it
// leaves exactly the reports that it should, and no client can delay the game.
#include <cstring>

#include "common/named_mutex.h"
#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "relay/nego_common.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/report_client.h"

namespace {

using namespace tcp_test;       // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT: the records
using node::Behaviour;
using test::UsedSlots;

// The client program is there before the game starts.
struct EarlyClient {
  test::ReportClient client;
};

class TrackerTcp : public EarlyClient, public TcpWorld {
 protected:
  // A whole connection, in which the server echoes that many bytes.
  void Talk(const char* server, size_t bytes) {
    const SOCKET s = Joins(server);
    ASSERT_NE(s, INVALID_SOCKET);
    EXPECT_EQ(Talks(s, Pattern(bytes)), Pattern(bytes));
    closesocket(s);
    EXPECT_TRUE(RunUntil([this] { return !calls.empty() && LastCall().over(); }));
    RunFor(1s);
  }
  void ExpectSlots(int decisions, int negotiations, int failures) {
    EXPECT_EQ(UsedSlots(client.decisions), decisions);
    EXPECT_EQ(UsedSlots(client.negotiations), negotiations);
    EXPECT_EQ(UsedSlots(client.failures), failures);
    EXPECT_EQ(UsedSlots(client.switches), 0);
  }
  const CommInfoRecord* LastReport() {
    for (const CommInfoRecord& record : client.traffic->slots)
      if (record.used != 0 && record.ended != 0) return &record;
    return nullptr;
  }
  static Behaviour Refusing(int result) {
    Behaviour behaviour;
    behaviour.result = result;
    return behaviour;
  }
};

SCENARIO_F(TrackerTcp, WorkerReportsOnceTheProcessAndItsLog) {
  Talk(kServer, 10);
  Talk(kDirect, 10);
  ASSERT_EQ(UsedSlots(client.loaded), 1);
  EXPECT_STREQ(client.loaded->slots[0].process_name, "dawn.exe");
  EXPECT_EQ(client.loaded->slots[0].game_id, 7u);
  ASSERT_EQ(UsedSlots(client.log_paths), 1);
  EXPECT_NE(std::strstr(client.log_paths->slots[0].log_path, "dawn"), nullptr);
}

SCENARIO_F(TrackerTcp, DirectConnectionsHaveOnlyDecisions) {
  Talk(kUnlisted, 20'000);  // is never asked about
  ExpectSlots(0, 0, 0);
  Talk(kDirect, 20'000);
  ExpectSlots(1, 0, 0);
  EXPECT_EQ(UsedSlots(client.traffic), 0);
  const AccDecisionInfo& decision = client.decisions->slots[0];
  EXPECT_EQ(decision.game_ip, 0xc633640bu);
  EXPECT_EQ(decision.game_port, 27015u);
  EXPECT_EQ(decision.socket_type, 0);
}

SCENARIO_F_SEEDS(TrackerTcp, ConnectionThroughANodeIsReportedToTheByte, 5) {
  Talk(kServer, 20'000);
  ExpectSlots(1, 1, 0);
  const RealNegoRecord& n = client.negotiations->slots[0];
  EXPECT_EQ(n.user_isp, 1u);
  EXPECT_EQ(n.last_node_id, 1u);
  EXPECT_EQ(n.last_node_ip, test::Ip(kNodeA));
  EXPECT_EQ(n.proxy_id, 1u);
  EXPECT_STREQ(n.proxy_ip, kNodeA);
  EXPECT_EQ(n.game_ip, 0xc633640au);
  EXPECT_EQ(n.game_port, 27015u);
  const CommInfoRecord* const last = LastReport();
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->socket_type, 1u);
  EXPECT_EQ(last->total_sent_bytes, 20'000u);
  EXPECT_EQ(last->total_recv_bytes, 20'000u);
  EXPECT_GT(last->total_sent_packets, 0u);
  EXPECT_GT(last->total_recv_packets, 0u);
  EXPECT_EQ(last->total_sent_errors + last->total_recv_errors, 0u);
  EXPECT_STREQ(last->game_ip, kServer);
  EXPECT_EQ(last->game_port, 27015u);
  EXPECT_STREQ(last->proxy_ip, kNodeA);
  EXPECT_EQ(last->proxy_idc, 1u);
  EXPECT_EQ(last->game_idc, 11u);
  EXPECT_STREQ(last->guid_str, n.guid);
  EXPECT_STREQ(client.decisions->slots[0].guid, n.guid);
  EXPECT_EQ(std::string(n.guid).size(), 36u);
}

// The worker's last error is "would block" most of the time, and stays so where success clears
// none.
SCENARIO_F(TrackerTcp, ByteCountsDoNotDependOnAnEarlierLastError) {
  port::SuccessKeepsLastError(true);
  Talk(kServer, 20'000);
  const CommInfoRecord* const last = LastReport();
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->total_sent_bytes, 20'000u);
  EXPECT_EQ(last->total_recv_bytes, 20'000u);
  EXPECT_EQ(last->total_sent_errors + last->total_recv_errors, 0u);
}

SCENARIO_F(TrackerTcp, FailedNodeIsReportedAndThenTheOneThatServes) {
  a.Behaves(Refusing(9));
  RunFor(100ms);
  Talk(kServer, 20'000);
  EXPECT_EQ(LastCall().from, "B");
  ExpectSlots(1, 1, 1);
  const NegRetRecord& failure = client.failures->slots[0];
  EXPECT_EQ(failure.neg_type, 0);
  EXPECT_EQ(failure.nego_result, 9);
  EXPECT_EQ(failure.nego_count, 1u);
  EXPECT_GE(failure.elapsed_ms, 1u);
  EXPECT_LT(failure.elapsed_ms, 1000u);
  EXPECT_EQ(failure.proxy_idc, 1u);
  EXPECT_STREQ(failure.proxy_ip, kNodeA);
  EXPECT_EQ(failure.proxy_port, 7001);
  EXPECT_STREQ(failure.game_ip, kServer);
  EXPECT_EQ(failure.game_port, 27015);
  EXPECT_EQ(failure.user_isp, 1u);  // a refusal says it too
  EXPECT_EQ(failure.process_id, GetCurrentProcessId());
  EXPECT_STREQ(client.negotiations->slots[0].proxy_ip, kNodeB);
  EXPECT_STREQ(client.negotiations->slots[0].guid, failure.guid);
  const CommInfoRecord* const last = LastReport();
  ASSERT_NE(last, nullptr);
  EXPECT_STREQ(last->proxy_ip, kNodeB);
  EXPECT_EQ(last->total_sent_bytes, 20'000u);
}

SCENARIO_F(TrackerTcp, TwoFailedNodesAreTwoFailuresAndNoTraffic) {
  a.Behaves(Refusing(9));
  Behaviour silent;
  silent.on_request = Behaviour::kSilent;
  b.Behaves(silent);
  RunFor(100ms);
  Talk(kServer, 20'000);
  EXPECT_EQ(LastCall().from, "game");
  ExpectSlots(0, 0, 2);
  EXPECT_EQ(UsedSlots(client.traffic), 0);
  const NegRetRecord& second = client.failures->slots[1];
  EXPECT_EQ(second.nego_result, int{moru_vyr::lsp::kNegoTimedOut});
  EXPECT_EQ(second.nego_count, 2u);
  EXPECT_STREQ(second.proxy_ip, kNodeB);
  EXPECT_GE(second.elapsed_ms, 5000u);
  EXPECT_LT(second.elapsed_ms, 5200u);
  EXPECT_STREQ(second.guid, client.failures->slots[0].guid);
}

// The shortest time that is reported.
SCENARIO_F(TrackerTcp, FailureWithinAMillisecondIsReportedAsOne) {
  sim::LinkOptions near;
  near.delay = sim::Duration{0};
  world.SetLink(world.home().host, a_host, near);
  a.Behaves(Refusing(9));
  RunFor(100ms);
  Talk(kServer, 10);
  ASSERT_EQ(UsedSlots(client.failures), 1);
  EXPECT_EQ(client.failures->slots[0].elapsed_ms, 1u);
}

// Its value may come back as another connection's.
SCENARIO_F(TrackerTcp, EverySocketThatIsWatchedIsForgottenWhenItIsClosed) {
  a.Behaves(Refusing(9));
  b.Behaves(Refusing(9));
  RunFor(100ms);
  common::SetLogThreshold(0);
  Talk(kServer, 1000);
  const std::string text = log_text();
  const auto lines = [&](const std::string& part) {
    int found = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
    return found;
  };
  EXPECT_EQ(lines("[Tracker] Add "), 3);
  EXPECT_EQ(lines("[Tracker] Remove "), 3);
}

SCENARIO_F(TrackerTcp, ConnectionThatTheServerEndsIsReportedAtOnce) {
  serve = [](SOCKET s, Call* call) {
    SendAll(s, "bye");
    call->end = "served";
  };
  const SOCKET s = Joins();
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "closed");
  RunFor(1s);  // the game's own socket is still open
  const CommInfoRecord* const last = LastReport();
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->total_recv_bytes, 3u);
  EXPECT_LT(last->life, 100u);
  closesocket(s);
}

SCENARIO_F(TrackerTcp, RequestThatCannotBeSentHasItsOwnFailureCode) {
  port::FailCall("WSPSend", 1, WSAENOBUFS);
  const SOCKET s = Joins();
  ASSERT_NE(s, INVALID_SOCKET);
  RunFor(1s);
  port::ClearFaults();
  ExpectSlots(0, 0, 1);
  const NegRetRecord& failure = client.failures->slots[0];
  EXPECT_EQ(failure.nego_result, int{moru_vyr::lsp::kNegoSendFailed});
  EXPECT_EQ(failure.last_error, static_cast<u32>(WSAENOBUFS));
  EXPECT_EQ(failure.nego_count, 1u);
  EXPECT_EQ(failure.elapsed_ms, 0u);
  EXPECT_EQ(UsedSlots(client.traffic), 0);
  closesocket(s);
}

SCENARIO_F(TrackerTcp, OpenConnectionIsReportedEveryFiveSeconds) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  RunFor(26s);
  const int live = UsedSlots(client.traffic);
  EXPECT_GE(live, 5);
  EXPECT_LE(live, 7);
  for (int i = 0; i < live; ++i) {
    const CommInfoRecord& record = client.traffic->slots[i];
    EXPECT_EQ(record.ended, 0);
    if (i < 2) continue;
    const u32 pause = record.life - client.traffic->slots[i - 1].life;
    EXPECT_GT(pause, 5000u);
    EXPECT_LE(pause, 5025u);
    EXPECT_EQ(record.total_sent_bytes, 5u);
  }
  EXPECT_EQ(LastReport(), nullptr);
  closesocket(s);
  RunFor(1s);
  EXPECT_NE(LastReport(), nullptr);
}

// --- clients that keep the worker's thread of reports waiting ---------------------------------

class TrackerTcpHeld : public TrackerTcp {
 protected:
  sim::Process& HoldEveryMutex() {
    sim::Process& holder = world.SpawnOn(world.host("home"), "holder", [] {
      for (const ReportChannel* channel :
           {&kDecisionChannel, &kCommunicationChannel, &kLogPathChannel, &kLoadedChannel,
            &kNegotiationResultChannel, &kRealNegotiationChannel, &kRecoverySwitchChannel}) {
        (new common::NamedMutex(channel->mutex_name))->lock();
      }
      Sleep(INFINITE);
    });
    RunFor(1ms);
    return holder;
  }
};

SCENARIO_F(TrackerTcpHeld, StoppedClientCostsTheGameNothing) {
  sim::Process& holder = HoldEveryMutex();
  const u32 start = GetTickCount();
  Talk(kServer, 20'000);
  const u32 held = GetTickCount() - start;
  EXPECT_EQ(LastCall().from, "A");
  ExpectSlots(0, 0, 0);
  world.Kill(holder);
  RunFor(1s);
  const u32 again = GetTickCount();
  Talk(kServer, 20'000);
  EXPECT_LE(held, GetTickCount() - again + 50);
  ExpectSlots(2, 2, 0);
}

// The worker waits for the sync thread, the game's WSACleanup for the worker: 200 ms, and by force
// after that. A thread that waits for the client program is then released, and writes its reports.
SCENARIO_F(TrackerTcpHeld, CleanupDoesNotWaitForAStoppedClient) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  RunFor(2s);
  ExpectSlots(1, 1, 0);
  sim::Process& holder = HoldEveryMutex();
  const SOCKET direct = Joins(kDirect);  // another decision, which hangs
  RunFor(1s);
  const u32 start = GetTickCount();
  int error = 0;
  EXPECT_EQ(WSPCleanup(&error), 0);
  const u32 took = GetTickCount() - start;
  EXPECT_GE(took, 200u);
  EXPECT_LT(took, 260u);
  ExpectSlots(1, 1, 0);
  world.Kill(holder);
  RunFor(1s);
  ExpectSlots(2, 1, 0);
  closesocket(s);
  closesocket(direct);
}

SCENARIO_F_SEEDS(TrackerTcpHeld, CleanupWritesTheLastReportsInTime, 10) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  RunFor(std::chrono::milliseconds(world.random().Below(3000)));
  const int before = UsedSlots(client.traffic);
  const u32 start = GetTickCount();
  int error = 0;
  EXPECT_EQ(WSPCleanup(&error), 0);
  EXPECT_LT(GetTickCount() - start, 200u);
  ASSERT_GT(UsedSlots(client.traffic), before);
  const CommInfoRecord& last = client.traffic->slots[UsedSlots(client.traffic) - 1];
  EXPECT_EQ(last.ended, 0);  // the session is still open when the Tracker ends
  EXPECT_EQ(last.total_sent_bytes, 5u);
  closesocket(s);
}

}  // namespace
