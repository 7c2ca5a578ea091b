// Connections and flows of a game whose client asks for throughput: the worker moves what is there
// in few calls, and makes none that is known to be in vain.
#include <algorithm>
#include <vector>

#include "abi/mending_formats.h"
#include "engine/relay_mgr.h"
#include "hooks/downcall_table.h"
#include "port/shared/faults.h"
#include "stream/tcp_provider.h"
#include "tests/scenario/tcp_world.h"
#include "tests/scenario/udp_world.h"
#include "tests/support/hand_turned.h"
#include "tests/support/loopback.h"
#include "tests/support/mended.h"

namespace {
using namespace relayed_test;   // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT: the policy's names

// Counts the worker's calls of the next provider that transfer data. Exists while the worker does.
class WorkersCalls {
 public:
  explicit WorkersCalls(int protocol) : next_(*GetDowncallTable(protocol, nullptr)) {
    counted_ = this;
    next_.lpWSPRecv = Recv;
    next_.lpWSPRecvFrom = RecvFrom;
    next_.lpWSPSend = Send;
  }
  ~WorkersCalls() {
    next_.lpWSPRecv = real_.lpWSPRecv;
    next_.lpWSPRecvFrom = real_.lpWSPRecvFrom;
    next_.lpWSPSend = real_.lpWSPSend;
  }
  WorkersCalls(const WorkersCalls&) = delete;
  WorkersCalls& operator=(const WorkersCalls&) = delete;

  void Forget() { receives = sends = sends_in_vain = 0; }

  int receives = 0;
  int sends = 0;
  int sends_in_vain = 0;  // that found no room

 private:
  static bool ByWorker() { return GetCurrentThreadId() == GetRelayMgr().GetWorkerThreadId(); }

  static int WSPAPI Recv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags,
                         LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                         LPWSATHREADID thread, LPINT error) {
    if (ByWorker()) ++counted_->receives;
    return counted_->real_.lpWSPRecv(s, buffers, count, bytes, flags, overlapped, completion,
                                     thread, error);
  }
  static int WSPAPI RecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags,
                             sockaddr* from, LPINT size, LPWSAOVERLAPPED overlapped,
                             LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                             LPINT error) {
    if (ByWorker()) ++counted_->receives;
    return counted_->real_.lpWSPRecvFrom(s, buffers, count, bytes, flags, from, size, overlapped,
                                         completion, thread, error);
  }
  static int WSPAPI Send(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, DWORD flags,
                         LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                         LPWSATHREADID thread, LPINT error) {
    const int result = counted_->real_.lpWSPSend(s, buffers, count, bytes, flags, overlapped,
                                                 completion, thread, error);
    if (!ByWorker()) return result;
    ++counted_->sends;
    if (result == SOCKET_ERROR && *error == WSAEWOULDBLOCK) ++counted_->sends_in_vain;
    return result;
  }

  static WorkersCalls* counted_;
  WSPPROC_TABLE& next_;
  const WSPPROC_TABLE real_ = next_;
};

WorkersCalls* WorkersCalls::counted_ = nullptr;

// --- streams ---------------------------------------------------------------------------------

class MendedThroughput : public tcp_test::TcpWorld {
 protected:
  explicit MendedThroughput(u32 mended = kMendThroughput) : TcpWorld(L"", nullptr, mended) {}

  // The worker's calls while the server says nothing and a message is echoed so many times.
  int ReadsOf(int messages) {
    const SOCKET s = Joins(kDirect);
    Talks(s, "hello");
    WorkersCalls worker(kProtocolTcp);
    for (int i = 0; i < messages; ++i) EXPECT_EQ(Talks(s, "hello"), "hello");
    closesocket(s);
    return worker.receives;
  }
};

struct UnmendedThroughput : MendedThroughput {
  UnmendedThroughput() : MendedThroughput(0) {}
};

// Both ways.
SCENARIO_F(MendedThroughput, AReadThatCameShortIsTheLast) { EXPECT_LE(ReadsOf(20), 42); }

SCENARIO_F(UnmendedThroughput, AStreamIsReadUntilItIsEmpty) { EXPECT_GE(ReadsOf(20), 80); }

SCENARIO_F(MendedThroughput, MuchIsReadInLargePieces) {
  const std::string all = tcp_test::Pattern(2'000'000);
  serve = [&](SOCKET t, tcp_test::Call* call) {
    tcp_test::SendAll(t, all);
    call->end = tcp_test::CollectAll(t, &call->got);
  };
  const SOCKET s = Joins(kDirect);
  WorkersCalls worker(kProtocolTcp);
  std::string got, end;
  EXPECT_TRUE(tcp_test::Collect(s, all.size(), &got, &end)) << end;
  EXPECT_TRUE(got == all) << got.size();
  EXPECT_LE(worker.receives, 120);  // of 8 KiB each they would be 244 at least
  closesocket(s);
}

// A server that does not read, and then a game that does not.
SCENARIO_F(MendedThroughput, NothingIsSentWhereThereIsNoRoom) {
  const std::string all = tcp_test::Pattern(3'000'000);
  bool reads = false;
  serve = [&](SOCKET t, tcp_test::Call* call) {
    while (!reads) Sleep(50);
    tcp_test::SendAll(t, all);
    call->end = tcp_test::CollectAll(t, &call->got);
  };
  const SOCKET s = Joins(kDirect);
  WorkersCalls worker(kProtocolTcp);
  size_t sent = 0;
  GameThread([&] { sent = tcp_test::SendAll(s, all); });
  RunFor(1s);
  for (const bool server_reads : {false, true}) {
    SCOPED_TRACE(server_reads);
    worker.Forget();
    port::CountCalls();
    const unsigned before = port::CallCount("select");
    RunFor(1s);
    EXPECT_LE(port::CallCount("select") - before, tcp_test::kQuietSelects);
    EXPECT_EQ(worker.receives, 0);
    EXPECT_EQ(worker.sends, 0);
    reads = true;
    RunFor(3s);  // now the game is the one that does not read
  }
  std::string got, end;
  EXPECT_TRUE(tcp_test::Collect(s, all.size(), &got, &end)) << end;
  EXPECT_TRUE(got == all) << got.size();
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(sent, all.size());
  closesocket(s);
  ASSERT_TRUE(RunUntil([&] { return LastCall().over(); }));
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
  EXPECT_LE(worker.sends_in_vain, 12) << "a send may have filled the room to the last byte";
}

// What waits for a side is dropped with it.
SCENARIO_F(MendedThroughput, ASideThatLeavesWhileItHasNoRoomLeavesNothingBehind) {
  for (const bool resets : {true, false}) {
    bool leaves = false;
    serve = [&](SOCKET t, tcp_test::Call* call) {
      while (!leaves) Sleep(50);
      if (resets) tcp_test::ResetOnClose(t);
      call->end = "left";
    };
    const SOCKET s = Joins(kDirect);
    GameThread([&] { tcp_test::SendAll(s, tcp_test::Pattern(1'000'000)); });
    RunFor(1s);
    leaves = true;
    ASSERT_TRUE(RunToTheEnd());
    closesocket(s);
    RunFor(1s);
    EXPECT_TRUE(Logged("[TCP]CloseObsoleteSession"));
    serve = tcp_test::Echo;
    ExpectServesAgain();
  }
}

struct MendedThroughputAndRefusal : MendedThroughput {
  MendedThroughputAndRefusal() : MendedThroughput(kMendThroughput | kMendRefusal) {}
};

// Its server reads late, so the end comes to a relay that does not read.
SCENARIO_F_SEEDS(MendedThroughputAndRefusal, AGameMayCloseAfterItsLastByte, 5) {
  const std::string all = tcp_test::Pattern(400'000);
  serve = [](SOCKET t, tcp_test::Call* call) {
    Sleep(3000);
    call->end = tcp_test::CollectAll(t, &call->got);
  };
  for (const char* const server : {kServer, kDirect}) {
    const SOCKET s = Joins(server);
    EXPECT_EQ(tcp_test::SendAll(s, all), all.size());
    closesocket(s);
    ASSERT_TRUE(RunUntil([&] { return !calls.empty() && LastCall().over(); })) << server;
    EXPECT_TRUE(LastCall().got == all) << server << " " << LastCall().got.size() << log_text();
    EXPECT_EQ(LastCall().end, "closed");
    RunFor(1s);
  }
  ExpectServesAgain();
}

// --- the listener ----------------------------------------------------------------------------

class ListenerByHand : public sim::ScenarioTest {
 protected:
  static constexpr int kGames = 5;

  // How many of several games that connect at once one pass lets in.
  int LetIn(u32 mended) {
    const test::Mended mending(mended);
    test::HandTurned loop;
    Route route;
    TcpProvider provider;
    EXPECT_TRUE(provider.Init(&loop, &route));
    buffers_are_set = log.Contains(", new send_buf=65536, socket=");
    test::OwnSocket games[kGames];
    for (test::OwnSocket& game : games) {
      sockaddr_in own, server = {};
      game.Reset(test::BoundSocket(SOCK_STREAM, &own));
      server.sin_family = AF_INET;
      server.sin_port = htons(80);
      server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      sockaddr* relay = nullptr;
      int size = 0;
      EXPECT_TRUE(provider.RequestTcpRelaySession(game, own.sin_port, &server, &relay, &size, 9));
      test::MakeNonBlocking(game);
      connect(game, relay, size);
    }
    world.RunFor(10ms);
    loop.Turn();
    const std::string text = log.Text(), line = "OnLocalServerAcceptable. peer_port=";
    int lines = 0;
    for (size_t at = 0; (at = text.find(line, at)) != text.npos; at += line.size()) ++lines;
    provider.Uninit();
    return lines;
  }

  test::LogCapture log{0};
  bool buffers_are_set = false;
};

SCENARIO_F(ListenerByHand, LetsInAllThatWaitAndLeavesTheirBuffersToTheSystem) {
  EXPECT_EQ(LetIn(kMendThroughput), kGames);
  EXPECT_FALSE(buffers_are_set);
  EXPECT_FALSE(log.Contains("accept failed"));
}

SCENARIO_F(ListenerByHand, LetsInOneAtATimeUnlessMended) {
  EXPECT_EQ(LetIn(kMendAll), 1);
  EXPECT_TRUE(buffers_are_set);
}

// --- datagrams -------------------------------------------------------------------------------

class MendedPace : public udp_test::UdpWorld {
 protected:
  explicit MendedPace(u32 mended = kMendThroughput) : UdpWorld(mended) {}

  // The worker's receives for so many datagrams and their answers, one at a time.
  int ReadsOf(SOCKET s, int datagrams) {
    Talks(s, "hello");
    WorkersCalls worker(kProtocolUdp);
    for (int i = 0; i < datagrams; ++i) EXPECT_NE(Talks(s, "hello"), "");
    return worker.receives;
  }
};

struct MendedPaceWithPorts : MendedPace {
  MendedPaceWithPorts() : MendedPace(kMendThroughput | kMendDatagramMatch) {}
};

struct UnmendedPace : MendedPace {
  UnmendedPace() : MendedPace(kMendAll) {}
};

// 200 that bring a datagram, and one in sixteen of them another one that brings none.
constexpr int kBriefReads = 230;

SCENARIO_F(MendedPace, DatagramsThatComeOneByOneAreReadOnceEach) {
  Starts();
  const SOCKET s = udp_test::Udp();
  EXPECT_LE(ReadsOf(s, 100), kBriefReads);
  closesocket(s);
}

SCENARIO_F(MendedPaceWithPorts, DatagramsThatComeOneByOneAreReadOnceEach) {
  Starts();
  const SOCKET s = udp_test::Udp();
  EXPECT_LE(ReadsOf(s, 100), kBriefReads);
  closesocket(s);
}

SCENARIO_F(UnmendedPace, ASocketIsReadUntilItIsEmpty) {
  Starts();
  const SOCKET s = udp_test::Udp();
  EXPECT_GE(ReadsOf(s, 100), 400);
  closesocket(s);
}

SCENARIO_F(MendedPace, ABurstThatFollowsArrivesWholeAndInOrder) {
  Starts();
  const SOCKET s = udp_test::Udp();
  ReadsOf(s, 20);
  heard.clear();
  std::vector<std::string> burst;
  for (int i = 0; i < 40; ++i) {
    burst.push_back("datagram " + std::to_string(i));
    Sends(s, burst.back());
  }
  RunFor(500ms);
  EXPECT_EQ(Heard(), burst) << AllHeard();
  closesocket(s);
}

// The message that the socket has closed overtakes what has not been read yet.
SCENARIO_F_SEEDS(MendedPace, WhatAGameSendsRightBeforeItClosesArrives, 5) {
  Starts();
  const SOCKET s = udp_test::Udp();
  ReadsOf(s, 20);
  heard.clear();
  for (const char* word : {"good", "bye", "all"}) Sends(s, word);
  closesocket(s);
  RunFor(500ms);
  EXPECT_EQ(Heard(), (std::vector<std::string>{"good", "bye", "all"})) << AllHeard();
}

}  // namespace
