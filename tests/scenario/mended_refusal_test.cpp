// Connects of a game whose client asks that a server which cannot be reached is a refused connect:
// they wait until the far side is ready, and fail as it does.
#include <map>

#include "abi/mending_formats.h"
#include "engine/relay_mgr.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

class MendedRefusal : public TcpWorld {
 protected:
  MendedRefusal() : TcpWorld(L"", nullptr, moru_vyr::lsp::kMendAll) {}

  static SOCKET TcpThatDoesNotBlock() {
    const SOCKET s = Tcp();
    NonBlocking(s);
    return s;
  }
  static void Blocking(SOCKET s) {
    u_long off = 0;
    ASSERT_EQ(ioctlsocket(s, static_cast<long>(FIONBIO), &off), 0);
  }
  static int PeerError(SOCKET s) {
    sockaddr_in peer = {};
    int size = sizeof peer;
    return ErrorOf(getpeername(s, Raw(peer), &size));
  }
  void NodesAreSilent() {
    a.StopsAnswering();
    b.StopsAnswering();
    RunFor(100ms);
  }
  // Whether the server sees the end of the only connection that it has.
  bool ServerIsLeft() {
    return RunUntil([this] { return calls.size() == 1 && LastCall().over(); }, 2s);
  }
};

SCENARIO_F(MendedRefusal, IsARefusedConnect) {
  for (const char* server : {kDirect, kServer, kForced, kAlone}) {
    SCOPED_TRACE(server);
    const SOCKET s = Tcp();
    EXPECT_EQ(ConnectTo(s, server, kNobodysPort), WSAECONNREFUSED);
    EXPECT_EQ(PeerError(s), WSAENOTCONN);
    // As without us, the socket may be connected to another server.
    ASSERT_EQ(ConnectTo(s, server, kPort), 0);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    EXPECT_EQ(ConnectTo(s, server, kPort), WSAEISCONN);
    EXPECT_EQ(Talks(s, "still here"), "still here");
    closesocket(s);
  }
  EXPECT_EQ(calls.size(), 4u) << "a connect that fails has not been made";
  ExpectServesAgain();
}

SCENARIO_F(MendedRefusal, FailsWithTheServersOwnError) {
  for (const int error : {WSAENETUNREACH, WSAEHOSTUNREACH, WSAEADDRNOTAVAIL}) {
    const SOCKET s = Tcp();
    port::FailCall("connect", 2, error);
    EXPECT_EQ(ConnectTo(s, kDirect, kPort), error);
    port::ClearFaults();
    closesocket(s);
  }
  server_host.down = true;
  const SOCKET s = Tcp();
  EXPECT_EQ(ConnectTo(s, kDirect, kPort), WSAETIMEDOUT);
  closesocket(s);
  server_host.down = false;
  ExpectServesAgain();
}

// The timers that end other sessions without a socket may rest for good.
SCENARIO_F(MendedRefusal, WithoutASocketForTheFarSideComesAtOnce) {
  for (int i = 0; i < 3; ++i) {
    const SOCKET s = Tcp();
    port::FailCall("socket", 1, WSAENOBUFS);
    const auto start = world.now();
    EXPECT_EQ(ConnectTo(s, kServer, kPort), WSAECONNREFUSED);
    EXPECT_LE(world.now() - start, 1ms);
    port::ClearFaults();
    closesocket(s);
    RunFor(7ms);
  }
  EXPECT_TRUE(Logged("[TCP]ConnectToRemoteServer failed to create socket, token="));
  ExpectServesAgain();
}

SCENARIO_F(MendedRefusal, OfANonBlockingConnectShowsAsItDoesWithoutUs) {
  for (const char* server : {kDirect, kServer}) {
    SCOPED_TRACE(server);
    const SOCKET s = TcpThatDoesNotBlock();
    EXPECT_EQ(ConnectTo(s, server, kNobodysPort), WSAEWOULDBLOCK);
    EXPECT_EQ(Readiness(s), "");
    EXPECT_EQ(ConnectTo(s, server, kNobodysPort), WSAEALREADY);
    EXPECT_EQ(PeerError(s), WSAENOTCONN);
    EXPECT_EQ(SendText(s, "early"), SOCKET_ERROR);
    EXPECT_EQ(Readiness(s, 5000), "e");
    EXPECT_EQ(IntOption(s, SO_ERROR), WSAECONNREFUSED);
    EXPECT_EQ(PeerError(s), WSAENOTCONN);
    EXPECT_EQ(ConnectTo(s, server, kPort), WSAEWOULDBLOCK) << "another try";
    EXPECT_EQ(Readiness(s, 5000), "w");
    Blocking(s);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    closesocket(s);
  }
  ExpectServesAgain();
}

SCENARIO_F(MendedRefusal, ANonBlockingConnectSucceedsOnceTheServerIsReached) {
  sim::LinkOptions far;
  far.delay = 200ms;
  world.SetLink(world.home().host, server_host, far);
  const auto start = world.now();
  const SOCKET s = TcpThatDoesNotBlock();
  EXPECT_EQ(ConnectTo(s, kDirect, kPort), WSAEWOULDBLOCK);
  EXPECT_EQ(Readiness(s, 5000), "w");
  EXPECT_GE(world.now() - start, 400ms);
  EXPECT_LE(world.now() - start, 450ms) << "the worker is woken";
  EXPECT_EQ(PeerError(s), 0);
  EXPECT_EQ(ConnectTo(s, kDirect, kPort), WSAEISCONN);
  Blocking(s);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(calls.size(), 1u);
  closesocket(s);
}

SCENARIO_F(MendedRefusal, NodesAreLeftBeforeAConnectIsRefused) {
  NodesAreSilent();
  for (const bool blocks : {true, false}) {
    SCOPED_TRACE(blocks);
    RunFor(31s);  // until the nodes have rested
    const auto start = world.now();
    const SOCKET s = blocks ? Tcp() : TcpThatDoesNotBlock();
    const int error = ConnectTo(s, kServer, kNobodysPort);
    if (blocks) {
      EXPECT_LE(world.now() - start, 10s) << "silent nodes are waited for to their limit";
    }
    EXPECT_EQ(error, blocks ? WSAECONNREFUSED : WSAEWOULDBLOCK);
    EXPECT_EQ(Readiness(s, 20'000), blocks ? "" : "e");
    EXPECT_GE(world.now() - start, 2s);
    closesocket(s);
  }
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "game");
  closesocket(s);
}

// Its value may be another's at once, whom the relay must leave alone.
SCENARIO_F(MendedRefusal, AGameMayCloseWhileItWaits) {
  world.ReuseSocketHandles(true);
  sim::LinkOptions far;
  far.delay = 500ms;
  world.SetLink(world.home().host, server_host, far);
  for (const int port : {kPort, kNobodysPort}) {
    SCOPED_TRACE(port);
    const SOCKET s = TcpThatDoesNotBlock();
    EXPECT_EQ(ConnectTo(s, kDirect, port), WSAEWOULDBLOCK);
    RunFor(100ms);
    closesocket(s);
    const SOCKET other = Tcp();
    EXPECT_EQ(other, s);
    RunFor(3s);
    EXPECT_EQ(Readiness(other), "");
    EXPECT_EQ(PeerError(other), WSAENOTCONN);
    closesocket(other);
  }
  EXPECT_TRUE(calls.empty() || ServerIsLeft());
  ExpectServesAgain();
}

SCENARIO_F(MendedRefusal, AThreadThatWaitsEndsWithItsSocket) {
  server_host.down = true;
  const SOCKET s = Tcp();
  int error = 0;
  GameThread([&] { error = ConnectTo(s, kDirect, kPort); });
  RunFor(1s);
  closesocket(s);
  EXPECT_TRUE(RunToTheEnd(100ms));
  EXPECT_EQ(error, WSAEINTR);
  server_host.down = false;
  ExpectServesAgain();
}

SCENARIO_F(MendedRefusal, AThreadThatWaitsEndsWithWinsock) {
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  server_host.down = true;
  int error = 0;
  GameThread([&] { error = ConnectTo(Tcp(), kDirect, kPort); });
  RunFor(1s);
  EXPECT_EQ(WSACleanup(), 0);
  EXPECT_TRUE(RunToTheEnd(200ms));
  EXPECT_EQ(error, WSAENETDOWN);
}

SCENARIO_F(MendedRefusal, AThreadThatWaitsEndsWithTheWorker) {
  server_host.down = true;
  int error = 0;
  GameThread([&] { error = ConnectTo(Tcp(), kDirect, kPort); });
  RunFor(1s);
  world.Terminate(moru_vyr::lsp::GetRelayMgr().GetWorkerThreadId());
  EXPECT_TRUE(RunToTheEnd(500ms));
  EXPECT_EQ(error, WSAENETDOWN);
}

// A server that speaks first does so before the game is connected.
SCENARIO_F_SEEDS(MendedRefusal, WhatBothSidesSendArrives, 5) {
  const std::string up = Pattern(400'000), down = Pattern(300'000);
  serve = [&](SOCKET t, Call* call) {
    SendAll(t, down);
    call->end = CollectAll(t, &call->got);
  };
  for (const char* server : {kServer, kDirect}) {
    for (const bool blocks : {true, false}) {
      SCOPED_TRACE(server);
      const SOCKET s = blocks ? Tcp() : TcpThatDoesNotBlock();
      EXPECT_EQ(ConnectTo(s, server, kPort), blocks ? 0 : WSAEWOULDBLOCK);
      EXPECT_NE(Readiness(s, 5000).find('w'), std::string::npos);
      Blocking(s);
      std::string got, end;
      EXPECT_TRUE(Collect(s, down.size(), &got, &end)) << end;
      EXPECT_TRUE(got == down);
      EXPECT_EQ(SendAll(s, up), up.size());
      closesocket(s);
      EXPECT_TRUE(RunUntil([&] { return LastCall().over(); }, 60s));
      EXPECT_TRUE(LastCall().got == up) << LastCall().got.size();
      EXPECT_EQ(LastCall().end, "closed");
    }
  }
  ExpectServesAgain();
}

SCENARIO_F_SEEDS(MendedRefusal, ManyAtOnceEachGetTheirOwnAnswer, 5) {
  std::map<int, std::string> got;
  for (int i = 0; i < 24; ++i) {
    GameThread([this, i, &got] {
      const SOCKET s = Tcp();
      const int error =
          ConnectTo(s, i % 2 == 0 ? kServer : kDirect, i % 3 == 0 ? kNobodysPort : kPort);
      const std::string text = "hello " + std::to_string(i);
      got[i] = error == 0 ? Talks(s, text) : std::to_string(error);
      closesocket(s);
    });
  }
  EXPECT_TRUE(RunToTheEnd(30s));
  for (int i = 0; i < 24; ++i) {
    EXPECT_EQ(got[i], i % 3 == 0 ? "10061" : "hello " + std::to_string(i));
  }
  ExpectServesAgain();
}

// A connect that fails after all leaves no connection behind.
SCENARIO_F(MendedRefusal, AGameThatCannotConnectToTheRelayLeavesItsServer) {
  const SOCKET s = Tcp();
  port::FailCall("WSPConnect", 2, WSAENOBUFS);  // the first is the relay's, to the server
  EXPECT_EQ(ConnectTo(s, kDirect, kPort), WSAENOBUFS);
  port::ClearFaults();
  EXPECT_TRUE(ServerIsLeft());
  closesocket(s);
  ExpectServesAgain();
}

}  // namespace
