// Streams on their way over nodes, turned by hand, with nodes on this host that only listen. At
// stake: which way is the latest after each event, and what a request that is given up, or that
// there is no memory for, leaves behind.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "abi/mending_formats.h"
#include "common/process_info.h"
#include "relay/nego_common.h"
#include "sockets/socket_map.h"
#include "stream/tcp_provider.h"
#include "tests/support/direct_stream.h"
#include "tests/support/hand_turned.h"
#include "tests/support/loopback.h"
#include "tests/support/mended.h"
#include "tests/support/route_fixture.h"
#include "tests/unit/out_of_memory.h"
#include "tracker/tracker.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

constexpr char kRoutedServer[] = "203.0.113.1";

struct RoutedStream : test::RoutePolicy {
  RoutedStream() {
    test::StartWinsock();
    for (u32 idc = 1; idc <= 2; ++idc) {
      sockaddr_in address;
      nodes[idc - 1].Reset(test::BoundSocket(SOCK_STREAM, &address));
      EXPECT_EQ(listen(nodes[idc - 1], 4), 0);
      test::AddProxy(image, idc, "127.0.0.1").proxy_port = ntohs(address.sin_port);
      image.proxies[idc - 1].surport_isps = 1;
    }
    RouteEntry& entry = test::AddRoute(image.route_sets[0], 11, test::Ref(1));
    entry.top_refs[0] = test::Ref(1);
    entry.top_refs[1] = test::Ref(2);
    Publish();
    LoadIps({{11, test::Ip(kRoutedServer)}});
    EXPECT_TRUE(provider.Init(&loop, &route));
    sockaddr_in address;
    game.Reset(test::BoundSocket(SOCK_STREAM, &address));
    port = address.sin_port;
  }
  ~RoutedStream() override { provider.Uninit(); }

  bool Request(std::shared_ptr<PostponedConnect> postponed = nullptr) {
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(80);
    server.sin_addr.s_addr = test::Ip(kRoutedServer);
    return provider.RequestTcpRelaySession(game, port, &server, &relay_addr, &relay_len, 9, &is_new,
                                           std::move(postponed));
  }
  bool TurnsUntil(const std::string& line) {
    for (int i = 0; i < 500 && !log.Contains(line); ++i) loop.Turn();
    return log.Contains(line);
  }
  // The sockets of the log lines that have these words, in their order.
  std::vector<SOCKET> SocketsOf(const std::string& words) const {
    std::vector<SOCKET> sockets;
    const std::string text = log.Text();
    for (std::size_t at = text.find(words); at != text.npos; at = text.find(words, at + 1)) {
      const std::size_t value = text.find("socket=", at);
      if (value < text.find('\n', at))
        sockets.push_back(static_cast<SOCKET>(std::stoul(text.substr(value + 7))));
    }
    return sockets;
  }

  test::HandTurned loop;
  TcpProvider provider;
  test::OwnSocket nodes[2], game;
  u16 port = 0;
  sockaddr* relay_addr = nullptr;
  int relay_len = 0;
  bool is_new = false;
};

#ifndef _WIN32
// The server can still be reached. (It is on no network of this host: the connect is refused here.)
TEST_F(RoutedStream, WithoutMemoryToDecideTheServerIsTakenItself) {
  ASSERT_TRUE(Request());
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  port::FailCall("connect", 0, WSAENETUNREACH);
  {
    const test::OutOfMemory none(1, SessionGuid::kTextSize, SessionGuid::kTextSize);
    EXPECT_TRUE(TurnsUntil("[TCP]DecideRemoteAddr.use_acc_=false, ip=203.0.113.1, port=80, "));
  }
  port::ClearFaults();
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
}
#endif

// An event of a socket that the session does not have any more is nobody's.
TEST_F(RoutedStream, AnEventOfAnotherSocketEndsNothing) {
  ASSERT_TRUE(Request());
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  const std::string asked = "TcpSession::StartNegotiation, proxy_idc=1, ";
  ASSERT_TRUE(TurnsUntil(asked)) << log.Text();
  const SOCKET node = SocketsOf(asked).at(0);
  loop.delegates.at(node)->OnWritable(0x7777);
  EXPECT_TRUE(log.Contains("[TCP]TcpProvider::OnRemoteWritable, failed to find socket=30583\n"));
  EXPECT_FALSE(log.Contains("[TCP]CloseObsoleteSession, remove session, ")) << log.Text();
}

// --- one way beside another ----------------------------------------------------------------------

// The first node has accepted the connection and says nothing, the second one is asked beside it.
struct RacingStream : RoutedStream {
  explicit RacingStream(u32 bits = kMendFallback) : mended(bits) {}
  void Race() {
    ASSERT_TRUE(Request());
    ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
    const std::string asked = "TcpSession::StartNegotiation, proxy_idc=";
    ASSERT_TRUE(TurnsUntil(asked + "1, ")) << log.Text();
    for (int i = 0; i < 60 && !log.Contains(overdue); ++i) provider.OnUpdate(31);
    ASSERT_TRUE(TurnsUntil(asked + "2, ")) << log.Text();
    first = SocketsOf(asked + "1, ").at(0);
    second = SocketsOf(asked + "2, ").at(0);
    ASSERT_NE(first, second);
  }
  bool IsPolled(SOCKET s) const { return loop.delegates.contains(s); }

  const std::string overdue = "TcpSession::OnAnswerOverdue, goes on beside the next, ";
  const test::Mended mended;
  SOCKET first = INVALID_SOCKET, second = INVALID_SOCKET;
};

// An exception of a way that is not connecting, such as an urgent byte, decides nothing: the second
// node is the latest afterwards, too, and the next that is overdue.
TEST_F(RacingStream, AnEventThatDecidesNothingLeavesTheOrderAsItWas) {
  Race();
  loop.delegates.at(first)->OnException(first);
  EXPECT_TRUE(log.Contains("HandleConnectFailure. state mismatched, cur state="));
  EXPECT_TRUE(IsPolled(first));
  EXPECT_TRUE(IsPolled(second));
#ifndef _WIN32
  port::FailCall("connect", 0, WSAENETUNREACH);  // the server's, which comes next
  for (int i = 0; i < 60 && SocketsOf(overdue).size() < 2; ++i) provider.OnUpdate(31);
  port::ClearFaults();
  EXPECT_EQ(SocketsOf(overdue), (std::vector<SOCKET>{first, second}));
#endif
}

#ifndef _WIN32
// One that is overdue has five seconds more, and no longer.
TEST_F(RacingStream, AnOverdueWayIsGivenUpAfterFiveSeconds) {
  Race();
  port::FailCall("connect", 0, WSAENETUNREACH);  // the server's, should it come to that
  provider.OnUpdate(4'999);
  EXPECT_TRUE(IsPolled(first));
  provider.OnUpdate(1);
  port::ClearFaults();
  EXPECT_EQ(SocketsOf("TcpSession::CloseTry, about to close "), std::vector<SOCKET>{first});
  EXPECT_FALSE(IsPolled(first));
  EXPECT_TRUE(log.Contains("[Tracker] RecordNegFailed socket=" + std::to_string(first) +
                           ", neg_type=0, nego_result=" + std::to_string(kNegoTimedOut)))
      << log.Text();
  EXPECT_EQ(GetTracker().Find(first), nullptr) << "it is watched no longer";
}
#endif

// A way that ends without ending the session, while another goes on: it alone is closed.
TEST_F(RacingStream, AWayThatEndsIsClosedAlone) {
  Race();
  loop.delegates.at(first)->OnWritable(first);
  EXPECT_EQ(SocketsOf("TcpSession::CloseTry, about to close "), std::vector<SOCKET>{first});
  EXPECT_FALSE(IsPolled(first));
  EXPECT_TRUE(IsPolled(second));
  EXPECT_FALSE(log.Contains("[TCP]CloseObsoleteSession, remove session, ")) << log.Text();
}

// --- connects that wait --------------------------------------------------------------------------

struct WaitingStream : RoutedStream {
  WaitingStream() {
    GetSocketMap().Add(game, kSocketTypeStream, 6, 9);
    record = GetSocketMap().Get(game);
    record.next_proc_table = &next;
    record.non_blocking = true;
  }
  ~WaitingStream() override { GetSocketMap().Remove(game); }

  static int WSPAPI ConnectBelow(SOCKET, const sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                                 LPINT) {
    return 0;
  }

  const test::Mended mended{kMendRefusal};
  WSPPROC_TABLE next{};
  SocketRecord record;
};

// The game closes its socket, or is told to stop, before the worker has begun.
TEST_F(WaitingStream, AConnectThatIsGivenUpBeforeTheWorkerBeginsIsNotBegun) {
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(postponed));
  EXPECT_TRUE(is_new);
  provider.postponed_connects().Cancel(9);
  provider.StartPostponed();
  EXPECT_FALSE(log.Contains("[TCP]DecideRemoteAddr.use_acc_=")) << log.Text();
  ASSERT_TRUE(Request());
  EXPECT_TRUE(is_new) << "nothing waits at its port";
}

TEST_F(WaitingStream, WithoutMemoryAConnectThatWaitsFails) {
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(postponed));
  next.lpWSPConnect = ConnectBelow;
  {
    // Once: the platform allocates as much at times, too.
    const test::OutOfMemory none(1, sizeof(TcpSession*), sizeof(TcpSession*), true);
    provider.StartPostponed();
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_EQ(postponed->error, WSAECONNREFUSED);
  EXPECT_EQ(GetSocketMap().Get(game).connect_stage, ConnectStage::kRefused);
}

#ifndef _WIN32
TEST_F(WaitingStream, AConnectWhoseWaysAllFailAtOnceFailsWithTheirError) {
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(postponed));
  next.lpWSPConnect = ConnectBelow;
  port::FailCall("connect", 0, WSAENETUNREACH);
  provider.StartPostponed();
  port::ClearFaults();
  EXPECT_EQ(postponed->error, WSAENETUNREACH);
  EXPECT_TRUE(log.Contains("[TCP]CloseObsoleteSession, remove session, ")) << log.Text();
}
#endif

// A connection from the game's port that nobody has asked it to make is a stranger's.
TEST_F(WaitingStream, OnlyAGameThatWasToldToConnectIsExpected) {
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(postponed));
  provider.StartPostponed();
  next.lpWSPConnect = ConnectBelow;
  provider.postponed_connects().Decide(postponed.get(), 0);
  postponed->is_cancelled = true;
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  EXPECT_TRUE(TurnsUntil("session not registered for port=")) << log.Text();
  EXPECT_FALSE(log.Contains("[TCP]MeetPostponed. "));
}

TEST_F(WaitingStream, AGameThatConnectsBeforeItWasToldToIsNotExpected) {
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(postponed));
  provider.StartPostponed();
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  EXPECT_TRUE(TurnsUntil("session not registered for port=")) << log.Text();
  EXPECT_EQ(postponed->error, PostponedConnect::kUndecided);
}

TEST_F(WaitingStream, AConnectThatIsNotGivenUpIsBegunBeforeTheGameConnects) {
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(postponed));
  provider.StartPostponed();
  EXPECT_TRUE(log.Contains("[TCP]DecideRemoteAddr.use_acc_=true, ")) << log.Text();
  provider.postponed_connects().Cancel(9);
  provider.OnUpdate(31);
  EXPECT_TRUE(log.Contains("[TCP]CloseObsoleteSession, remove session, ")) << log.Text();
}

// --- ends ----------------------------------------------------------------------------------------

#ifndef _WIN32
struct PassedReset : DirectStream {
  PassedReset() : DirectStream(kMendReset) {}
};

// Whatever words the system has for it, a connection that is lost is lost for the game, too.
TEST_F(PassedReset, AnyLossOfTheServerIsAResetForTheGame) {
  for (const int error : {WSAECONNABORTED, WSAECONNRESET, WSAENETRESET, WSAECONNREFUSED,
                          WSAETIMEDOUT, WSAENETUNREACH, WSAEHOSTUNREACH}) {
    Joins();
    ASSERT_EQ(send(server, "x", 1, 0), 1);
    port::FailCall("recv", 1, static_cast<DWORD>(error));
    for (int i = 0; i < 500 && port::CallCount("recv") == 0; ++i) loop.Turn();
    port::ClearFaults();
    EXPECT_EQ(Reads(game), End("", "reset")) << error;
    server.Close();
  }
}

TEST_F(PassedReset, AnyOtherErrorIsAnOrderlyEnd) {
  Joins();
  ASSERT_EQ(send(server, "x", 1, 0), 1);
  port::FailCall("recv", 1, WSAENOBUFS);
  for (int i = 0; i < 500 && port::CallCount("recv") == 0; ++i) loop.Turn();
  port::ClearFaults();
  EXPECT_EQ(Reads(game), End("", "closed"));
}

// Some systems show an orderly end where a connection was lost; then the socket has no peer.
TEST_F(PassedReset, AnEndWithoutAPeerIsAReset) {
  for (const auto& [error, end] :
       {std::pair{WSAENOTCONN, "reset"}, std::pair{WSAENOBUFS, "closed"}}) {
    Joins();
    port::FailCall("getpeername", 0, static_cast<DWORD>(error));
    server.Close();
    for (int i = 0; i < 500 && port::CallCount("getpeername") == 0; ++i) loop.Turn();
    port::ClearFaults();
    EXPECT_EQ(Reads(game), End("", end)) << error;
  }
}

struct RestingStream : DirectStream {
  RestingStream() : DirectStream(kMendStart) {}
};

// Nothing is owed, so no write will make room: reading goes on as soon as there is memory.
TEST_F(RestingStream, WithoutMemoryForItsBytesAStreamWaitsAndGoesOn) {
  Joins();
  port::FailCall("VirtualAlloc", 0, ERROR_NOT_ENOUGH_MEMORY);
  ASSERT_EQ(send(game, "hello", 5, 0), 5);
  for (int i = 0; i < 500 && port::CallCount("VirtualAlloc") == 0; ++i) loop.Turn();
  EXPECT_GT(port::CallCount("VirtualAlloc"), 0u);
  port::ClearFaults();
  EXPECT_EQ(Reads(server), End("hello", ""));
}
#endif

// A game that was told to connect and does not come has closed its socket.
struct ExpectedGame : DirectStream {
  ExpectedGame() : DirectStream(kMendRefusal) {}

  static int WSPAPI NeverConnects(SOCKET, const sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                                  LPINT) {
    return 0;
  }
};

TEST_F(ExpectedGame, IsWaitedForTenSeconds) {
  sockaddr_in address;
  game.Reset(test::BoundSocket(SOCK_STREAM, &address));
  GetSocketMap().Add(game, kSocketTypeStream, 6, 9);
  WSPPROC_TABLE next{};
  next.lpWSPConnect = NeverConnects;
  SocketRecord record = GetSocketMap().Get(game);
  record.next_proc_table = &next;
  record.non_blocking = true;
  auto postponed = provider.postponed_connects().Add(record);
  ASSERT_NE(postponed, nullptr);
  ASSERT_TRUE(Request(game, address.sin_port, postponed));
  provider.StartPostponed();
  for (int i = 0; i < 500 && postponed->error == PostponedConnect::kUndecided; ++i) loop.Turn();
  ASSERT_EQ(postponed->error, 0);
  const std::string closed = "[TCP]CloseObsoleteSession, remove session, ";
  provider.OnUpdate(9'999);
  EXPECT_FALSE(log.Contains(closed)) << log.Text();
  provider.OnUpdate(1);
  EXPECT_TRUE(log.Contains(closed)) << log.Text();
  GetSocketMap().Remove(game);
}

}  // namespace
}  // namespace moru_vyr::lsp
