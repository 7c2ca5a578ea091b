// The bytes of a relayed connection: all of them, in order, once, or a visible end, whoever ends
// it, at any moment, and however slowly either side reads.
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class TcpStream : public TcpWorld {};

// What the game sends before the server is connected.
SCENARIO_F(TcpStream, EarlyBytesReachTheEndpointThatTakesTheConnection) {
  const std::string early = Pattern(300'000);
  for (const char* way : {"A", "B", "game"}) {
    a.Behaves();
    b.Behaves();
    if (*way != 'A') a.StopsAnswering();
    if (*way == 'g') b.StopsAnswering();
    if (*way == 'A') a.AnswersAfter(3000);
    RunFor(100ms);
    const SOCKET s = Joins();
    GameThread([&] { EXPECT_EQ(SendAll(s, early), early.size()); });
    std::string got, end;
    GameThread([&] { Collect(s, early.size(), &got, &end); });
    ASSERT_TRUE(RunToTheEnd()) << way;
    EXPECT_TRUE(got == early) << way << " " << got.size() << " " << end;
    EXPECT_EQ(LastCall().from, way);
    closesocket(s);
    RunFor(5s);
  }
}

// The server gets everything that the game sent, and then the end.
SCENARIO_F_SEEDS(TcpStream, TheGameCanCloseAfterItsLastByte, 4) {
  const std::string all = Pattern(400'000);
  for (const char* server : {kServer, kDirect}) {
    const SOCKET s = Joins(server);
    serve = [](SOCKET t, Call* call) {
      Sleep(3000);
      call->end = CollectAll(t, &call->got);
    };
    EXPECT_EQ(SendAll(s, all), all.size());
    closesocket(s);
    ASSERT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); })) << server;
    EXPECT_TRUE(LastCall().got == all) << server << " " << LastCall().got.size();
    EXPECT_EQ(LastCall().end, "closed");
    RunFor(1s);
  }
  ExpectServesAgain();
}

SCENARIO_F_SEEDS(TcpStream, TheGameCanEndItsHalfAfterItsLastByte, 4) {
  const std::string all = Pattern(400'000);
  serve = [](SOCKET t, Call* call) {
    Sleep(3000);
    call->end = CollectAll(t, &call->got);
  };
  const SOCKET s = Joins();
  EXPECT_EQ(SendAll(s, all), all.size());
  shutdown(s, SD_SEND);
  std::string got;
  EXPECT_NE(CollectAll(s, &got), "");
  EXPECT_EQ(got, "");
  EXPECT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); }));
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F_SEEDS(TcpStream, TheServerCanCloseAfterItsLastByte, 4) {
  const std::string all = Pattern(400'000);
  serve = [&](SOCKET t, Call* call) {
    SendAll(t, all);
    call->end = "closed";
  };
  for (const char* server : {kServer, kDirect}) {
    const SOCKET s = Joins(server);
    Sleep(3000);
    std::string got;
    EXPECT_EQ(CollectAll(s, &got), "closed") << server;
    EXPECT_TRUE(got == all) << server << " " << got.size();
    closesocket(s);
  }
  ExpectServesAgain();
}

// Bytes that were sent to the game get that long to arrive before the connection ends.
SCENARIO_F(TcpStream, AConnectionEndsTwoHundredMillisecondsAfterItsLastByte) {
  serve = [](SOCKET t, Call* call) {
    SendAll(t, "goodbye");
    call->end = "closed";
  };
  const SOCKET s = Joins(kDirect);
  std::string got, end;
  ASSERT_TRUE(Collect(s, 7, &got, &end));
  const auto last_byte = world.now();
  EXPECT_EQ(CollectAll(s, &got), "closed");
  EXPECT_EQ(got, "goodbye");
  EXPECT_GE(world.now() - last_byte, 195ms);
  EXPECT_LE(world.now() - last_byte, 300ms);
  closesocket(s);
}

// An unexpected one does no harm.
SCENARIO_F(TcpStream, AnUnknownConnectionToTheListenerIsClosed) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "before"), "before");
  const sockaddr_in somewhere = At(kServer, kPort);
  sockaddr* listener = nullptr;
  int size = sizeof somewhere;
  ASSERT_TRUE(moru_vyr::lsp::GetRelayMgr().RequestTcpRelaySession(s, htons(1), &somewhere,
                                                                  &listener, &size, 0));
  const int port = ntohs(reinterpret_cast<const sockaddr_in*>(listener)->sin_port);
  std::string heard = "nothing";
  world.SpawnOn(world.home().host, "stranger", [&, port] {
    const SOCKET t = Tcp();
    EXPECT_EQ(ConnectTo(t, "127.0.0.1", port), 0);
    heard = Received(t);
    closesocket(t);
  });
  ASSERT_TRUE(RunUntil([&] { return heard != "nothing"; }, 5s));
  EXPECT_EQ(heard, "");
  EXPECT_TRUE(Logged(test::kStrangerAccepted));
  EXPECT_EQ(Talks(s, "after"), "after");
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpStream, AResetOfTheGameAtAnyMomentLeaksNothing) {
  sim::LinkOptions slow;
  slow.delay = 20ms;
  world.SetLink(world.home().host, a_host, slow);
  a.AnswersAfter(200);
  RunFor(100ms);
  // Through every state of the connection: accepted, connecting, negotiating, relaying.
  for (int ms = 0; ms <= 400; ms += 10) {
    SCOPED_TRACE(ms);
    const SOCKET s = Joins();
    ASSERT_NE(s, INVALID_SOCKET);
    SendAll(s, "some early words");
    if (ms > 0) RunFor(std::chrono::milliseconds(ms));
    ResetOnClose(s);
    closesocket(s);
    EXPECT_TRUE(RunUntil([&] { return NodesAreFree(); }, 30s)) << a.AllEvents();
  }
  for (const Call& call : calls)
    EXPECT_EQ(call.got, std::string("some early words").substr(0, call.got.size()));
  ExpectServesAgain();
}

SCENARIO_F(TcpStream, ANodeThatResetsEndsTheConnectionWithoutAWrongByte) {
  for (const std::uint32_t bytes : {1u, 5'000u, 100'000u}) {
    a.Behaves().ResetsAfter(bytes);
    RunFor(100ms);
    const std::string all = Pattern(300'000);
    const SOCKET s = Joins();
    GameThread([&] { SendAll(s, all); });
    std::string got;
    EXPECT_NE(CollectAll(s, &got), "");
    EXPECT_EQ(got, all.substr(0, got.size()));
    ASSERT_TRUE(RunToTheEnd());
    EXPECT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); }));
    EXPECT_EQ(LastCall().got, all.substr(0, LastCall().got.size()));
    EXPECT_LT(LastCall().got.size(), all.size());
    closesocket(s);
  }
  ExpectServesAgain();
}

SCENARIO_F(TcpStream, SixtyAtOnceKeepTheirBytesApart) {
  int right = 0;
  for (int i = 0; i < 60; ++i) {
    GameThread([&, i] {
      const SOCKET s = Joins();
      const std::string mine = std::to_string(i) + ":" + Pattern(5000);
      if (Talks(s, mine) == mine) ++right;
      closesocket(s);
    });
  }
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(right, 60);
  EXPECT_EQ(a.Count("request"), 60u);
  ExpectServesAgain();
}

}  // namespace
