// Connections and datagrams of a game whose client asks for fast falling back: another way is tried
// soon, whoever answers first carries, and a node that has failed is passed over for a while.
#include "abi/mending_formats.h"
#include "engine/relay_mgr.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"
#include "tests/scenario/udp_world.h"
#include "tests/support/log_texts.h"
#include "tests/support/report_client.h"

namespace {
using namespace sim_test;      // NOLINT: the verbs of these tests
using namespace relayed_test;  // NOLINT
using moru_vyr::lsp::kMendAll;
using moru_vyr::lsp::kMendFailedNode;
using moru_vyr::lsp::kMendFallback;
using moru_vyr::lsp::kMendRefusal;
using moru_vyr::lsp::kMendStart;
using Texts = std::vector<std::string>;

// --- connections ---------------------------------------------------------------------------------

// Connects are answered before a server has been reached, so that what a game sends has to wait.
class MendedFallback : public tcp_test::TcpWorld {
 protected:
  explicit MendedFallback(moru_vyr::lsp::u32 mended = kMendAll & ~kMendRefusal)
      : TcpWorld(L"", nullptr, mended) {}

  // Who carries a connection to that server: "A", "B" or "game". Stores how long its first answer
  // takes, and closes it.
  std::string Carrier(sim::Duration* took, const char* server = kServer) {
    const auto start = world.now();
    const SOCKET s = Joins(server);
    const std::string text = "hello " + std::to_string(++asked_);
    EXPECT_EQ(Talks(s, text), text);
    *took = world.now() - start;
    closesocket(s);
    return WhoCarried(text);
  }
  std::string Carrier(const char* server = kServer) {
    sim::Duration took{};
    return Carrier(&took, server);
  }
  // By whom that text has come to the server; nodes that lost may have reached it, too.
  std::string WhoCarried(const std::string& text) const {
    std::string who;
    for (const tcp_test::Call& call : calls) {
      if (call.got == text) who += call.from;
    }
    return who;
  }
  bool NodesBecomeFree() {
    return RunUntil([this] { return NodesAreFree(); }, 1s);
  }
  void BothNodesAreSilent() {
    a.StopsAnswering();
    b.StopsAnswering();
    RunFor(100ms);
  }

 private:
  int asked_ = 0;
};

SCENARIO_F(MendedFallback, ASilentNodeCostsASecond) {
  a.StopsAnswering();
  RunFor(100ms);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_GE(took, 1s);
  EXPECT_LE(took, 1200ms);
  EXPECT_TRUE(NodesBecomeFree());
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_LE(took, 500ms);
  EXPECT_EQ(a.Count("accepted"), 1u);
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, TwoSilentNodesCostTwoSeconds) {
  BothNodesAreSilent();
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "game");
  EXPECT_GE(took, 2s);
  EXPECT_LE(took, 2300ms);
  EXPECT_EQ(a.Count("request"), 1u);
  EXPECT_EQ(b.Count("request"), 1u);
  EXPECT_TRUE(NodesBecomeFree()) << "they were told the end";
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, TheFirstNodeMayAnswerAfterTheSecondWasAsked) {
  a.AnswersAfter(1300);
  b.StopsAnswering();
  RunFor(100ms);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "A");
  EXPECT_GE(took, 1300ms);
  EXPECT_LE(took, 1500ms);
  EXPECT_EQ(b.Count("request"), 1u);
  EXPECT_TRUE(NodesBecomeFree());
  a.Behaves();
  RunFor(100ms);
  EXPECT_EQ(Carrier(&took), "A") << "it does not rest";
  EXPECT_LE(took, 500ms);
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, ANodeMayAnswerBeforeTheServerIsConnected) {
  for (const int slow : {0, 1}) {
    SCOPED_TRACE(slow);
    (slow == 0 ? a : b).AnswersAfter(slow == 0 ? 2500 : 1500);
    (slow == 0 ? b : a).StopsAnswering();
    sim::LinkOptions far;
    far.delay = 1s;
    world.SetLink(world.home().host, server_host, far);
    RunFor(100ms);
    sim::Duration took{};
    EXPECT_EQ(Carrier(&took), slow == 0 ? "A" : "B");
    EXPECT_GE(took, 2500ms);
    EXPECT_LE(took, 2700ms);
    EXPECT_TRUE(NodesBecomeFree());
    a.Behaves();
    b.Behaves();
    RunFor(31s);
  }
}

SCENARIO_F(MendedFallback, WhereTheServerCannotBeReachedANodeStillMay) {
  a.AnswersAfter(4000);
  b.StopsAnswering();
  RunFor(100ms);
  const SOCKET s = Tcp();
  // The game's own, that to the first node and that node's, that to the second node, and this one.
  port::FailCall("connect", 5, WSAENETUNREACH);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(WhoCarried("hello"), "A");
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, WhereNobodyAnswersTheConnectionEnds) {
  BothNodesAreSilent();
  const SOCKET s = Tcp();
  port::FailCall("connect", 4, WSAENETUNREACH);  // after the game's own and those to the nodes
  const auto start = world.now();
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  std::string got;
  EXPECT_EQ(tcp_test::CollectAll(s, &got), "error 10054");
  // The second node was asked after a second, was overdue after another, and had five more.
  EXPECT_GE(world.now() - start, 6900ms);
  EXPECT_LE(world.now() - start, 10s);
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, WithoutASocketForTheNextWayTheFirstGoesOn) {
  a.AnswersAfter(1500);
  RunFor(100ms);
  const SOCKET s = Joins();
  SendText(s, "hello");
  RunFor(900ms);
  port::FailCall("socket", 1, WSAENOBUFS);
  EXPECT_EQ(Received(s), "hello");
  EXPECT_EQ(WhoCarried("hello"), "A");
  EXPECT_EQ(b.Count("accepted"), 0u);
  closesocket(s);
  ExpectServesAgain();
}

// The second node keeps its time.
SCENARIO_F(MendedFallback, ALateRefusalHurriesNobody) {
  a.AnswersWith(9).AnswersAfter(1500);
  b.AnswersAfter(700);
  RunFor(100ms);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_GE(took, 1700ms);
  EXPECT_TRUE(Logged("OnNegotiationFailed, reason=9, "));
  EXPECT_FALSE(Logged(test::kDirectBegins));
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, WhatAGameSendsBeforeItClosesArrives) {
  BothNodesAreSilent();
  const std::string text = Pattern(100'000);
  const SOCKET s = Joins();
  EXPECT_EQ(tcp_test::SendAll(s, text), text.size());
  closesocket(s);
  EXPECT_TRUE(RunUntil([&] { return WhoCarried(text) == "game" && LastCall().over(); }, 4s));
  EXPECT_EQ(LastCall().end, "closed");
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, AConnectionThatEndsWhileItIsTriedLeavesNothingOpen) {
  BothNodesAreSilent();
  const SOCKET s = Joins();
  RunFor(1500ms);
  EXPECT_FALSE(NodesAreFree());
  ResetOnClose(s);
  closesocket(s);
  EXPECT_TRUE(NodesBecomeFree());
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, ANodeThatFailedIsPassedOverUntilItHasRested) {
  a.AnswersWith(9);
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "B");
  a.Behaves();
  RunFor(29s);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_LE(took, 500ms);
  EXPECT_EQ(a.Count("accepted"), 1u);
  EXPECT_TRUE(Logged("a node that failed is passed over, proxy_idc=1"));
  RunFor(1s);
  EXPECT_EQ(Carrier(), "A");
  ExpectServesAgain();
}

SCENARIO_F(MendedFallback, WhereAllNodesRestTheServerIsAskedAtOnce) {
  BothNodesAreSilent();
  EXPECT_EQ(Carrier(), "game");
  a.Behaves();
  b.Behaves();
  for (const char* server : {kServer, tcp_test::kAlone, kForced}) {
    SCOPED_TRACE(server);
    sim::Duration took{};
    EXPECT_EQ(Carrier(&took, server), "game");
    EXPECT_LE(took, 500ms);
  }
  EXPECT_EQ(a.Count("accepted"), 1u);
  EXPECT_EQ(b.Count("accepted"), 1u);
  RunFor(30s);
  EXPECT_EQ(Carrier(), "A");
}

// With nothing else mended.
class FallbackAlone : public MendedFallback {
 protected:
  FallbackAlone() : MendedFallback(kMendFallback) {}
};

SCENARIO_F(FallbackAlone, WhatAGameSendsBeforeItClosesArrives) {
  BothNodesAreSilent();
  const SOCKET s = Joins();
  SendText(s, "bye");
  closesocket(s);
  EXPECT_TRUE(RunUntil([&] { return WhoCarried("bye") == "game" && LastCall().over(); }, 4s));
  ExpectServesAgain();
}

SCENARIO_F(FallbackAlone, ANodeThatRefusesEndsTheConnectionUnlessAnotherIsAsked) {
  world.Kill(b.process());
  a.StopsAnswering();
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "game");
  world.Kill(a.process());
  RunFor(31s);
  const SOCKET s = Joins();
  std::string got;
  EXPECT_EQ(tcp_test::CollectAll(s, &got), "closed");
  closesocket(s);
}

// More than the sockets have room for, and a server that takes its time.
SCENARIO_F(MendedFallback, ACleanupWaitsForWhatIsOwed) {
  serve = [](SOCKET t, tcp_test::Call* call) {
    Sleep(500);
    call->end = tcp_test::CollectAll(t, &call->got);
  };
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  const std::string all = Pattern(1'000'000);
  EXPECT_EQ(tcp_test::SendAll(Joins(), all), all.size());
  EXPECT_EQ(WSACleanup(), 0);
  RunFor(1s);
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
}

// Its session would need a socket, and Winsock makes no more by then.
SCENARIO_F(MendedFallback, WhileACleanupWaitsNothingNewIsAccepted) {
  serve = [](SOCKET t, tcp_test::Call* call) {
    Sleep(500);
    call->end = tcp_test::CollectAll(t, &call->got);
  };
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  tcp_test::SendAll(Joins(), Pattern(1'000'000));
  const sockaddr_in server = At(kServer, 80);
  sockaddr* listener = nullptr;
  int size = 0;
  ASSERT_TRUE(moru_vyr::lsp::GetRelayMgr().RequestTcpRelaySession(5, htons(4000), &server,
                                                                  &listener, &size, 7));
  const SOCKET late = Tcp();
  bool is_connected = false;
  world.Spawn(world.home(), "late", [&] {
    Sleep(200);
    is_connected = connect(late, listener, size) == 0;
  });
  const auto start = world.now();
  EXPECT_EQ(WSACleanup(), 0);
  EXPECT_GE(world.now() - start, 300ms);
  EXPECT_TRUE(is_connected);
  EXPECT_FALSE(Logged(test::kStrangerAccepted));
}

// --- what the client is told ---------------------------------------------------------------------

// Before the game starts.
struct EarlyClient {
  EarlyClient() {
    mending->games[0].mended = kMendFallback;
    mending->games[0].next_node_ms = 300;
    mending->games[0].direct_ms = 8000;
    mending->games[0].node_rest_ms = 3000;
  }
  test::ClientRegion<moru_vyr::lsp::MendingRegion> mending{moru_vyr::lsp::kMendingRegionName};
  test::ReportClient client;
};

class FallbackReports : public EarlyClient, public MendedFallback {
 protected:
  FallbackReports() : MendedFallback(0) {}

  // The nodes of all failures, which have timed out.
  Texts TimedOut() {
    Texts nodes;
    for (const auto& failure : client.failures->slots) {
      if (failure.used == 0) continue;
      EXPECT_EQ(failure.nego_result, int{moru_vyr::lsp::kNegoTimedOut});
      nodes.emplace_back(failure.proxy_ip);
    }
    return nodes;
  }
};

SCENARIO_F(FallbackReports, NameEachNodeThatDidNotAnswerInTime) {
  BothNodesAreSilent();
  EXPECT_EQ(Carrier(), "game");
  RunFor(1s);
  EXPECT_EQ(TimedOut(), (Texts{kNodeA, kNodeB}));
}

// The first one won, though late, and the second one still had time.
SCENARIO_F(FallbackReports, NameNoNodeThatStillHadTime) {
  a.AnswersAfter(1000);
  b.StopsAnswering();
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "A");
  RunFor(1s);
  EXPECT_EQ(TimedOut(), Texts());
}

// It is asked for as long as it takes, while the time of the first one ends.
SCENARIO_F(FallbackReports, NameTheNodeThatServesAfterAnotherWasGivenUp) {
  a.StopsAnswering();
  b.AnswersAfter(6000);
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "B");
  RunFor(1s);
  EXPECT_EQ(TimedOut(), Texts{kNodeA});
  ASSERT_EQ(test::UsedSlots(client.negotiations), 1);
  EXPECT_STREQ(client.negotiations->slots[0].proxy_ip, kNodeB);
}

// --- datagrams -----------------------------------------------------------------------------------

class MendedFallbackDatagrams : public udp_test::UdpWorld {
 protected:
  explicit MendedFallbackDatagrams(moru_vyr::lsp::u32 mended = kMendAll) {
    mending->games[0].mended = mended;
    Starts();
  }

  // Who carries a datagram of a new socket to the server. Stores how long its answer takes.
  std::string Carrier(sim::Duration* took) {
    const auto start = world.now();
    const SOCKET s = Udp();
    EXPECT_EQ(Sends(s, "hello"), 0);
    EXPECT_EQ(Receives(s, 20'000).text, "hello");
    *took = world.now() - start;
    closesocket(s);
    return heard.back().from;
  }
  std::string Carrier() {
    sim::Duration took{};
    return Carrier(&took);
  }
  // Datagrams with pauses; what was sent.
  Texts SendsThree(SOCKET s) {
    const Texts texts = {"one", "two", "three"};
    for (const std::string& text : texts) {
      EXPECT_EQ(Sends(s, text), 0);
      RunFor(200ms);
    }
    return texts;
  }
  void BothNodesAreSilent() {
    a.StopsAnswering();
    b.StopsAnswering();
    RunFor(100ms);
  }

  test::ClientRegion<moru_vyr::lsp::MendingRegion> mending{moru_vyr::lsp::kMendingRegionName};
};

SCENARIO_F(MendedFallbackDatagrams, ASilentNodeCostsASecond) {
  a.StopsAnswering();
  RunFor(100ms);
  const SOCKET s = Udp();
  const Texts texts = SendsThree(s);
  EXPECT_EQ(Heard(), Texts());
  RunFor(600ms);
  EXPECT_EQ(Heard("B"), texts);
  closesocket(s);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_LE(took, 500ms);
  EXPECT_EQ(a.Count("request"), 1u);
}

SCENARIO_F(MendedFallbackDatagrams, TwoSilentNodesCostTwoSeconds) {
  BothNodesAreSilent();
  const SOCKET s = Udp();
  const auto start = world.now();
  const Texts texts = SendsThree(s);
  EXPECT_EQ(Receives(s, 5000).text, "one");
  EXPECT_GE(world.now() - start, 2s);
  EXPECT_LE(world.now() - start, 2300ms);
  RunFor(100ms);
  EXPECT_EQ(Heard("game"), texts);
  EXPECT_EQ(a.Count("request") + b.Count("request"), 2u);
}

// A game that sends and cleans up at once, before a node has answered.
SCENARIO_F(MendedFallbackDatagrams, ACleanupWaitsForWhatIsOwed) {
  BothNodesAreSilent();
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  const Texts texts = SendsThree(Udp());
  const auto start = world.now();
  EXPECT_EQ(WSACleanup(), 0);
  EXPECT_GE(world.now() - start, 1s);
  EXPECT_LE(world.now() - start, 2500ms);
  RunFor(100ms);
  EXPECT_EQ(Heard("game"), texts);
}

class FallbackWithoutDelivery : public MendedFallbackDatagrams {
 protected:
  FallbackWithoutDelivery() : MendedFallbackDatagrams(kMendAll & ~kMendStart) {}
};

SCENARIO_F(FallbackWithoutDelivery, ACleanupDropsWhatIsOwed) {
  BothNodesAreSilent();
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  SendsThree(Udp());
  EXPECT_EQ(WSACleanup(), 0);
  RunFor(3s);
  EXPECT_EQ(Heard(), Texts());
}

SCENARIO_F(MendedFallbackDatagrams, TheFirstNodeMayAnswerAfterTheSecondWasAsked) {
  a.AnswersAfter(1300);
  b.AnswersAfter(800);
  RunFor(100ms);
  const SOCKET s = Udp();
  const Texts texts = SendsThree(s);
  RunFor(900ms);
  EXPECT_EQ(Heard("A"), texts);
  EXPECT_EQ(b.Count("flow_closed"), 0u);
  RunFor(500ms);
  EXPECT_EQ(b.Count("flow_opened"), 1u);
  EXPECT_EQ(b.Count("flow_closed"), 1u) << "it was told the end";
  EXPECT_EQ(Sends(s, "more"), 0);
  RunFor(100ms);
  EXPECT_EQ(Heard("A").size(), 4u);
  EXPECT_EQ(a.Count("flow_closed"), 0u);
  closesocket(s);
  a.Behaves();
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "A") << "it does not rest";
}

SCENARIO_F(MendedFallbackDatagrams, NodesThatAnswerTooLateAreToldTheEnd) {
  a.AnswersAfter(2500);
  b.AnswersAfter(2000);
  RunFor(100ms);
  const SOCKET s = Udp();
  const Texts texts = SendsThree(s);
  RunFor(3s);
  EXPECT_EQ(Heard("game"), texts);
  EXPECT_EQ(a.Count("flow_opened") + b.Count("flow_opened"), 2u);
  EXPECT_EQ(a.Count("flow_closed") + b.Count("flow_closed"), 2u);
  for (const std::string& text : texts) EXPECT_EQ(Receives(s).text, text);
  EXPECT_EQ(Receives(s).from, "") << "their answers are not the game's";
}

SCENARIO_F(MendedFallbackDatagrams, ALateRefusalHurriesNobody) {
  a.AnswersWith(9).AnswersAfter(1500);
  b.AnswersAfter(700);
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "B");
  EXPECT_EQ(a.Count("request"), 1u);
}

SCENARIO_F(MendedFallbackDatagrams, WhatAGameSendsBeforeItClosesArrives) {
  BothNodesAreSilent();
  const SOCKET s = Udp();
  const Texts texts = SendsThree(s);
  closesocket(s);
  RunFor(2s);
  EXPECT_EQ(Heard("game"), texts);
  EXPECT_TRUE(Logged("[UDP] session closed, token="));
  RunFor(31s);
  a.AnswersAfter(1300);
  RunFor(100ms);
  const SOCKET second = Udp();
  SendsThree(second);
  closesocket(second);
  RunFor(2s);
  EXPECT_EQ(Heard("A"), texts);
  EXPECT_EQ(a.Count("flow_closed"), 1u);
}

SCENARIO_F(MendedFallbackDatagrams, ANodeThatFailedIsPassedOverUntilItHasRested) {
  a.AnswersWith(9);
  RunFor(100ms);
  EXPECT_EQ(Carrier(), "B");
  a.Behaves();
  RunFor(29s);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_LE(took, 500ms);
  EXPECT_EQ(a.Count("request"), 1u);
  RunFor(1s);
  EXPECT_EQ(Carrier(), "A");
}

SCENARIO_F(MendedFallbackDatagrams, WhereAllNodesRestTheServerIsAskedAtOnce) {
  BothNodesAreSilent();
  EXPECT_EQ(Carrier(), "game");
  a.Behaves();
  b.Behaves();
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "game");
  EXPECT_LE(took, 500ms);
  EXPECT_EQ(a.Count("request") + b.Count("request"), 2u);
  RunFor(30s);
  EXPECT_EQ(Carrier(), "A");
}

// --- nodes that send datagrams back --------------------------------------------------------------

// For that, falling back need not be fast.
struct MendedFailedDatagrams : MendedFallbackDatagrams {
  explicit MendedFailedDatagrams(moru_vyr::lsp::u32 mended = kMendFailedNode)
      : MendedFallbackDatagrams(mended) {}
};

SCENARIO_F(MendedFailedDatagrams, ANodeThatRefusesIsLeftAtOnce) {
  world.Kill(a.process());
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_LE(took, 500ms);
  EXPECT_TRUE(Logged("UdpRemoteSession::OnNegotiationFailed, reason=208, "));
  world.Kill(b.process());
  EXPECT_EQ(Carrier(&took), "game");
  EXPECT_LE(took, 500ms);
}

SCENARIO_F(MendedFailedDatagrams, WhatWaitsForARefusalLeavesInOrder) {
  world.Kill(a.process());
  world.Kill(b.process());
  const SOCKET s = Udp();
  const Texts texts = {"one", "two", "three"};
  for (const std::string& text : texts) EXPECT_EQ(Sends(s, text), 0);
  RunFor(500ms);
  EXPECT_EQ(Heard("game"), texts);
}

SCENARIO_F(MendedFailedDatagrams, ANodeToWhichNothingCanBeSentIsLeftAtOnce) {
  for (const int error : {WSAENETUNREACH, WSAEHOSTUNREACH, WSAEADDRNOTAVAIL}) {
    SCOPED_TRACE(error);
    const SOCKET s = Udp();
    // The message to the control port and the game's datagram come first.
    port::FailCall("WSPSendTo", 3, static_cast<DWORD>(error));
    EXPECT_EQ(Sends(s, "hello"), 0);
    RunFor(500ms);
    EXPECT_EQ(Heard("B"), Texts{"hello"}) << log_text();
    port::ClearFaults();
    closesocket(s);
    RunFor(100ms);
    heard.clear();
  }
}

SCENARIO_F(MendedFailedDatagrams, ASilentNodeIsWaitedForAsLongAsBefore) {
  a.StopsAnswering();
  RunFor(100ms);
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_GE(took, 5s);
}

struct UnmendedFailedDatagrams : MendedFailedDatagrams {
  UnmendedFailedDatagrams()
      : MendedFailedDatagrams(kMendAll & ~(kMendFailedNode | kMendFallback)) {}
};

SCENARIO_F(UnmendedFailedDatagrams, ANodeThatRefusesCostsFiveSeconds) {
  world.Kill(a.process());
  sim::Duration took{};
  EXPECT_EQ(Carrier(&took), "B");
  EXPECT_GE(took, 5s);
}

// The client's own times.
class FallbackTimesOfTheRecord : public udp_test::UdpWorld {};

SCENARIO_F(FallbackTimesOfTheRecord, AreKept) {
  test::ClientRegion<moru_vyr::lsp::MendingRegion> mending{moru_vyr::lsp::kMendingRegionName};
  mending->games[0].mended = kMendFallback;
  mending->games[0].next_node_ms = 300;
  mending->games[0].direct_ms = 200;
  mending->games[0].node_rest_ms = 3000;
  Starts();
  a.StopsAnswering();
  b.StopsAnswering();
  RunFor(100ms);
  for (const int round : {0, 1}) {
    SCOPED_TRACE(round);
    const auto start = world.now();
    const SOCKET s = Udp();
    EXPECT_EQ(Sends(s, "hello"), 0);
    const size_t asked = b.Count("request");
    RunFor(290ms);
    EXPECT_EQ(b.Count("request"), asked);
    RunFor(90ms);
    EXPECT_EQ(b.Count("request"), asked + 1);
    EXPECT_EQ(Receives(s, 5000).text, "hello");
    EXPECT_GE(world.now() - start, 500ms);
    EXPECT_LE(world.now() - start, 700ms);
    closesocket(s);
    RunFor(3s);
  }
  EXPECT_EQ(a.Count("request"), 2u);
}

}  // namespace
