// Who ends a connection, how, and in which state. Whatever the game sent before it closed reaches
// its server; in every other case no byte is wrong and nothing is left behind.
#include <algorithm>

#include "engine/relay_mgr.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

enum class End { kClose, kCloseSending, kShutdown, kReset };

// A moment in a connection's life: how it is reached, and when.
struct Moment {
  const char* what;
  int nodes_silent;  // of the two
  bool direct;
  sim::Duration after;
};

// The hosts are 100 ms away, and an answer of the node takes 500 ms.
const Moment kMoments[] = {
    {"accepted", 0, false, 0ms},
    {"connecting to a node", 0, false, 100ms},
    {"negotiating", 0, false, 500ms},
    {"relaying", 0, false, 3s},
    {"connecting to the second node", 1, false, 5'100ms},
    {"negotiating with the second node", 1, false, 5'400ms},
    {"connecting to the server after the nodes", 2, false, 10'150ms},
    {"relaying after the nodes", 2, false, 12s},
    {"connecting to the server", 0, true, 100ms},
    {"relaying to the server", 0, true, 1s},
};

class TcpEnds : public TcpWorld {
 protected:
  TcpEnds() {
    sim::LinkOptions far;
    far.delay = 100ms;
    for (sim::Host* host : {&a_host, &b_host, &server_host})
      world.SetLink(world.home().host, *host, far);
  }
  SOCKET JoinsUntil(const Moment& moment, const std::string& early) {
    a.Behaves().AnswersAfter(500);
    b.Behaves().AnswersAfter(500);
    if (moment.nodes_silent > 0) a.StopsAnswering();
    if (moment.nodes_silent > 1) b.StopsAnswering();
    RunFor(100ms);
    const SOCKET s = Joins(moment.direct ? kDirect : kServer);
    SendAll(s, early);
    if (moment.after > 0ms) RunFor(moment.after);
    return s;
  }
  // The only connection so far has received a beginning of `text`, and the relay has released it.
  void ExpectPrefix(const std::string& text) {
    EXPECT_TRUE(RunUntil([&] { return NodesAreFree(); }, 60s)) << a.AllEvents() << b.AllEvents();
    EXPECT_TRUE(RunUntil([&] { return calls.empty() || LastCall().over(); }, 60s));
    for (const Call& call : calls) EXPECT_EQ(call.got, text.substr(0, call.got.size()));
    calls.clear();
  }
};

SCENARIO_F(TcpEnds, DataOfAGameThatClosesIsDelivered) {
  for (const Moment& moment : kMoments) {
    for (const bool shuts_first : {false, true}) {
      SCOPED_TRACE(moment.what);
      const SOCKET s = JoinsUntil(moment, "all that there is to say");
      if (shuts_first) shutdown(s, SD_SEND);
      if (shuts_first) RunFor(500ms);
      closesocket(s);
      EXPECT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); }, 30s));
      ExpectPrefix("all that there is to say");
    }
  }
  ExpectServesAgain();
}

// What the server gets is whole, in each of them.
SCENARIO_F(TcpEnds, NothingOfAClosingGameIsLostInAnyState) {
  const std::string all = Pattern(60'000);
  serve = [](SOCKET t, Call* call) { call->end = CollectAll(t, &call->got); };
  for (const Moment& moment : kMoments) {
    SCOPED_TRACE(moment.what);
    const SOCKET s = JoinsUntil(moment, all);
    closesocket(s);
    EXPECT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); }, 30s));
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
    EXPECT_EQ(LastCall().end, "closed");
    ExpectPrefix(all);
  }
  ExpectServesAgain();
}

SCENARIO_F(TcpEnds, AGameThatClosesWithoutSendingIsForgottenAtOnce) {
  for (const Moment& moment : kMoments) {
    SCOPED_TRACE(moment.what);
    const SOCKET s = JoinsUntil(moment, "");
    const size_t asked = b.Count("accepted");
    closesocket(s);
    RunFor(12s);  // in which no other node is tried
    EXPECT_EQ(b.Count("accepted"), asked);
    ExpectPrefix("");
  }
  ExpectServesAgain();
}

SCENARIO_F(TcpEnds, AGameThatResetsEndsTheConnectionInAnyState) {
  for (const Moment& moment : kMoments) {
    SCOPED_TRACE(moment.what);
    const SOCKET s = JoinsUntil(moment, "some early words");
    ResetOnClose(s);
    closesocket(s);
    RunFor(12s);
    ExpectPrefix("some early words");
  }
  ExpectServesAgain();
}

// Kept: a server that ends its half ends the connection. What it sent arrives, and what the game
// still sends is lost where everyone can see it.
SCENARIO_F_SEEDS(TcpEnds, AServerThatEndsItsHalfEndsTheConnection, 5) {
  const std::string down = Pattern(30'000);
  serve = [&](SOCKET t, Call* call) {
    SendAll(t, down);
    shutdown(t, SD_SEND);
    call->end = CollectAll(t, &call->got);
  };
  for (const char* server : {kServer, kDirect}) {
    SCOPED_TRACE(server);
    const SOCKET s = Joins(server);
    const std::string up = Pattern(400'000);
    size_t sent = 0;
    GameThread([&, s] {
      while (sent < up.size()) {
        const size_t n = SendAll(s, up.substr(sent, 5000));
        sent += n;
        if (n < std::min<size_t>(5000, up.size() - (sent - n))) break;
        Sleep(20);
      }
    });
    std::string got;
    EXPECT_NE(CollectAll(s, &got), "");
    EXPECT_TRUE(got == down || got == down.substr(0, got.size())) << got.size();
    ASSERT_TRUE(RunToTheEnd());
    EXPECT_LT(sent, up.size());
    closesocket(s);
    EXPECT_TRUE(RunUntil([&] { return LastCall().over(); }, 60s));
    EXPECT_EQ(LastCall().got, up.substr(0, LastCall().got.size()));
  }
  ExpectServesAgain();
}

// A game that sends nothing while its server ends loses nothing.
SCENARIO_F(TcpEnds, TheLastDataOfAServerIsCompleteIfTheGameIsSilent) {
  const std::string down = Pattern(200'000);
  for (const bool shuts_only : {false, true}) {
    serve = [&, shuts_only](SOCKET t, Call* call) {
      SendAll(t, down);
      if (shuts_only) shutdown(t, SD_SEND);
      if (shuts_only) Sleep(3000);
      call->end = "closed";
    };
    for (const char* server : {kServer, kDirect}) {
      const SOCKET s = Joins(server);
      std::string got;
      EXPECT_EQ(CollectAll(s, &got), "closed") << server;
      EXPECT_TRUE(got == down) << server << " " << got.size();
      closesocket(s);
    }
  }
  ExpectServesAgain();
}

SCENARIO_F(TcpEnds, AServerThatResetsEndsTheConnection) {
  serve = [](SOCKET t, Call* call) {
    SendAll(t, "hello");
    Sleep(500);
    ResetOnClose(t);
    call->end = "reset";
  };
  for (const char* server : {kServer, kDirect}) {
    const SOCKET s = Joins(server);
    std::string got;
    EXPECT_NE(CollectAll(s, &got), "") << server;
    EXPECT_EQ(got, "hello") << server;
    closesocket(s);
  }
  ExpectServesAgain();
}

// --- the relay's own end ------------------------------------------------------------------------

// Kept: connections stay open and are not served any more.
class TcpStop : public TcpEnds {
 protected:
  void StopsIn(const Moment& moment) {
    const SOCKET s = JoinsUntil(moment, "early");
    const auto start = world.now();
    const DWORD worker = moru_vyr::lsp::GetRelayMgr().GetWorkerThreadId();
    moru_vyr::lsp::GetRelayMgr().Stop();
    EXPECT_LE(world.now() - start, 61ms) << moment.what;
    EXPECT_FALSE(world.IsRunning(worker)) << moment.what;
    RunFor(30s);
    SendText(s, "late");
    std::string heard = Readiness(s) == "w" ? "" : Received(s);
    EXPECT_EQ(heard, std::string("early").substr(0, heard.size())) << moment.what;
    closesocket(s);
    RunFor(30s);
    for (const Call& call : calls)
      EXPECT_EQ(call.got, std::string("early").substr(0, call.got.size())) << moment.what;
  }
};

TEST(TcpStop, TheRelayMayStopInAnyStateOfAConnection) {
  for (const Moment& moment : kMoments) {
    SCOPED_TRACE(moment.what);
    sim::RunScenario({}, 1, [&](sim::World&) {
      struct Run : TcpStop {
        using TcpStop::StopsIn;
      };
      Run().StopsIn(moment);
    });
  }
}

// A connection with much to deliver to a game that does not read.
SCENARIO_F(TcpStop, TheRelayMayStopWithUndeliveredBytes) {
  serve = [](SOCKET t, Call* call) {
    SendAll(t, Pattern(1'000'000));
    call->end = "closed";
  };
  const SOCKET s = Joins(kDirect);
  RunFor(10s);
  moru_vyr::lsp::GetRelayMgr().Stop();
  RunFor(1s);
  std::string got;
  const DWORD most_ms = 1000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&most_ms), sizeof most_ms);
  CollectAll(s, &got);
  EXPECT_TRUE(got == Pattern(1'000'000).substr(0, got.size()));
  EXPECT_LT(got.size(), 1'000'000u);
  closesocket(s);
}

}  // namespace
