// Where a game's stream connection goes: through a node, through the next when that one fails, to
// the game server when both do. The game sees one connection to its server, and every byte.
#include "relay/nego_common.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class TcpRoute : public TcpWorld {
 protected:
  static std::string PeerOf(SOCKET s) {
    sockaddr_in peer = {};
    int size = sizeof peer;
    if (getpeername(s, Raw(peer), &size) != 0) return "none";
    return std::string(inet_ntoa(peer.sin_addr)) + ":" + std::to_string(ntohs(peer.sin_port));
  }
  // A whole connection: what was sent before the server could be reached, and what was sent later.
  void ExpectTalk(const char* server = kServer) {
    const SOCKET s = Joins(server);
    ASSERT_NE(s, INVALID_SOCKET);
    EXPECT_EQ(PeerOf(s), std::string(server) + ":27015");
    EXPECT_EQ(Talks(s, Pattern(20'000)), Pattern(20'000));
    EXPECT_EQ(Talks(s, "more"), "more");
    closesocket(s);
    EXPECT_TRUE(RunUntil([this] { return !calls.empty() && LastCall().over(); }));
    EXPECT_EQ(LastCall().got, Pattern(20'000) + "more");
  }
};

SCENARIO_F_SEEDS(TcpRoute, GoesThroughTheNodeOfTheTables, 10) {
  ExpectTalk();
  EXPECT_EQ(LastCall().from, "A");
  EXPECT_EQ(a.Last("request").Text("game"), "198.51.100.10:27015");
  EXPECT_EQ(a.Last("request").Number("uin"), 10001u);
  EXPECT_EQ(a.Last("request").Number("game_idc"), 11u);
  EXPECT_EQ(b.Count("accepted"), 0u);
}

SCENARIO_F(TcpRoute, GoesDirectIfTheTablesSaySo) {
  for (const char* server : {kDirect, kUnlisted}) {
    ExpectTalk(server);
    EXPECT_EQ(LastCall().from, "game");
  }
  EXPECT_EQ(a.Count("accepted") + b.Count("accepted"), 0u);
}

using enum moru_vyr::lsp::NegoFailure;

struct Failure {
  const char* what;
  int reason;
  Behaviour behaviour;
};

Behaviour With(std::int64_t Behaviour::*member, std::int64_t value) {
  Behaviour behaviour;
  behaviour.*member = value;
  return behaviour;
}
Behaviour Garbage(std::int64_t bytes) {
  Behaviour behaviour = With(&Behaviour::on_request, Behaviour::kGarbage);
  behaviour.garbage_bytes = bytes;
  return behaviour;
}
Behaviour InPieces(std::int64_t bytes, std::int64_t gap_ms) {
  Behaviour behaviour = With(&Behaviour::split_bytes, bytes);
  behaviour.split_gap_ms = gap_ms;
  return behaviour;
}

// Every way in which a negotiation fails, with the reason that the log has for it.
const Failure kFailures[] = {
    {"refuses", 9, With(&Behaviour::result, 9)},
    {"refuses with the largest result", 255, With(&Behaviour::result, 255)},
    {"cannot reach the server", 1, With(&Behaviour::server, Behaviour::kRefuse)},
    {"takes it for another provider's client", kNegoIspNotServed, With(&Behaviour::isp, 2)},
    {"takes it for nobody's client", kNegoIspNotServed, With(&Behaviour::isp, 0)},
    {"answers with another magic", kNegoBadHeader, With(&Behaviour::magic, 0x78DB3965)},
    {"has an answer of no body", kNegoBadHeader, With(&Behaviour::pkg_len, 10)},
    {"has an answer shorter than its header", kNegoBadHeader, With(&Behaviour::pkg_len, 9)},
    {"has an answer of nothing", kNegoBadHeader, With(&Behaviour::pkg_len, 0)},
    {"has an answer of one byte more", kNegoBadHeader, With(&Behaviour::pkg_len, 42)},
    {"has the longest of answers", kNegoBadHeader, With(&Behaviour::pkg_len, 65535)},
    {"answers a part of the header", kNegoReceiveFailed, With(&Behaviour::answer_bytes, 4)},
    {"answers the header alone", kNegoReceiveFailed, With(&Behaviour::answer_bytes, 10)},
    {"answers all but a byte", kNegoReceiveFailed, With(&Behaviour::answer_bytes, 40)},
    {"answers byte for byte", kNegoReceiveFailed, InPieces(1, 20)},
    {"answers in two pieces", kNegoReceiveFailed, InPieces(30, 200)},
    {"answers garbage", kNegoBadHeader, Garbage(64)},
    {"answers a little garbage", kNegoReceiveFailed, Garbage(5)},
    {"closes without an answer", kNegoReceiveFailed,
     With(&Behaviour::on_request, Behaviour::kCloseThen)},
    {"resets without an answer", kNegoReceiveFailed,
     With(&Behaviour::on_request, Behaviour::kResetThen)},
    {"is silent", kNegoTimedOut, With(&Behaviour::on_request, Behaviour::kSilent)},
    {"hears nothing", kNegoTimedOut, With(&Behaviour::on_accept, Behaviour::kMute)},
    {"waits for the server for ever", kNegoTimedOut, With(&Behaviour::server, Behaviour::kHang)},
    {"answers too late", kNegoTimedOut, With(&Behaviour::answer_delay_ms, 8000)},
};

SCENARIO_F(TcpRoute, EveryFailureOfANodeLeadsToTheNextAndThenToTheServer) {
  for (const Failure& failure : kFailures) {
    SCOPED_TRACE(failure.what);
    const std::string reason =
        "OnNegotiationFailed, reason=" + std::to_string(failure.reason) + ", ";
    const auto count = [&] {
      const std::string text = log_text();
      int found = 0;
      for (size_t at = text.find(reason); at != text.npos; at = text.find(reason, at + 1)) ++found;
      return found;
    };
    const int before = count();
    a.Behaves(failure.behaviour);
    b.Behaves();
    RunFor(100ms);
    ExpectTalk();
    EXPECT_EQ(LastCall().from, "B");
    EXPECT_EQ(b.Last("request").Number("retry"), 1u);
    EXPECT_EQ(count(), before + 1);

    b.Behaves(failure.behaviour);
    RunFor(100ms);
    ExpectTalk();
    EXPECT_EQ(LastCall().from, "game");
    EXPECT_EQ(count(), before + 3);
  }
  a.Behaves();
  b.Behaves();
  RunFor(10s);
  EXPECT_TRUE(NodesAreFree()) << a.AllEvents() << b.AllEvents();
}

// Each change of node closes a socket and makes one in the same pass of the worker. A reused handle
// must not inherit the event of the old socket.
SCENARIO_F_SEEDS(TcpRoute, ReusedSocketHandlesAreNotConfused, 8) {
  world.ReuseSocketHandles(true);
  a.StopsAnswering();
  b.AnswersWith(9);
  RunFor(100ms);
  ExpectTalk();
  EXPECT_EQ(LastCall().from, "game");
}

SCENARIO_F(TcpRoute, WithoutAnotherNodeOneFailureLeadsToTheServer) {
  a.AnswersWith(9);
  RunFor(100ms);
  const auto start = world.now();
  ExpectTalk(kAlone);
  EXPECT_EQ(LastCall().from, "game");
  EXPECT_LE(world.now() - start, 2s);
  EXPECT_TRUE(Logged(test::NegotiationFailed(9)));
  EXPECT_FALSE(Logged("ChangeAcclServer"));
  EXPECT_FALSE(Logged(test::kNegotiationRetry));
  EXPECT_EQ(b.Count("accepted"), 0u);
}

SCENARIO_F(TcpRoute, AnOlderAnswerIsAsGood) {
  for (const int version : {1, 2, 3}) {
    a.Behaves(With(&Behaviour::answer_version, version));
    RunFor(100ms);
    ExpectTalk();
    EXPECT_EQ(LastCall().from, "A") << version;
  }
}

SCENARIO_F(TcpRoute, AForcedRouteIgnoresTheClientsProvider) {
  a.ServesIsps(2);
  RunFor(100ms);
  ExpectTalk(kForced);
  EXPECT_EQ(LastCall().from, "A");
  EXPECT_TRUE(Logged("[TCP]" + test::kForcedPastIsp));
}

SCENARIO_F(TcpRoute, WaitsForASlowNode) {
  a.AnswersAfter(4500);
  RunFor(100ms);
  ExpectTalk();
  EXPECT_EQ(LastCall().from, "A");
  EXPECT_EQ(b.Count("accepted"), 0u);
}

// The time that connecting takes counts as well.
SCENARIO_F(TcpRoute, ABlackHoleCostsFiveSeconds) {
  world.Partition(world.home().host, a_host);
  const auto start = world.now();
  ExpectTalk();
  EXPECT_EQ(LastCall().from, "B");
  EXPECT_GE(world.now() - start, 5s);
  EXPECT_LE(world.now() - start, 7s);
  world.Partition(world.home().host, b_host);
  const auto second = world.now();
  ExpectTalk();
  EXPECT_EQ(LastCall().from, "game");
  EXPECT_GE(world.now() - second, 10s);
  EXPECT_LE(world.now() - second, 13s);
}

// Kept: only a time-out or an answer leads to another way.
SCENARIO_F(TcpRoute, ANodeThatIsNotThereEndsTheConnection) {
  world.Kill(a.process());
  const SOCKET s = Joins();
  ASSERT_NE(s, INVALID_SOCKET);
  std::string got;
  const auto start = world.now();
  EXPECT_NE(CollectAll(s, &got), "");
  EXPECT_EQ(got, "");
  EXPECT_LE(world.now() - start, 3s);
  EXPECT_TRUE(Logged(test::kConnectFailed));
  EXPECT_EQ(b.Count("accepted"), 0u);
  EXPECT_TRUE(calls.empty());
}

SCENARIO_F(TcpRoute, AServerThatIsNotThereEndsTheConnection) {
  const SOCKET s = Joins(kDirect, kNobodysPort);
  ASSERT_NE(s, INVALID_SOCKET);
  std::string got;
  EXPECT_NE(CollectAll(s, &got), "");
  EXPECT_EQ(got, "");
  closesocket(s);
  // Nor through the nodes, each of which reports it.
  const SOCKET second = Joins(kServer, kNobodysPort);
  ASSERT_NE(second, INVALID_SOCKET);
  EXPECT_NE(CollectAll(second, &got), "");
  EXPECT_EQ(a.Count("server_failed"), 1u);
  EXPECT_EQ(b.Count("server_failed"), 1u);
  closesocket(second);
  ExpectServesAgain();
}

}  // namespace
