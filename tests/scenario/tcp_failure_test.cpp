// Platform calls that fail under the relay, one at a time and each at its worst moment. The game
// may lose the connection, but never gets a wrong byte, and the relay goes on.
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using enum moru_vyr::lsp::NegoFailure;

class TcpFailure : public TcpWorld {
 protected:
  TcpFailure() {
    sim::LinkOptions far;
    far.delay = 50ms;
    for (sim::Host* host : {&a_host, &b_host, &server_host})
      world.SetLink(world.home().host, *host, far);
  }
  int Sessions(const std::string& line) const {
    const std::string text = log_text();
    int found = 0;
    for (size_t at = text.find(line); at != text.npos; at = text.find(line, at + 1)) ++found;
    return found;
  }
  // Every connection that was accepted has been given up, also of those whose connect waited until
  // their server had been reached.
  bool NobodyIsLeft() const {
    return Sessions("[TCP]OnLocalServerAcceptable. peer_port=") +
               Sessions("[TCP]MeetPostponed. peer_port=") ==
           Sessions(test::kObsoleteClosed);
  }
  // Checked from time to time: reading the log takes calls of its own.
  bool NobodyIsLeftWithin(sim::Duration most) {
    for (const auto end = world.now() + most; world.now() < end && !NobodyIsLeft();) RunFor(10ms);
    return NobodyIsLeft();
  }
  // Nothing has come, and the connection is still open.
  void ExpectSilence(SOCKET s) { EXPECT_EQ(Readiness(s), "w"); }
  void ExpectEndWithoutAByte(SOCKET s) {
    std::string got;
    ASSERT_TRUE(ReadableWithin(s, 30'000)) << log_text();
    EXPECT_NE(CollectAll(s, &got), "");
    EXPECT_EQ(got, "");
    closesocket(s);
  }
  // A connection that is no longer served lasts as long as the game keeps it.
  void ExpectItWaitsForTheGame(SOCKET s) {
    RunFor(20s);
    ExpectSilence(s);
    EXPECT_FALSE(NobodyIsLeft());
    closesocket(s);
    EXPECT_TRUE(NobodyIsLeftWithin(1s)) << log_text();
    ExpectServesAgain();
  }
  static node::Behaviour Closes() {
    node::Behaviour closes;
    closes.on_request = node::Behaviour::kCloseThen;
    return closes;
  }
  // The two nodes take five seconds each to fail.
  void BothNodesAreSilent() {
    a.StopsAnswering();
    b.StopsAnswering();
    RunFor(100ms);
  }
};

// Kept: no other way is tried from here.
SCENARIO_F(TcpFailure, ARequestThatCannotBeSentEndsTheConnection) {
  const SOCKET s = Joins();
  RunFor(20ms);
  port::FailCall("send", 1, WSAENOBUFS);
  ExpectEndWithoutAByte(s);
  EXPECT_TRUE(Logged(test::kRequestNotSent + "10055,socket="));
  EXPECT_FALSE(Logged(test::kNegotiationFailed));
  EXPECT_EQ(a.Count("request") + b.Count("accepted"), 0u);
  EXPECT_TRUE(calls.empty());
  ExpectServesAgain();
}

// Kept: the request counts as sent, and the writable event that follows ends it all.
SCENARIO_F(TcpFailure, ARequestThatWouldBlockEndsTheConnection) {
  const SOCKET s = Joins();
  RunFor(20ms);
  port::FailCall("send", 1, WSAEWOULDBLOCK);
  const auto start = world.now();
  ExpectEndWithoutAByte(s);
  EXPECT_LE(world.now() - start, 200ms);
  EXPECT_FALSE(Logged(test::kRequestNotSent));
  EXPECT_FALSE(Logged(test::kNegotiationFailed));
  EXPECT_EQ(a.Count("request") + b.Count("accepted"), 0u);
  ExpectServesAgain();
}

// The node waits for the rest in vain, until the time-out leads to the next one.
SCENARIO_F(TcpFailure, ARequestThatLeftInPartIsNotNoticed) {
  const SOCKET s = Joins();
  RunFor(20ms);
  world.ShortSend(1, 40);
  RunFor(200ms);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "B");
  EXPECT_TRUE(Logged(test::NegotiationFailed(kNegoTimedOut)));
  EXPECT_EQ(a.Count("request"), 0u);
  closesocket(s);
  ExpectServesAgain();
}

// The last error of an earlier call says nothing about the node.
SCENARIO_F(TcpFailure, ANodesCloseIsDetectedIfSuccessKeepsTheLastError) {
  a.Behaves(Closes());
  RunFor(100ms);
  port::SuccessKeepsLastError(true);
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  port::SuccessKeepsLastError(false);
  EXPECT_EQ(LastCall().from, "B");
  EXPECT_TRUE(Logged(test::NegotiationFailed(kNegoReceiveFailed)));
  closesocket(s);
  ExpectServesAgain();
}

// Kept: if the call that sees the end reports that it would block, no other way is tried.
SCENARIO_F(TcpFailure, ANodesCloseIsMissedIfTheErrorIsWouldBlock) {
  a.Behaves(Closes());
  RunFor(100ms);
  port::SuccessLeavesLastError(WSAEWOULDBLOCK);
  const SOCKET s = Joins();
  ExpectEndWithoutAByte(s);
  port::SuccessLeavesLastError(0);
  EXPECT_TRUE(Logged("[TCP]Failed to received Negotiation header\n"));
  EXPECT_FALSE(Logged(test::kNegotiationFailed));
  EXPECT_EQ(b.Count("accepted"), 0u);
  EXPECT_TRUE(calls.empty());
  ExpectServesAgain();
}

SCENARIO_F(TcpFailure, WithoutASocketForTheFarSideAConnectionWaitsForTheGame) {
  const SOCKET s = Tcp();
  port::FailCall("socket", 1, WSAENOBUFS);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  SendText(s, "early");
  RunFor(1s);
  EXPECT_TRUE(Logged("[TCP]ConnectToRemoteServer failed to create socket, token="));
  ExpectItWaitsForTheGame(s);
}

SCENARIO_F(TcpFailure, ASocketThatCannotBeMadeNonBlockingIsNotUsed) {
  const SOCKET s = Tcp();
  port::FailCall("ioctlsocket", 1, WSAENOBUFS);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  ExpectItWaitsForTheGame(s);
}

SCENARIO_F(TcpFailure, AConnectThatFailsAtOnceLeavesTheConnectionToTheGame) {
  const SOCKET s = Tcp();
  port::FailCall("connect", 2, WSAENETUNREACH);  // the first is the game's own
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  RunFor(1s);
  EXPECT_TRUE(Logged(test::kNoRemoteSocket + "socket="));
  ExpectItWaitsForTheGame(s);
}

SCENARIO_F(TcpFailure, BytesThatCanNeverLeaveDoNotHoldAConnectionThatTheGameHasClosed) {
  const SOCKET s = Tcp();
  port::FailCall("connect", 2, WSAENETUNREACH);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  SendText(s, "early");
  RunFor(1s);
  ExpectItWaitsForTheGame(s);
}

SCENARIO_F(TcpFailure, AnAcceptThatFailsIsTriedAgain) {
  const SOCKET s = Tcp();
  port::FailCall("accept", 1, WSAENOBUFS);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_TRUE(Logged("[TCP]OnLocalServerAcceptable, accept failed. err=10055, socket="));
  EXPECT_EQ(LastCall().from, "A");
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpFailure, AnAcceptedSocketWithoutANameEndsTheConnection) {
  const SOCKET s = Tcp();
  port::FailCall("getsockname", 1, WSAENOBUFS);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  ExpectEndWithoutAByte(s);
  EXPECT_TRUE(Logged("[TCP]OnLocalServerAcceptable, getsockname failed. err=10055, socket="));
  RunFor(100ms);
  EXPECT_TRUE(Logged("TcpSession::IsObsolete, tick 0, " + test::kFoundObsolete));
  EXPECT_EQ(Sessions(test::kObsoleteClosed), 1);
  EXPECT_EQ(a.Count("accepted"), 0u);
  ExpectServesAgain();
}

// The error of the connect is only for the log.
SCENARIO_F(TcpFailure, ARefusedConnectEndsTheConnectionWhateverIsKnownOfIt) {
  world.Kill(a.process());
  const SOCKET s = Joins();
  port::FailCall("getsockopt", 1, WSAENOBUFS);
  ExpectEndWithoutAByte(s);
  EXPECT_TRUE(Logged("[TCP] getsockopt failed"));
  EXPECT_TRUE(Logged(test::kRemoteUrgent));
}

// Kept: if time has run out and there is no socket for another node, it has to run out once more.
SCENARIO_F(TcpFailure, ATimeOutWithoutASocketComesToTheServerLater) {
  a.StopsAnswering();
  RunFor(100ms);
  const auto start = world.now();
  const SOCKET s = Joins();
  SendText(s, "early");
  RunFor(4s);
  port::FailCall("socket", 1, WSAENOBUFS);
  std::string got, end;
  ASSERT_TRUE(Collect(s, 5, &got, &end)) << end;
  EXPECT_EQ(got, "early");
  EXPECT_EQ(LastCall().from, "game");
  EXPECT_GE(world.now() - start, 10s);
  EXPECT_LE(world.now() - start, 12s);
  EXPECT_TRUE(Logged("[TCP]TcpSession::OnNegotiationFailed. CreateRemoteSocket failed, token="));
  EXPECT_EQ(Sessions("OnNegotiationFailed, reason=202, "), 2);
  EXPECT_EQ(b.Count("accepted"), 0u);
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpFailure, ARefusalWithoutASocketForAnotherNodeEndsTheConnection) {
  a.AnswersWith(9);
  RunFor(100ms);
  const SOCKET s = Joins();
  RunFor(20ms);
  port::FailCall("socket", 1, WSAENOBUFS);
  ExpectEndWithoutAByte(s);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(b.Count("accepted"), 0u);
  ExpectServesAgain();
}

SCENARIO_F(TcpFailure, AnotherNodeThatCannotBeConnectedToLeadsToTheServer) {
  a.AnswersWith(9);
  RunFor(100ms);
  const SOCKET s = Tcp();
  port::FailCall("connect", 3, WSAENETUNREACH);  // the game's own, the first node's, the second's
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "game");
  EXPECT_TRUE(Logged(test::kNegotiationRetry + "false"));
  EXPECT_TRUE(Logged(test::kDirectBegins + ". ChangeToGameSrv result=true, token="));
  EXPECT_EQ(b.Count("accepted"), 0u);
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpFailure, AGameThatHasLeftIsNotKeptForAServerThatCannotBeReached) {
  BothNodesAreSilent();
  const SOCKET s = Joins();
  SendText(s, "early");
  closesocket(s);
  RunFor(9s);
  port::FailCall("connect", 1, WSAENETUNREACH);
  RunFor(3s);
  EXPECT_TRUE(Logged(test::kNoGameServer));
  EXPECT_TRUE(NobodyIsLeft()) << log_text();
  ExpectServesAgain();
}

// Kept: after a time-out the game is not told and may wait for ever.
SCENARIO_F(TcpFailure, NoSocketForTheServerEither) {
  for (const char* call : {"socket", "connect"}) {
    SCOPED_TRACE(call);
    BothNodesAreSilent();
    const SOCKET s = Joins();
    RunFor(9s);
    port::FailCall(call, 1, WSAENOBUFS);
    RunFor(3s);
    EXPECT_TRUE(Logged(test::kNoGameServer));
    ExpectItWaitsForTheGame(s);
    port::ClearFaults();
    calls.clear();
  }
}

SCENARIO_F(TcpFailure, ARefusalWithoutARouteToTheServerEndsTheConnection) {
  a.AnswersWith(9);
  b.AnswersWith(9);
  RunFor(100ms);
  for (const char* call : {"socket", "connect"}) {
    SCOPED_TRACE(call);
    const SOCKET s = Tcp();
    const bool sockets = std::string(call) == "socket";
    // Nodes that refuse make no sockets; of connects the game's own comes first.
    port::FailCall(call, sockets ? 3 : 4, WSAENOBUFS);
    ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
    ExpectEndWithoutAByte(s);
    EXPECT_TRUE(NobodyIsLeft());
    EXPECT_TRUE(calls.empty());
    port::ClearFaults();
  }
  ExpectServesAgain();
}

// While nothing can be waited for, the worker goes round without a pause: kept. What is timed goes
// on.
SCENARIO_WITH_(TcpFailure, TimeGoesOnWhileSelectFails, TcpFailure, 1, QuickSpin()) {
  a.StopsAnswering();
  RunFor(100ms);
  const SOCKET s = Joins();
  RunFor(200ms);
  port::FailCall("WSPSelect", 0, WSAENOTSOCK);
  Sleep(4500);
  EXPECT_FALSE(Logged(test::NegotiationFailed(kNegoTimedOut)));
  Sleep(1000);
  EXPECT_TRUE(Logged(test::NegotiationFailed(kNegoTimedOut)));
  port::ClearFaults();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "B");
  closesocket(s);
}

// A connection that is not served keeps what the game sends, up to two mebibytes. Then it ends:
// otherwise the game's own close would come behind bytes that are never read, and select would
// return at once for as long as the process lives.
class TcpOverfull : public TcpFailure {
 protected:
  static constexpr DWORD kMostMs = 3000;  // a game that is held back for ever gives up

  void ExpectAnEndAndAQuietWorker(SOCKET s) {
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&kMostMs), sizeof kMostMs);
    const std::string all = Pattern(4'000'000);
    EXPECT_LT(SendAll(s, all), all.size());
    EXPECT_NE(WSAGetLastError(), WSAETIMEDOUT);
    Sleep(100);
    EXPECT_TRUE(NobodyIsLeft()) << log_text();
    port::CountCalls();
    const unsigned before = port::CallCount("select");
    Sleep(1000);
    EXPECT_LE(port::CallCount("select") - before, kQuietSelects);
    closesocket(s);
    port::ClearFaults();
  }
};

SCENARIO_WITH_(TcpOverfull, WithoutAConnectTheConnectionEndsWhenItsBufferIsFull, TcpOverfull, 1,
               QuickSpin()) {
  const SOCKET s = Tcp();
  port::FailCall("connect", 2, WSAENETUNREACH);  // the first is the game's own
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  Sleep(100);
  ExpectAnEndAndAQuietWorker(s);
}

SCENARIO_WITH_(TcpOverfull, WithoutARouteToTheServerTheConnectionEndsWhenItsBufferIsFull,
               TcpOverfull, 1, QuickSpin()) {
  for (const char* call : {"socket", "connect"}) {
    SCOPED_TRACE(call);
    BothNodesAreSilent();
    const SOCKET s = Joins();
    Sleep(9000);
    port::FailCall(call, 1, WSAENOBUFS);
    Sleep(3000);
    EXPECT_TRUE(Logged(test::kNoGameServer));
    ExpectAnEndAndAQuietWorker(s);
  }
}

// The buffers' memory comes from the system, which may have none: then the stream waits for it, as
// it waits for a slow reader.
SCENARIO_WITH_(TcpOverfull, WithoutMemoryAStreamPausesAndContinuesLater, TcpOverfull, 1,
               QuickSpin()) {
  const SOCKET s = Joins(kDirect);
  Sleep(500);
  port::FailCall("VirtualAlloc", 0, ERROR_NOT_ENOUGH_MEMORY);
  const std::string all = Pattern(100'000);
  GameThread([&] { EXPECT_EQ(SendAll(s, all), all.size()); });
  Sleep(500);
  EXPECT_EQ(LastCall().got, "");
  port::ClearFaults();
  std::string got, end;
  EXPECT_TRUE(Collect(s, all.size(), &got, &end)) << end;
  EXPECT_TRUE(got == all) << got.size();
  closesocket(s);
  ASSERT_TRUE(RunToTheEnd());
}

// With a stream under way that passes through every part for the first time.
class TcpBrokenCall : public TcpFailure {
 protected:
  void Break(const char* call, unsigned nth, DWORD error) {
    SCOPED_TRACE(std::string(call) + " " + std::to_string(nth) + " = " + std::to_string(error));
    const SOCKET s = Joins();
    std::string got, end;
    EXPECT_EQ(Talks(s, "before"), "before");
    port::FailCall(call, nth, error);
    SendAll(s, "after");
    const DWORD most_ms = 5000;
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&most_ms), sizeof most_ms);
    Collect(s, 5, &got, &end);
    EXPECT_EQ(got, std::string("after").substr(0, got.size()));
    closesocket(s);
    port::ClearFaults();
    EXPECT_TRUE(RunUntil([&] { return LastCall().over(); }, 60s));
    EXPECT_EQ(LastCall().got, std::string("beforeafter").substr(0, LastCall().got.size()));
    EXPECT_TRUE(NobodyIsLeftWithin(60s)) << log_text();
  }
};

SCENARIO_F(TcpBrokenCall, AnErrorOfAnySendEndsAConnectionAndNothingElse) {
  for (const DWORD error : {WSAECONNRESET, WSAECONNABORTED, WSAENETRESET, WSAENOBUFS})
    for (unsigned nth = 1; nth <= 6; ++nth) Break("send", nth, error);
  ExpectServesAgain();
}

SCENARIO_F(TcpBrokenCall, AnErrorOfAnyReceiveEndsAConnectionAndNothingElse) {
  for (const DWORD error : {WSAECONNRESET, WSAECONNABORTED, WSAENETRESET, WSAENOBUFS})
    for (unsigned nth = 1; nth <= 10; ++nth) Break("recv", nth, error);
  ExpectServesAgain();
}

}  // namespace
