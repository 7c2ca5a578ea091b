// Edges of the relay of streams that need no network between two machines: parts that were never
// started, sockets that cannot be had, and connects that end before they are decided.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "route/route.h"
#include "sockets/socket_map.h"
#include "stream/block_pool.h"
#include "stream/postponed_connect.h"
#include "stream/tcp_provider.h"
#include "stream/wake_socket.h"
#include "tests/support/hand_turned.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback.h"
#include "tests/support/mended.h"
#include "tests/unit/out_of_memory.h"
#include "tests/unit/scripted_provider.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

// --- blocks ------------------------------------------------------------------------------------

// A larger read needs larger blocks: one that was kept is not taken for it.
TEST(BlockPoolSizes, AKeptBlockServesItsOwnSizeOnly) {
  BlockPool pool;
  std::list<BufferBlock> small, large, again;
  pool.Take(4096, &small);
  const u8* const kept = small.back().data.get();
  pool.Put(&small);
  pool.Take(65536, &large);
  EXPECT_EQ(large.back().capacity, 65536u);
  EXPECT_NE(large.back().data.get(), kept);
  pool.Take(4096, &again);
  EXPECT_EQ(again.back().data.get(), kept) << "it is still there";
}

// --- a provider that has not been started ------------------------------------------------------

TEST(StreamsWithoutStart, HaveRoomAndEndQuietly) {
  test::StartWinsock();
  TcpProvider provider;
  EXPECT_TRUE(provider.HasRoomForSession()) << "places are not counted yet";
  provider.Uninit();
  EXPECT_FALSE(provider.OwesServers());
}

// What a thread that connects is told has to stay, so each start keeps its listener's address.
TEST(StreamsWithoutMemory, DoNotStartAndLeaveNoListener) {
  test::StartWinsock();
  struct Entry {
    void* next;
    sockaddr_in address;
  };
  test::HandTurned loop;
  Route route;
  TcpProvider provider;
  {
    const test::OutOfMemory none(1, sizeof(Entry), sizeof(Entry));
    EXPECT_FALSE(provider.Init(&loop, &route));
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(loop.delegates.empty());
  EXPECT_TRUE(provider.Init(&loop, &route));
  provider.Uninit();
}

// --- requests ----------------------------------------------------------------------------------

struct StreamRequests : testing::Test {
  StreamRequests() {
    test::StartWinsock();
    EXPECT_TRUE(provider.Init(&loop, &route));
  }
  ~StreamRequests() override { provider.Uninit(); }
  bool Request(u16 port, u32 token) {
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(80);
    server.sin_addr.s_addr = static_cast<u32>(inet_addr("198.51.100.10"));
    is_new = false;
    return provider.RequestTcpRelaySession(77, htons(port), &server, &relay_addr, &relay_len, token,
                                           &is_new);
  }

  test::LogCapture log{4};
  test::HandTurned loop;
  Route route;  // knows nothing
  TcpProvider provider;
  sockaddr* relay_addr = nullptr;
  int relay_len = 0;
  bool is_new = false;
};

// The port has a new socket, so the one before it will not connect from there any more.
TEST_F(StreamRequests, AFailedConnectLeavesItsPortToTheNextSocketIfThatIsMended) {
  const test::Mended mended(kMendStart);
  ASSERT_TRUE(Request(4000, 1));
  ASSERT_TRUE(Request(4000, 2));
  EXPECT_TRUE(is_new);
  EXPECT_FALSE(log.Contains("port duplicate")) << log.Text();
  ASSERT_TRUE(Request(4000, 2));
  EXPECT_FALSE(is_new) << "a second connect of the same socket";
}

TEST_F(StreamRequests, OnlyItsOwnSocketForgetsARequest) {
  const test::Mended mended(kMendStart);
  ASSERT_TRUE(Request(4000, 1));
  provider.ForgetRequest(htons(4000), 2);
  ASSERT_TRUE(Request(4000, 1));
  EXPECT_FALSE(is_new) << "it was not forgotten";
  provider.ForgetRequest(htons(4001), 1);
  provider.ForgetRequest(htons(4000), 1);
  ASSERT_TRUE(Request(4000, 1));
  EXPECT_TRUE(is_new);
}

TEST_F(StreamRequests, WithoutMemoryASessionIsRefused) {
  {
    const test::OutOfMemory none(1, sizeof(TcpSession), sizeof(TcpSession));
    EXPECT_FALSE(Request(4000, 1));
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(log.Contains("CreateNewSession failed, socket=77, token=1\n")) << log.Text();
  ASSERT_TRUE(Request(4000, 2));
  EXPECT_TRUE(is_new) << "nothing was left behind";
}

#ifndef _WIN32
// Only the end of the queue is passed over in silence.
TEST_F(StreamRequests, AnAcceptThatFailsAfterOthersIsLogged) {
  const test::Mended mended(kMendThroughput);
  ASSERT_TRUE(Request(4000, 1));
  sockaddr_in address;
  const test::OwnSocket stranger(test::BoundSocket(SOCK_STREAM, &address));
  ASSERT_EQ(connect(stranger, relay_addr, relay_len), 0);
  const char failed[] = "OnLocalServerAcceptable, accept failed. err=10024";
  port::FailCall("accept", 2, WSAEMFILE);
  for (int i = 0; i < 500 && !log.Contains("session not registered"); ++i) loop.Turn();
  port::ClearFaults();
  EXPECT_TRUE(log.Contains(failed)) << log.Text();
}
#endif

// --- waking the worker -------------------------------------------------------------------------

struct WakeSockets : testing::Test {
  WakeSockets() { test::StartWinsock(); }
  std::size_t Polled() const { return loop.delegates.size(); }

  test::HandTurned loop;
  TcpProvider provider;
  WakeSocket wake{&provider};
};

TEST_F(WakeSockets, WithoutALoopThereIsNoneAndNothingToWake) {
  wake.Open(nullptr);
  wake.Wake();
  wake.Close(nullptr);
  wake.Open(&loop);
  EXPECT_EQ(Polled(), 1u);
  loop.RemoveSocket(loop.delegates.begin()->first);
  wake.Close(nullptr);
  wake.Close(&loop);
  EXPECT_EQ(Polled(), 0u);
}

#ifndef _WIN32
// A platform that refuses one step leaves no socket half made; the timer starts what is postponed.
TEST_F(WakeSockets, ASocketThatCannotBePreparedIsGivenUp) {
  for (const char* const call : {"socket", "bind", "ioctlsocket"}) {
    port::FailCall(call, 0, WSAENOBUFS);
    wake.Open(&loop);
    port::ClearFaults();
    EXPECT_EQ(Polled(), 0u) << call;
    port::CountCalls();
    wake.Wake();
    EXPECT_EQ(port::CallCount("sendto"), 0u) << call;
    port::ClearFaults();
  }
  wake.Open(&loop);
  EXPECT_EQ(Polled(), 1u);
  wake.Close(&loop);
}
#endif

// --- connects that wait ------------------------------------------------------------------------

struct PostponedList : testing::Test {
  PostponedList() {
    test::StartWinsock();
    table.lpWSPConnect = ConnectBelow;
    GetSocketMap().Add(kSocket, kSocketTypeStream, 6, 9);
    record = GetSocketMap().Get(kSocket);
    record.next_proc_table = &table;
    record.non_blocking = true;
    connected = {};
  }
  ~PostponedList() override {
    connects.Close();
    GetSocketMap().Remove(kSocket);
  }

  static int WSPAPI ConnectBelow(SOCKET, const sockaddr* name, int, LPWSABUF, LPWSABUF, LPQOS,
                                 LPQOS, LPINT) {
    std::memcpy(&connected, name, sizeof connected);
    return 0;
  }
  static inline sockaddr_in connected{};

  static constexpr SOCKET kSocket = 0x1234;
  WSPPROC_TABLE table{};
  SocketRecord record;
  PostponedConnects connects;
  const sockaddr_in listener = test::Address("127.0.0.1", 4001);
};

TEST_F(PostponedList, AServerThatWasReachedConnectsTheSocketToTheRelay) {
  connects.Open(listener);
  const auto connect = connects.Add(record);
  ASSERT_NE(connect, nullptr);
  connects.Decide(connect.get(), 0);
  EXPECT_EQ(connected.sin_port, listener.sin_port);
  EXPECT_EQ(GetSocketMap().Get(kSocket).connect_stage, ConnectStage::kIssued);
  connected = {};
  connects.Decide(connect.get(), WSAECONNREFUSED);
  EXPECT_EQ(connected.sin_port, 0) << "the first decision counts";
}

// The socket's value may be another socket's by now.
TEST_F(PostponedList, ASocketThatHasGoneIsNotConnected) {
  connects.Open(listener);
  const auto connect = connects.Add(record);
  ASSERT_NE(connect, nullptr);
  GetSocketMap().Remove(kSocket);
  GetSocketMap().Add(kSocket, kSocketTypeStream, 6, 10);
  connects.Decide(connect.get(), 0);
  EXPECT_EQ(connected.sin_port, 0);
  EXPECT_EQ(connect->error, 0);
}

TEST_F(PostponedList, ACancelledConnectIsNotCarriedOut) {
  connects.Open(listener);
  const auto connect = connects.Add(record);
  ASSERT_NE(connect, nullptr);
  connects.Cancel(8);
  EXPECT_EQ(connect->error, PostponedConnect::kUndecided) << "another socket's";
  connects.Cancel(9);
  EXPECT_EQ(connect->error, WSAEINTR);
  EXPECT_EQ(connected.sin_port, 0);
}

TEST_F(PostponedList, WithoutMemoryNothingIsPostponed) {
  {
    const test::OutOfMemory none;
    EXPECT_EQ(connects.Add(record), nullptr);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_NE(connects.Add(record), nullptr);
}

// A port that the relay keeps, so that no other program can come to listen there.
TEST_F(PostponedList, TheDeadEndIsAPortThatNobodyElseCanTake) {
  sockaddr_in bound;
  const test::OwnSocket listening(test::BoundSocket(SOCK_STREAM, &bound));
  connects.Open(bound);
  const auto connect = connects.Add(record);
  ASSERT_NE(connect, nullptr);
  connects.Decide(connect.get(), WSAECONNREFUSED);
  EXPECT_EQ(connected.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_NE(connected.sin_port, bound.sin_port);
  EXPECT_NE(connected.sin_port, htons(1));
  const test::OwnSocket other(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in place = connected;
  EXPECT_EQ(bind(other, test::Raw(&place), sizeof place), SOCKET_ERROR);
}

#ifndef _WIN32
TEST_F(PostponedList, TheDeadEndIsGivenBackOnce) {
  connects.Open(sockaddr_in{});
  connects.Close();
  port::CountCalls();
  connects.Close();
  EXPECT_EQ(port::CallCount("closesocket"), 0u);
  port::ClearFaults();
}

TEST_F(PostponedList, WithoutADeadEndARefusalGoesWhereNoProgramListens) {
  port::FailCall("socket", 1, WSAENOBUFS);
  connects.Open(listener);
  port::ClearFaults();
  const auto connect = connects.Add(record);
  ASSERT_NE(connect, nullptr);
  connects.Decide(connect.get(), WSAECONNREFUSED);
  EXPECT_EQ(connected.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ntohs(connected.sin_port), 1);
  EXPECT_EQ(GetSocketMap().Get(kSocket).connect_stage, ConnectStage::kRefused);
}
#endif

}  // namespace
}  // namespace moru_vyr::lsp
