// Connections of a game whose client asks for mending: one side may end its sending and go on
// reading, a node that cannot be reached is left for another way, and a reset stays one.
#include "abi/mending_formats.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

class MendedStream : public TcpWorld {
 protected:
  explicit MendedStream(moru_vyr::lsp::u32 mended = moru_vyr::lsp::kMendAll)
      : TcpWorld(L"", nullptr, mended) {}

  // What the game gets, to the end, of a server that answers when it has heard everything.
  std::string Asks(SOCKET s, const std::string& question, std::string* end) {
    SendAll(s, question);
    shutdown(s, SD_SEND);
    std::string got;
    *end = CollectAll(s, &got);
    closesocket(s);
    return got;
  }
  void ServerAnswers(const std::string& answer) {
    serve = [answer](SOCKET t, Call* call) {
      call->end = CollectAll(t, &call->got);
      SendAll(t, answer);
    };
  }
};

// The game is connected before its server is.
class MendedReset : public MendedStream {
 protected:
  MendedReset() : MendedStream(moru_vyr::lsp::kMendAll & ~moru_vyr::lsp::kMendRefusal) {}
};

SCENARIO_F_SEEDS(MendedStream, AGameThatEndsItsSendingGetsTheWholeAnswer, 5) {
  const std::string question = Pattern(70'000), answer = Pattern(300'000);
  ServerAnswers(answer);
  for (const char* server : {kServer, kDirect, kForced, kAlone}) {
    SCOPED_TRACE(server);
    std::string end;
    EXPECT_TRUE(Asks(Joins(server), question, &end) == answer);
    EXPECT_EQ(end, "closed");
    EXPECT_TRUE(LastCall().got == question) << LastCall().got.size();
    EXPECT_EQ(LastCall().end, "closed");
  }
  ExpectServesAgain();
}

// Before the far side is ready, too: while it negotiates, and on every way that follows.
SCENARIO_F(MendedStream, AnEndBeforeTheConnectionStandsIsPassedOnLater) {
  const std::string answer = Pattern(20'000);
  ServerAnswers(answer);
  a.StopsAnswering();
  b.StopsAnswering();
  RunFor(100ms);
  std::string end;
  EXPECT_TRUE(Asks(Joins(), "question", &end) == answer);
  EXPECT_EQ(end, "closed");
  EXPECT_EQ(LastCall().got, "question");
  EXPECT_EQ(LastCall().from, "game");
  ExpectServesAgain();
}

SCENARIO_F_SEEDS(MendedStream, AServerThatEndsItsSendingStillHears, 5) {
  const std::string up = Pattern(400'000), down = Pattern(30'000);
  serve = [&](SOCKET t, Call* call) {
    SendAll(t, down);
    shutdown(t, SD_SEND);
    call->end = CollectAll(t, &call->got);
  };
  for (const char* server : {kServer, kDirect}) {
    SCOPED_TRACE(server);
    const SOCKET s = Joins(server);
    std::string got;
    EXPECT_EQ(CollectAll(s, &got), "closed");
    EXPECT_TRUE(got == down) << got.size();
    RunFor(2s);
    EXPECT_EQ(SendAll(s, up), up.size());
    closesocket(s);
    EXPECT_TRUE(RunUntil([&] { return LastCall().over(); }, 60s));
    EXPECT_TRUE(LastCall().got == up) << LastCall().got.size();
    EXPECT_EQ(LastCall().end, "closed");
  }
  ExpectServesAgain();
}

// A server that ignores the end of a game that has closed holds nothing for ever.
SCENARIO_F(MendedStream, AHalfClosedConnectionWithoutAByteEndsAfterFiveMinutes) {
  serve = [](SOCKET t, Call* call) {
    call->end = CollectAll(t, &call->got);
    Sleep(1'000'000);
  };
  const SOCKET s = Joins(kDirect);
  SendText(s, "bye");
  closesocket(s);
  RunFor(299s);
  EXPECT_FALSE(Logged("found obsolete session"));
  RunFor(3s);
  EXPECT_TRUE(Logged("found obsolete session"));
}

SCENARIO_F(MendedStream, ANodeThatRefusesIsLeftForTheNextAndThenForTheServer) {
  world.Kill(a.process());
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "B");
  EXPECT_TRUE(Logged("OnNegotiationFailed, reason=208, "));
  closesocket(s);
  world.Kill(b.process());
  const auto start = world.now();
  const SOCKET second = Joins();
  EXPECT_EQ(Talks(second, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "game");
  EXPECT_LE(world.now() - start, 1s);
  closesocket(second);
}

// An address that no connect takes, and a network that is down: the game's own connect comes first.
SCENARIO_F(MendedStream, ANodeToWhichNoConnectCanStartIsLeft) {
  for (const int error : {WSAENETUNREACH, WSAEHOSTUNREACH, WSAEADDRNOTAVAIL}) {
    SCOPED_TRACE(error);
    const SOCKET s = Tcp();
    port::FailCall("connect", 2, error);
    ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    EXPECT_EQ(LastCall().from, "B");
    closesocket(s);
    port::ClearFaults();
    RunFor(31s);  // until the node has rested
  }
  ExpectServesAgain();
}

// A node that takes the connection and closes it without an answer.
SCENARIO_F(MendedStream, ANodeThatClosesEarlyIsLeft) {
  a.ResetsAfter(0);
  RunFor(100ms);
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "B");
  closesocket(s);
}

// Also if the call that sees the end reports that it would block.
SCENARIO_F(MendedStream, ANodeThatClosesEarlyIsLeftWhateverTheError) {
  node::Behaviour closes;
  closes.on_request = node::Behaviour::kCloseThen;
  a.Behaves(closes);
  RunFor(100ms);
  port::SuccessLeavesLastError(WSAEWOULDBLOCK);
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  port::SuccessLeavesLastError(0);
  EXPECT_EQ(LastCall().from, "B");
  closesocket(s);
}

SCENARIO_F(MendedStream, AServersResetIsTheGames) {
  serve = [](SOCKET t, Call* call) {
    SendAll(t, "hello");
    Sleep(500);
    ResetOnClose(t);
    call->end = "reset";
  };
  const SOCKET s = Joins(kDirect);
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "error 10054");
  EXPECT_EQ(got, "hello");
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(MendedStream, AGamesResetIsTheServers) {
  const SOCKET s = Joins(kDirect);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  ResetOnClose(s);
  closesocket(s);
  EXPECT_TRUE(RunUntil([&] { return LastCall().over(); }, 10s));
  EXPECT_EQ(LastCall().end, "error 10054");
  ExpectServesAgain();
}

SCENARIO_F(MendedReset, AServerThatRefusesResetsTheGamesConnection) {
  const SOCKET s = Joins(kDirect, kNobodysPort);
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "error 10054");
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(MendedReset, AServerToWhichNoConnectCanStartResetsTheGamesConnection) {
  const SOCKET s = Tcp();
  port::FailCall("connect", 2, WSAENETUNREACH);
  ASSERT_EQ(ConnectTo(s, kDirect, kPort), 0);
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "error 10054");
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(MendedStream, AServerThatIsLostResetsTheGamesConnection) {
  const SOCKET s = Joins(kDirect);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  server_host.down = true;
  SendText(s, "anybody?");
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "error 10054");
  closesocket(s);
  server_host.down = false;
  ExpectServesAgain();
}

}  // namespace
