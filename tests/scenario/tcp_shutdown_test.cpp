// Between the end of one side and the end of the connection: data that can still be delivered is
// delivered, data without a receiver is dropped, and neither side waits longer than that takes.
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

class TcpShutdown : public TcpWorld {
 protected:
  TcpShutdown() {
    sim::LinkOptions far;
    far.delay = 50ms;
    world.SetLink(world.home().host, server_host, far);
  }
  // A game that closes before its server can be reached.
  void SaysAndLeaves(const std::string& text) {
    const SOCKET s = Joins(kDirect);
    SendAll(s, text);
    closesocket(s);
  }
  // How long the server waited for the end, after the last byte that it received.
  sim::Duration WaitForTheEnd(const std::string& answer) {
    sim::Duration waited{0};
    serve = [&, answer](SOCKET t, Call* call) {
      Collect(t, 5, &call->got, &call->end);
      const auto last_byte = world.now();
      SendAll(t, answer);
      const std::string end = CollectAll(t, &call->got);
      waited = world.now() - last_byte;
      call->end = end;
    };
    SaysAndLeaves("hello");
    EXPECT_TRUE(RunUntil([this] { return !calls.empty() && LastCall().over(); }, 10s));
    EXPECT_EQ(LastCall().got, "hello");
    EXPECT_EQ(LastCall().end, "closed");
    return waited;
  }
  int Lines(const std::string& part) const {
    const std::string text = log_text();
    int lines = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++lines;
    return lines;
  }
};

SCENARIO_F(TcpShutdown, DataOfAClosedGameHasTwoHundredMilliseconds) {
  const sim::Duration waited = WaitForTheEnd("");
  EXPECT_GE(waited, 195ms);
  EXPECT_LE(waited, 300ms);
  EXPECT_TRUE(Logged("DoRemoteWrite, " + test::kMarkedObsolete));
  ExpectServesAgain();
}

// Kept: the answer has no receiver, and nothing is left to deliver. 100 ms are the way there and
// back.
SCENARIO_F(TcpShutdown, AnAnswerToAClosedGameEndsTheConnectionAtOnce) {
  EXPECT_LE(WaitForTheEnd("and you?"), 150ms);
  ExpectServesAgain();
}

SCENARIO_F(TcpShutdown, AnAnswerToAClosedGameIsDroppedWhileBytesAreOwed) {
  const std::string all = Pattern(300'000);
  serve = [&](SOCKET t, Call* call) {
    Sleep(1000);
    SendAll(t, Pattern(30'000));
    Sleep(1000);
    call->end = CollectAll(t, &call->got);
  };
  SaysAndLeaves(all);
  ASSERT_TRUE(RunUntil([this] { return !calls.empty() && LastCall().over(); }, 30s));
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
  EXPECT_EQ(LastCall().end, "closed");
  ExpectServesAgain();
}

// --- a port that is reused ----------------------------------------------------------------------

// A game that binds its sockets itself may do so again while the connection before is still being
// delivered. The two have only their port in common.
SCENARIO_F_SEEDS(TcpShutdown, APortMayComeBackWhileItsOldConnectionIsDelivered, 4) {
  world.ReuseSocketHandles(world.seed() % 2 == 0);
  constexpr int kGamesPort = 40'000;
  const std::string all = Pattern(400'000);
  bool reads = false;
  serve = [&](SOCKET t, Call* call) {
    if (calls.size() > 1) return Echo(t, call);
    while (!reads) Sleep(50);
    call->end = CollectAll(t, &call->got);
  };
  const auto joins = [&](const char* server) {
    const SOCKET s = Tcp();
    EXPECT_EQ(BindTo(s, "0.0.0.0", kGamesPort), 0);
    EXPECT_EQ(ConnectTo(s, server, kPort), 0);
    return s;
  };
  const SOCKET old = joins(kDirect);
  EXPECT_EQ(SendAll(old, all), all.size());
  closesocket(old);
  RunFor(1s);
  const SOCKET s = joins(kServer);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "A") << "it goes where it asked for";
  EXPECT_EQ(Lines(test::GameAccepted(40000)), 2);
  EXPECT_EQ(Lines(test::kObsoleteClosed + "port=40000, "), 0);

  reads = true;
  ASSERT_TRUE(RunUntil([this] { return calls.front().over(); }, 30s));
  EXPECT_TRUE(calls.front().got == all) << calls.front().got.size();
  EXPECT_EQ(calls.front().end, "closed");
  RunFor(1s);
  EXPECT_EQ(Lines(test::kObsoleteClosed + "port=40000, local_socket=-1, "), 1);
  EXPECT_EQ(Talks(s, "and still"), "and still") << "the old one has taken nothing along";
  closesocket(s);
  ExpectServesAgain();
}

// --- a side that fails while the other has data to come -----------------------------------------

struct Break {
  DWORD error;
  bool gone;  // the connection's socket is closed at once; otherwise it stays to the session's end
};
const Break kBreaks[] = {{WSAECONNRESET, true},
                         {WSAECONNABORTED, true},
                         {WSAENETRESET, true},
                         {WSAENOBUFS, false},
                         {WSAETIMEDOUT, false}};

SCENARIO_F(TcpShutdown, AGameThatCannotBeWrittenToIsOwedNothingAndItsServerAll) {
  const std::string all = Pattern(300'000);
  for (const Break& it : kBreaks) {
    SCOPED_TRACE(it.error);
    bool speaks = false, reads = false;
    serve = [&](SOCKET t, Call* call) {
      while (!speaks) Sleep(10);
      SendAll(t, "x");
      Sleep(200);
      SendAll(t, "y");  // without the x it must not arrive
      while (!reads) Sleep(10);
      call->end = CollectAll(t, &call->got);
    };
    const SOCKET s = Joins(kDirect);
    EXPECT_EQ(SendAll(s, all), all.size());
    RunFor(1s);
    port::FailCall("send", 2, it.error);  // the first is the server's
    speaks = true;
    RunFor(500ms);
    EXPECT_EQ(Readiness(s), it.gone ? "rw" : "w");
    reads = true;
    ASSERT_TRUE(RunUntil([this] { return LastCall().over(); }, 30s));
    EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
    EXPECT_EQ(LastCall().end, "closed");
    RunFor(1s);
    EXPECT_EQ(Received(s), "") << "nor later";
    closesocket(s);
    port::ClearFaults();
  }
  ExpectServesAgain();
}

SCENARIO_F(TcpShutdown, AServerThatCannotBeWrittenToIsOwedNothingAndItsGameAll) {
  const std::string all = Pattern(300'000);
  for (const Break& it : kBreaks) {
    SCOPED_TRACE(it.error);
    serve = [&](SOCKET t, Call* call) {
      SendAll(t, all);
      call->end = CollectAll(t, &call->got);
    };
    const SOCKET s = Joins(kDirect);
    RunFor(1s);
    port::FailCall("send", 2, it.error);  // the first is the game's
    SendAll(s, "x");
    RunFor(500ms);
    SendAll(s, "y");  // without the x it must not arrive
    RunFor(500ms);
    EXPECT_EQ(LastCall().over(), it.gone);
    std::string got;
    EXPECT_EQ(CollectAll(s, &got), "closed");
    EXPECT_TRUE(got == all) << got.size();
    closesocket(s);
    EXPECT_TRUE(RunUntil([this] { return LastCall().over(); }, 30s));
    EXPECT_EQ(LastCall().got, "");
    port::ClearFaults();
  }
  ExpectServesAgain();
}

// A server that could not be written to may still send something. Data that comes in the 200 ms
// before the end, after the game has received everything else, goes to the game too.
SCENARIO_F(TcpShutdown, DataOfAServerInTheLastTwoHundredMillisecondsReachesTheGame) {
  const std::string all = Pattern(300'000);
  bool speaks = false;
  serve = [&](SOCKET t, Call* call) {
    SendAll(t, all);
    while (!speaks) Sleep(5);
    SendAll(t, "one more");
    Sleep(100);
    SendAll(t, " and one");
    call->end = CollectAll(t, &call->got);
  };
  const SOCKET s = Joins(kDirect);
  RunFor(1s);
  port::FailCall("send", 2, WSAENOBUFS);  // the first is the game's
  SendAll(s, "x");
  RunFor(100ms);
  std::string got, end;
  EXPECT_TRUE(Collect(s, all.size(), &got, &end)) << end;
  EXPECT_TRUE(got == all) << got.size();
  EXPECT_TRUE(Logged("DoLocalWrite, " + test::kMarkedObsolete));
  speaks = true;
  got.clear();
  EXPECT_EQ(CollectAll(s, &got), "closed");
  EXPECT_EQ(got, "one more and one");
  closesocket(s);
  port::ClearFaults();
  ExpectServesAgain();
}

// --- both sides at once -------------------------------------------------------------------------

// A server that has closed gets nothing more, whatever the game goes on to send.
class TcpBothEnd : public TcpShutdown {
 protected:
  // The server has closed, much of what it sent waits for the game, and the game has sent
  // something.
  SOCKET ServerLeaves() {
    serve = [this](SOCKET t, Call* call) {
      SendAll(t, all);
      call->end = "left";
    };
    const SOCKET s = Joins(kDirect);
    RunFor(1s);
    SendAll(s, "more");
    RunFor(100ms);
    EXPECT_EQ(Lines(test::kObsoleteClosed), 0);
    return s;
  }
  const std::string all = Pattern(300'000);
};

SCENARIO_F(TcpBothEnd, AGameThatClosesAfterItsServerEndsTheConnectionAtOnce) {
  closesocket(ServerLeaves());
  RunFor(100ms);
  EXPECT_EQ(Lines(test::kObsoleteClosed), 1);
  EXPECT_FALSE(Logged(test::kFoundObsolete));
  ExpectServesAgain();
}

// Kept: also if it only ends its half. What it sent last has no receiver, so nothing is waited for.
SCENARIO_F(TcpBothEnd, AGameThatEndsItsHalfAfterItsServerHasClosedEndsTheConnectionAtOnce) {
  const SOCKET s = ServerLeaves();
  shutdown(s, SD_SEND);
  RunFor(100ms);
  EXPECT_EQ(Lines(test::kObsoleteClosed), 1);
  EXPECT_FALSE(Logged(test::kFoundObsolete));
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpBothEnd, AGameThatResetsAfterItsServerHasClosedEndsTheConnectionAtOnce) {
  const SOCKET s = ServerLeaves();
  port::FailCall("send", 1, WSAECONNRESET);
  std::string got, end;
  EXPECT_TRUE(Collect(s, 70'000, &got, &end));
  RunFor(100ms);
  EXPECT_EQ(Lines(test::kObsoleteClosed), 1);
  EXPECT_FALSE(Logged(test::kMarkedObsolete));
  CollectAll(s, &got);
  EXPECT_TRUE(got == all.substr(0, got.size())) << got.size();
  EXPECT_LT(got.size(), all.size());
  closesocket(s);
  port::ClearFaults();
  ExpectServesAgain();
}

}  // namespace
