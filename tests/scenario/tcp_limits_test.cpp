// The limits of the relay: two mebibytes for each direction of a connection, 128 sockets in all.
#include <algorithm>
#include <vector>

#include "port/shared/faults.h"
#include "port/sim/threads.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

// While a buffer is full the worker polls without a pause: hence QuickSpin. The director sleeps,
// since the world is never quiet enough for RunFor.
class TcpLimits : public TcpWorld {
 protected:
  // In pieces, so that *sent tells how far it has come.
  static void SendPieces(SOCKET s, const std::string& text, size_t* sent) {
    while (*sent < text.size()) {
      const size_t piece = std::min<size_t>(10'000, text.size() - *sent);
      if (SendAll(s, text.substr(*sent, piece)) != piece) return;
      *sent += piece;
    }
  }
  // That much waits in the relay, and the rest in the systems' buffers on the way: two streams with
  // two ends each.
  static void ExpectHeld(size_t sent) {
    EXPECT_GE(sent, 2'097'152u - 4 * 8192u);
    EXPECT_LE(sent, 2'097'152u + 4 * 65'536u + 20'000u);
  }
  const std::string all = Pattern(4'000'000);
};

SCENARIO_WITH_(TcpLimits, AServerThatDoesNotReadHoldsTheGameBack, TcpLimits, 1, QuickSpin()) {
  bool reads = false;
  serve = [&](SOCKET t, Call* call) {
    while (!reads) Sleep(50);
    call->end = CollectAll(t, &call->got);
  };
  const SOCKET s = Joins(kDirect);
  size_t sent = 0;
  GameThread([&] { SendPieces(s, all, &sent); });
  Sleep(500);
  ExpectHeld(sent);
  const size_t held = sent;
  Sleep(200);
  EXPECT_EQ(sent, held);
  reads = true;
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(sent, all.size());
  closesocket(s);
  ASSERT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); }));
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
  EXPECT_EQ(LastCall().end, "closed");
}

SCENARIO_WITH_(TcpLimits, AGameThatDoesNotReadHoldsTheServerBack, TcpLimits, 1, QuickSpin()) {
  size_t sent = 0;
  serve = [&](SOCKET t, Call* call) {
    SendPieces(t, all, &sent);
    call->end = "closed";
  };
  const SOCKET s = Joins(kDirect);
  Sleep(500);
  ExpectHeld(sent);
  const size_t held = sent;
  Sleep(200);
  EXPECT_EQ(sent, held);
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "closed");
  EXPECT_TRUE(got == all) << got.size();
  closesocket(s);
}

// Each direction has its own two mebibytes, and neither waits for the other.
SCENARIO_WITH_(TcpLimits, BackPressureInBothDirectionsLosesNothing, TcpLimits, 1, QuickSpin()) {
  bool reads = false;
  size_t up = 0, down = 0;
  serve = [&](SOCKET t, Call* call) {
    bool sending = true;
    world.Spawn(*sim::Self().process(), "", [&, t] {
      SendPieces(t, all, &down);
      sending = false;
    });
    while (!reads) Sleep(50);
    Collect(t, all.size(), &call->got, &call->end);
    while (sending) Sleep(50);
    call->end = "done";
  };
  const SOCKET s = Joins(kDirect);
  GameThread([&] { SendPieces(s, all, &up); });
  Sleep(1000);
  ExpectHeld(up);
  ExpectHeld(down);
  const size_t held = up + down;
  Sleep(200);
  EXPECT_EQ(up + down, held);
  reads = true;
  std::string got, end;
  EXPECT_TRUE(Collect(s, all.size(), &got, &end)) << end;
  EXPECT_TRUE(got == all) << got.size();
  ASSERT_TRUE(RunToTheEnd());
  ASSERT_TRUE(RunUntil([&] { return LastCall().over(); }));
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
  closesocket(s);
}

// A server that has closed accepts nothing more, and what the game sends to it is dropped: it must
// neither block the game for ever nor keep the worker busy. The game still gets what the server
// sent last.
SCENARIO_WITH_(TcpLimits, AGameCanSendMuchToAClosedServer, TcpLimits, 1, QuickSpin()) {
  const std::string last_words = Pattern(300'000);
  serve = [&](SOCKET t, Call* call) {
    SendAll(t, last_words);
    call->end = "left";
  };
  const SOCKET s = Joins(kDirect);
  Sleep(1000);
  size_t sent = 0;
  GameThread([&] { SendPieces(s, all, &sent); });
  Sleep(1000);
  EXPECT_EQ(sent, all.size());
  port::CountCalls();
  const unsigned before = port::CallCount("select");
  Sleep(1000);
  EXPECT_LE(port::CallCount("select") - before, kQuietSelects);
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "closed");
  EXPECT_TRUE(got == last_words) << got.size();
  closesocket(s);
  ASSERT_TRUE(RunToTheEnd());
}

// What the game sends before the server is connected is held back as well, and then all of it
// arrives.
SCENARIO_WITH_(TcpLimits, BackPressureAlsoLimitsEarlyBytes, TcpLimits, 1, QuickSpin()) {
  a.AnswersAfter(4000);
  RunFor(100ms);
  const SOCKET s = Joins();
  size_t sent = 0;
  GameThread([&] { SendPieces(s, all, &sent); });
  std::string got, end;
  GameThread([&] { Collect(s, all.size(), &got, &end); });
  Sleep(2000);
  EXPECT_GE(sent, 2'097'152u - 4 * 8192u);
  EXPECT_LE(sent, 2'097'152u + 2 * 65'536u + 20'000u);
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_TRUE(got == all) << got.size() << " " << end;
  closesocket(s);
}

// Kept: a socket beyond the 128th is registered but never polled. Its connection waits, no other
// one suffers, and places that become free go to later connections.
SCENARIO_F(TcpLimits, ConnectionsBeyondTheSetsWaitAndHarmNobody) {
  std::vector<SOCKET> sockets;
  for (int i = 0; i < 68; ++i) {
    sockets.push_back(Joins());
    ASSERT_NE(sockets.back(), INVALID_SOCKET) << i;
    SendText(sockets.back(), "I am " + std::to_string(i));
    RunFor(10ms);
  }
  RunFor(2s);
  size_t answered = 0;
  for (size_t i = 0; i < sockets.size(); ++i) {
    if (!ReadableWithin(sockets[i], 0)) continue;
    EXPECT_EQ(Received(sockets[i]), "I am " + std::to_string(i));
    EXPECT_EQ(i, answered++);  // none that came later than one that lacks a place
  }
  // Two sockets each; some places are the relay's own.
  EXPECT_GE(answered, 60u);
  EXPECT_LE(answered, 63u);
  for (const SOCKET s : sockets) closesocket(s);
  RunFor(5s);
  for (const Call& call : calls) {
    EXPECT_TRUE(call.got.empty() || call.got.rfind("I am ", 0) == 0) << call.got;
  }
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "still there"), "still there");
  closesocket(s);
}

}  // namespace
