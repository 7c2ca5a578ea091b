// The relay of datagrams from the game's socket to its server and back. At stake: every datagram
// reaches the server that the game named, once and unchanged, whatever happens to the nodes; and
// what the game receives has the server's address, not the relay's.
#include "tests/scenario/udp_world.h"
#include "tests/support/log_texts.h"
//
#include "port/shared/faults.h"

namespace {

using namespace udp_test;  // NOLINT
using enum moru_vyr::lsp::NegoFailure;

using Texts = std::vector<std::string>;

Texts Numbered(const std::string& name, int count) {
  Texts texts;
  for (int i = 0; i < count; ++i) texts.push_back(name + std::to_string(i));
  return texts;
}

class UdpRelay : public UdpWorld {};

SCENARIO_F(UdpRelay, CarriesADatagramThroughTheNodeAndItsAnswerBack) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015") << log_text();
  EXPECT_EQ(Talks(s, "again"), "again from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), (Texts{"hello", "again"})) << AllHeard();
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[0].from_full, heard[1].from_full) << "a flow has one address for its server";
  EXPECT_EQ(a.Count("request"), 1u);
  EXPECT_EQ(a.Last("request").Text("game"), "198.51.100.10:27015");
  EXPECT_TRUE(Logged(test::kUdpRelayAnswered + " ok, addr=127.0.0.1:"));
  closesocket(s);
  EXPECT_TRUE(RunUntil([&] { return NodesAreFree(); }, 1s)) << a.AllEvents();
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
}

SCENARIO_F(UdpRelay, SendsUnacceleratedDatagramsFromItsOwnSocket) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello", kDirect), "hello from 198.51.100.11:27015");
  EXPECT_EQ(Talks(s, "again", kDirect), "again from 198.51.100.11:27015");
  EXPECT_EQ(Heard("game"), (Texts{"hello", "again"})) << AllHeard();
  EXPECT_EQ(a.Count("request"), 0u);
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::DecideAccl result=direct"));
}

SCENARIO_F(UdpRelay, HoldsDatagramsWhileTheNodeThinksAndSendsThemInOrder) {
  a.AnswersAfter(700);
  Starts(0);
  const SOCKET s = Udp();
  const Texts sent = Numbered("early", 10);
  for (const std::string& text : sent) ASSERT_EQ(Sends(s, text), 0);
  EXPECT_EQ(Sends(s, "elsewhere", kServer, kSecondPort), 0);
  RunFor(600ms);
  EXPECT_TRUE(heard.empty()) << AllHeard();
  RunFor(1s);
  Texts here, elsewhere;
  for (const Datagram& one : heard)
    (one.text == "elsewhere" ? elsewhere : here).push_back(one.text);
  EXPECT_EQ(Difference(sent, here), "") << AllHeard();
  EXPECT_EQ(elsewhere.size(), 1u) << AllHeard();
  for (const Datagram& one : heard) {
    EXPECT_EQ(one.from, "A");
    EXPECT_EQ(one.to == "198.51.100.10:27016", one.text == "elsewhere")
        << "each leaves with its own destination";
  }
  const std::string log = log_text();
  const size_t left = log.find("[UDP] UdpRemoteSession::FlushCachedPackages, count=11, token=");
  ASSERT_NE(left, std::string::npos);
  EXPECT_GT(log.find("RealRouteSpeedTest::ReadConfig"), left) << "then the link is measured";
}

SCENARIO_F(UdpRelay, ASilentNodeCostsFiveSecondsAndLosesNothing) {
  a.StopsAnswering();
  Starts();
  const SOCKET s = Udp();
  const Texts sent = Numbered("kept", 5);
  for (const std::string& text : sent) ASSERT_EQ(Sends(s, text), 0);
  RunFor(4900ms);
  EXPECT_EQ(b.Count("request"), 0u);
  RunFor(1s);
  EXPECT_EQ(Difference(sent, Heard("B")), "") << AllHeard();
  EXPECT_EQ(b.Last("request").Number("retry"), 1u);
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::" + test::NegotiationFailed(kNegoTimedOut)));
}

SCENARIO_F(UdpRelay, AfterTwoSilentNodesTheFlowIsDirect) {
  a.StopsAnswering();
  b.StopsAnswering();
  Starts();
  const SOCKET s = Udp();
  const Texts sent = Numbered("kept", 5);
  for (const std::string& text : sent) ASSERT_EQ(Sends(s, text), 0);
  RunFor(9900ms);
  EXPECT_TRUE(heard.empty()) << AllHeard();
  RunFor(1s);
  EXPECT_EQ(Difference(sent, Heard("game")), "") << AllHeard();
  EXPECT_TRUE(Logged(test::kDirectBegins));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Receives(s).from, "198.51.100.10:27015");
  EXPECT_EQ(Talks(s, "later"), "later from 198.51.100.10:27015");
}

SCENARIO_F(UdpRelay, AfterARefusalTheOtherNodeIsTriedAtOnce) {
  a.AnswersWith(9);
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  EXPECT_EQ(Heard("B"), Texts{"hello"}) << AllHeard();
  EXPECT_TRUE(Logged(test::NegotiationFailed(9)));
}

SCENARIO_F(UdpRelay, ANodeOfAnotherProviderIsReplacedUnlessItIsForced) {
  a.ServesIsps(2);
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  EXPECT_EQ(Heard("B"), Texts{"hello"});
  EXPECT_TRUE(Logged(test::NegotiationFailed(kNegoIspNotServed)));
  const SOCKET forced = Udp();
  EXPECT_EQ(Talks(forced, "forced", kForced), "forced from 198.51.100.12:27015");
  EXPECT_EQ(Heard("A"), Texts{"forced"}) << AllHeard();
}

SCENARIO_F(UdpRelay, AManuallyForcedNodeIsNotReplaced) {
  using namespace moru_vyr::lsp;  // NOLINT: the tables' records
  auto image = std::make_unique<RouteTableImage>();
  test::AddProxy(*image, 1, kNodeA).surport_isps = 1;
  test::AddProxy(*image, 2, kNodeB).surport_isps = 1;
  constexpr u32 kNearIdc = 11;
  RouteEntry& entry =
      test::AddRoute(image->route_sets[0], kNearIdc, test::Ref(1, DECISION_FORCE_ACCE_MANUAL, 1));
  entry.top_refs[0] = test::Ref(2, DECISION_ACCE, 1);
  routes.Publish(*image);
  a.ServesIsps(2);
  Starts();
  EXPECT_EQ(Talks(Udp(), "hello"), "hello from 198.51.100.10:27015") << log_text();
  EXPECT_EQ(Heard("A"), Texts{"hello"}) << AllHeard();
}

SCENARIO_F(UdpRelay, AnInvalidAnswerEndsTheAttempt) {
  a.AnswersGarbage(20);
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  EXPECT_EQ(Heard("B"), Texts{"hello"});
  EXPECT_TRUE(Logged(test::NegotiationFailed(kNegoBadHeader)));
}

SCENARIO_F(UdpRelay, AnAnswerFromAnotherPortOfTheNodeIsIgnored) {
  a.behaviour().answer_from = node::Behaviour::kOther;
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "hello"), 0);
  RunFor(4900ms);
  EXPECT_EQ(a.Count("answered"), 1u);
  EXPECT_TRUE(heard.empty()) << AllHeard();
  RunFor(1s);
  EXPECT_EQ(Heard("B"), Texts{"hello"});
}

SCENARIO_F(UdpRelay, TheFirstVersionOfAnAnswerHasNoLastNode) {
  a.behaviour().answer_version = 1;
  Starts();
  EXPECT_EQ(Talks(Udp(), "hello"), "hello from 198.51.100.10:27015");
  EXPECT_TRUE(Logged(test::kNoLastNode)) << log_text();
}

// The buffer for a wrapped datagram holds 2048 bytes, 20 of them the header's, and so does the
// queue's block. What cannot be wrapped goes past the node; what cannot be queued is lost.
SCENARIO_F(UdpRelay, LongDatagramsGoPastTheNodeOrNowhere) {
  server->answer = [](const std::string&) { return std::string(); };
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  RunFor(500ms);
  for (const size_t size : {1u, 2028u, 2029u, 2048u, 2049u}) {
    EXPECT_EQ(Sends(s, Pattern(size)), 0);
    RunFor(50ms);
  }
  EXPECT_EQ(Difference({"first", Pattern(1), Pattern(2028)}, Heard("A")), "") << AllHeard();
  EXPECT_EQ(Difference({Pattern(2029), Pattern(2048)}, Heard("game")), "") << AllHeard();
  EXPECT_TRUE(Logged(test::kCopyTooLong));
}

SCENARIO_F(UdpRelay, ADatagramOfNoBytesReachesTheServer) {
  server->answer = [](const std::string& text) { return text.empty() ? "nothing came" : text; };
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  EXPECT_EQ(Talks(s, ""), "nothing came from 198.51.100.10:27015");
}

SCENARIO_F(UdpRelay, ASecondDestinationHasItsOwnFlowAndTheSamePortOfTheGame) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "one"), "one from 198.51.100.10:27015");
  EXPECT_EQ(Talks(s, "two", kSecond), "two from 198.51.100.13:27015");
  EXPECT_EQ(Talks(s, "three", kSecond, kSecondPort), "three from 198.51.100.13:27016");
  EXPECT_EQ(Talks(s, "four", kDirect), "four from 198.51.100.11:27015");
  EXPECT_EQ(a.Count("request"), 2u) << "a flow each for two data centres, whatever the port";
  EXPECT_EQ(Heard("A"), (Texts{"one", "two", "three"}));
  EXPECT_EQ(Heard("game"), Texts{"four"});
}

// The socket has room for ten answers of the route policy.
SCENARIO_F(UdpRelay, TheEleventhDestinationIsRelayedUnasked) {
  Starts();
  const SOCKET s = Udp();
  const char* const unlisted[] = {"198.51.100.14", "198.51.100.15", "198.51.100.16",
                                  "198.51.100.17", "198.51.100.18", "198.51.100.19",
                                  "198.51.100.30", "198.51.100.31", "198.51.100.32"};
  for (const char* ip : unlisted) EXPECT_EQ(Sends(s, "plain", ip), 0);
  EXPECT_EQ(Talks(s, "tenth", kServer).substr(0, 5), "plain") << "the answers come in order";
  RunFor(1s);
  const std::string own = heard.front().from_full;
  EXPECT_EQ(Sends(s, "eleventh", "198.51.100.33"), 0);
  RunFor(1s);
  ASSERT_EQ(heard.back().text, "eleventh") << AllHeard();
  EXPECT_EQ(heard.back().from, "game");
  EXPECT_NE(heard.back().from_full, own) << "from a socket of the relay's";
}

SCENARIO_F(UdpRelay, AFullSendBufferHoldsDatagramsInOrder) {
  server->answer = [](const std::string&) { return std::string(); };
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  RunFor(500ms);
  // The game's own send is the first, the relay's the second, and so on in turn.
  port::FailCall("WSPSendTo", 2, WSAEWOULDBLOCK);
  EXPECT_EQ(Sends(s, "blocked"), 0);
  RunFor(100ms);
  port::ClearFaults();
  EXPECT_EQ(Sends(s, "after"), 0);
  RunFor(500ms);
  EXPECT_EQ(Difference({"first", "blocked", "after"}, Heard("A")), "") << AllHeard();
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::" + test::Flushed(1, 0)));
}

// A game that sends its last datagram and closes must not lose it because a buffer is full.
SCENARIO_F(UdpRelay, ClosingLetsBlockedDatagramsOutFirst) {
  server->answer = [](const std::string& text) -> std::string {
    if (text != "first") return "";
    Sleep(1000);
    return "late answer";
  };
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  ASSERT_TRUE(RunUntil([&] { return !heard.empty(); }));
  // The game's own send, then the relay's, then the relay's next try. There is no third try.
  port::FailCall("WSPSendTo", 2, WSAEWOULDBLOCK);
  port::FailCall("WSPSendTo", 3, WSAEWOULDBLOCK);
  EXPECT_EQ(Sends(s, "farewell"), 0);
  RunFor(100ms);
  port::ClearFaults();
  closesocket(s);
  RunFor(100ms);
  EXPECT_TRUE(Logged(test::kUdpSessionClosing));
  EXPECT_FALSE(Logged(test::kUdpSessionClosed));
  EXPECT_EQ(heard.size(), 1u);
  // The server's send, the node's, and the relay's to the game: that requests a write event again.
  port::FailCall("WSPSendTo", 3, WSAEWOULDBLOCK);
  EXPECT_TRUE(RunUntil([&] { return NodesAreFree(); }, 5s)) << a.AllEvents() << log_text();
  RunFor(100ms);
  EXPECT_EQ(Difference({"first", "farewell"}, Heard("A")), "") << AllHeard();
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
}

SCENARIO_F(UdpRelay, ManySocketsComeAndGo) {
  Starts();
  for (int round = 0; round < 20; ++round) {
    std::vector<SOCKET> sockets;
    for (int i = 0; i < 10; ++i) sockets.push_back(Udp());
    for (const SOCKET s : sockets) {
      EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015") << round;
    }
    for (const SOCKET s : sockets) closesocket(s);
  }
  EXPECT_TRUE(RunUntil([&] { return NodesAreFree(); }, 5s));
  EXPECT_EQ(a.Count("flow_opened"), 200u);
}

// Other threads of the game may have read the socket's record before it was closed.
SCENARIO_F_SEEDS(UdpRelay, SendingWhileClosingDoesNotUseAFreedQueue, 100) {
  Starts(5);
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  for (int t = 0; t < 3; ++t) {
    GameThread([&, t] {
      for (int i = 0; i < 20; ++i) Sends(s, "racing" + std::to_string(t * 100 + i));
    });
  }
  GameThread([&] { Receives(s, 5); });
  GameThread([&] { closesocket(s); });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_TRUE(RunUntil([&] { return NodesAreFree(); }, 5s)) << a.AllEvents();
}

// --- moving to another node -------------------------------------------------------------------

class UdpSwitch : public UdpWorld {
 protected:
  // Sends 20 datagrams a second until `until` holds; which of the answers came.
  bool PlaysUntil(SOCKET s, const std::function<bool()>& until, int most_ms) {
    for (int passed = 0; passed < most_ms; passed += 50) {
      if (until()) return true;
      Sends(s, "tick" + std::to_string(next_++));
      const auto turn = world.now() + 50ms;
      while (world.now() < turn) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(turn - world.now());
        const Datagram came = Receives(s, static_cast<int>(left.count()));
        if (came.from.empty()) break;
        EXPECT_EQ(came.from, "198.51.100.10:27015");
        ++answered_;
      }
      AdvanceTo(turn);
    }
    return until();
  }

  int next_ = 0;
  int answered_ = 0;
};

SCENARIO_F(UdpSwitch, AFlowStaysOnAHealthyLink) {
  MayMeasureAndSwitch();
  Starts();
  const SOCKET s = Udp();
  EXPECT_FALSE(PlaysUntil(
      s, [&] { return b.Count("request") > 0; }, 40'000))
      << log_text();
  EXPECT_EQ(Difference(Heard(), Heard("A")), "");
  EXPECT_GE(answered_, next_ - 1);
}

// Each direction is measured at its receiving end, and reported to the other end with the next
// datagram.
SCENARIO_F(UdpSwitch, TheLossOfTheNodesDataIsReportedToTheNode) {
  MayMeasureAndSwitch();
  Configures([](moru_vyr::lsp::AccConfigRecord* config) { config->switch_open = 0; });
  Starts();
  for (const common::u32 percent : {0u, 30u}) {
    a.behaviour().data_down_loss = percent;
    const SOCKET s = Udp();
    EXPECT_FALSE(PlaysUntil(
        s, [] { return false; }, 10'000));
    closesocket(s);
    ASSERT_TRUE(RunUntil([this] { return NodesAreFree(); }, 5s));
    EXPECT_NEAR(static_cast<int>(a.Last("flow_closed").Number("lost_by_client")),
                static_cast<int>(percent), percent == 0 ? 0 : 20);
  }
}

// A node reports loss in percent, and two percent start a burst of probes. So it must look back
// over more than fifty of a game's datagrams, of which a single one would be two percent.
SCENARIO_F(UdpSwitch, ASingleLostUploadDoesNotStartABurst) {
  MayMeasureAndSwitch();
  Starts();
  const SOCKET s = Udp();
  const auto never = [] { return false; };
  const auto loses = [&](int datagrams) {
    for (int i = 0; i < datagrams; ++i) {
      a.behaviour().data_up_loss = 100;
      PlaysUntil(s, never, 50);
      a.behaviour().data_up_loss = 0;
      PlaysUntil(s, never, 1'000);
    }
    PlaysUntil(s, never, 10'000);
    EXPECT_EQ(answered_, (next_ - datagrams));
    answered_ = next_;
  };
  PlaysUntil(s, never, 10'000);
  const auto asked = [this] {
    const std::string log = whole_log();
    int lines = 0;
    for (size_t at = 0; (at = log.find("requesting high freq test", at)) != log.npos; ++at) ++lines;
    return lines;
  };
  const int at_first = asked();
  loses(1);
  EXPECT_EQ(asked(), at_first) << log_text();
  loses(2);
  EXPECT_GT(asked(), at_first) << "two in a hundred are two percent";
}

SCENARIO_F(UdpSwitch, AFlowMovesFromADeadNodeAndKeepsTheGamesPort) {
  MayMeasureAndSwitch();
  Starts();
  RunFor(60s);
  const SOCKET s = Udp();
  EXPECT_FALSE(PlaysUntil(
      s, [&] { return false; }, 10'000));
  a.GoesDark();
  const auto heard_by_b = [&] { return !Heard("B").empty(); };
  ASSERT_TRUE(PlaysUntil(s, heard_by_b, 60'000)) << log_text() << a.AllEvents() << b.AllEvents();
  EXPECT_EQ(b.Last("request").Number("flags"), 2u);
  EXPECT_EQ(b.Last("request").Number("last_node_id"), 1u);
  const int before = answered_;
  EXPECT_FALSE(PlaysUntil(
      s, [&] { return false; }, 5'000));
  EXPECT_GE(answered_ - before, 95) << "the answers come over the new node";
  EXPECT_TRUE(Logged(test::kSocketReplaced));
  closesocket(s);
  EXPECT_TRUE(RunUntil([&] { return b.Count("flow_opened") == b.Count("flow_closed"); }, 5s));
}

}  // namespace
