// Edges of the relay of datagrams over the loopback interface: sockets and memory that cannot be
// had, requests that must be refused, and sockets that have gone. At stake: what cannot be relayed
// is refused in words that the requester understands, and leaves nothing behind.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "abi/mending_formats.h"
#include "common/handle.h"
#include "route/route.h"
#include "tests/support/hand_turned.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback.h"
#include "tests/support/mended.h"
#include "tests/unit/out_of_memory.h"
#include "udp/relay_messages.h"
#include "udp/udp_package_queue.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

// --- queues ------------------------------------------------------------------------------------

WSABUF PieceOf(std::string& text) { return {static_cast<ULONG>(text.size()), text.data()}; }

TEST(QueueComparison, EmptyPiecesArePassedOverAndTheFirstDifferenceCounts) {
  std::string none, first = "ab", second = "cd", other = "xx";
  std::array<WSABUF, 3> pieces = {PieceOf(none), PieceOf(first), PieceOf(second)};
  EXPECT_TRUE(CompareToWsaBuffers("abcd", 4, pieces.data(), 3, 4));
  pieces[1] = PieceOf(other);
  EXPECT_FALSE(CompareToWsaBuffers("abcd", 4, pieces.data(), 3, 4));
}

TEST(QueueWithoutMemory, ADatagramWhoseEntryCannotBeMadeLeavesItsBlock) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  UdpPackageQueue queue;
  ASSERT_TRUE(queue.Push("x", 1, &address)) << "there are blocks from now on";
  const test::LogCapture log(0);
  {
    const test::OutOfMemory none(1, 1, test::OutOfMemory::kOfTheProduct);
    EXPECT_FALSE(queue.Push("y", 1, &address));
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(log.Contains("WARNING: alloc failed\n"));
  EXPECT_TRUE(queue.Push("z", 1, &address));
  EXPECT_TRUE(queue.FindAddrThenRemove("z", 1, &address));
}

// --- a provider that has not been started ------------------------------------------------------

TEST(DatagramsWithoutStart, EndQuietly) {
  test::StartWinsock();
  const std::atomic<bool> stopping{false};
  UdpProvider provider(stopping);
  provider.Uninit();
  sockaddr_in address;
  provider.GetLocalAddr(&address);
  EXPECT_EQ(address.sin_port, 0);
  EXPECT_FALSE(provider.OwesServers());
}

// --- sessions ----------------------------------------------------------------------------------

// The loop, which may have no room.
struct CountingLoop final : IRelaySocketMgr {
  u32 AddSocket(SOCKET s, IRelaySocketDelegate* d) noexcept override {
    return turned.AddSocket(s, d);
  }
  u32 EnableWrite(SOCKET s) noexcept override { return turned.EnableWrite(s); }
  void StopReading(SOCKET s) noexcept override { turned.StopReading(s); }
  IRelaySocketDelegate* RemoveSocket(SOCKET s) noexcept override { return turned.RemoveSocket(s); }
  bool HasRoom(u32 sockets) const noexcept override { return sockets <= room; }
  u32 NextToken() noexcept override { return turned.NextToken(); }

  test::HandTurned turned;
  u32 room = 64;
};

struct DatagramEdges : testing::Test {
  static constexpr u32 kToken = 0x7f000001;  // no socket of the process has it

  DatagramEdges() {
    test::StartWinsock();
    game.Reset(test::BoundSocket(SOCK_DGRAM, &game_addr));
    server.Reset(test::BoundSocket(SOCK_DGRAM, &server_addr));
    test::MakeNonBlocking(game);
    test::MakeNonBlocking(server);
    EXPECT_TRUE(provider.Init(&loop, &route));
  }
  ~DatagramEdges() override { provider.Uninit(); }

  // What the game's process sends to ask for a relay, from that socket; the answer.
  ProtoRelayOpen Ask(SOCKET from, u32 token = kToken) {
    const ProtoRelayOpen request = ProtoRelayOpen::Request(token, server_addr, event.get(), from);
    sockaddr_in control;
    provider.GetLocalAddr(&control);
    EXPECT_EQ(sendto(from, reinterpret_cast<const char*>(&request), sizeof request, 0,
                     test::Raw(&control), sizeof control),
              static_cast<int>(sizeof request));
    for (int i = 0; i < 500 && WaitForSingleObject(event.get(), 0) != WAIT_OBJECT_0; ++i) {
      loop.turned.Turn();
    }
    ProtoRelayOpen answer = ProtoRelayOpen::Answer(0, false, {}, nullptr, nullptr);
    EXPECT_TRUE(provider.GetCreateResult(token, &answer));
    return answer;
  }
  // The sockets that are polled now and were not before.
  std::set<SOCKET> Polled() const {
    std::set<SOCKET> sockets;
    for (const auto& [s, delegate] : loop.turned.delegates) sockets.insert(s);
    return sockets;
  }
  static std::string Received(SOCKET s, sockaddr_in* from = nullptr) {
    char bytes[64];
    sockaddr_in source = {};
    int size = sizeof source;
    const int n = recvfrom(s, bytes, sizeof bytes, 0, test::Raw(&source), &size);
    if (from != nullptr) *from = source;
    return n > 0 ? std::string(bytes, static_cast<size_t>(n)) : "";
  }
  UdpPackage Package(const char* text, const sockaddr_in& from) {
    const u32 size = static_cast<u32>(std::strlen(text));
    std::memcpy(bytes_, text, size);
    return {bytes_, sizeof bytes_, size, from};
  }
  static sockaddr_in Peer(const char* ip) {
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(27015);
    peer.sin_addr.s_addr = static_cast<u32>(inet_addr(ip));
    return peer;
  }

  test::LogCapture log{0};
  CountingLoop loop;
  Route route;  // knows nothing, so every flow goes to its server directly
  const std::atomic<bool> stopping{false};
  UdpProvider provider{stopping};
  test::OwnSocket game, server;
  sockaddr_in game_addr, server_addr;
  const common::UniqueHandle event{CreateEventA(nullptr, FALSE, FALSE, nullptr)};

 private:
  u8 bytes_[64] = {};
};

TEST_F(DatagramEdges, ARequestThatThereIsNoRoomForIsRefused) {
  loop.room = 0;
  EXPECT_FALSE(Ask(game).opened());
  loop.room = 1;
  EXPECT_TRUE(Ask(game).opened());
}

TEST_F(DatagramEdges, WithoutMemoryARequestIsRefusedAndTheNextOneIsNot) {
  for (const std::size_t size : {sizeof(UdpSession), sizeof(UdpRemoteSession)}) {
    const std::set<SOCKET> before = Polled();
    {
      const test::OutOfMemory none(1, size, size);
      EXPECT_FALSE(Ask(game).opened()) << size;
    }
    EXPECT_TRUE(test::OutOfMemory::WasFelt()) << size;
    EXPECT_EQ(Polled(), before) << size;
  }
  EXPECT_TRUE(Ask(game).opened());
}

// A session belongs to the socket that asked for it, by its address; its token alone proves
// nothing.
TEST_F(DatagramEdges, AnotherSocketDoesNotGetTheSessionOfAToken) {
  const test::Mended mended(kMendDatagramMatch);
  ASSERT_TRUE(Ask(game).opened());
  const std::set<SOCKET> before = Polled();
  sockaddr_in address;
  const test::OwnSocket stranger(test::BoundSocket(SOCK_DGRAM, &address));
  EXPECT_FALSE(Ask(stranger).opened());
  EXPECT_EQ(Polled(), before);
  EXPECT_TRUE(Ask(game).opened()) << "it goes on untouched";
}

// A datagram on any other socket is no request.
TEST_F(DatagramEdges, OnlyTheControlPortTakesRequests) {
  const ProtoRelayOpen request = ProtoRelayOpen::Request(kToken, server_addr, event.get(), game);
  ASSERT_EQ(sendto(game, reinterpret_cast<const char*>(&request), sizeof request, 0,
                   test::Raw(&server_addr), sizeof server_addr),
            static_cast<int>(sizeof request));
  ASSERT_TRUE(test::BecomesReadable(server));
  provider.OnReadable(server);
  ProtoRelayOpen answer = request;
  EXPECT_FALSE(provider.GetCreateResult(kToken, &answer));
  EXPECT_EQ(Received(server), "") << "it was read";
}

TEST_F(DatagramEdges, ASessionThatWasNotStartedHasNoAddressAndTakesNothing) {
  UdpSession session(&provider, 1, game_addr, server_addr, 8192, 8192);
  sockaddr_in address = {};
  EXPECT_FALSE(session.GetRelayAddrFor(server_addr, &address));
  session.DeliverToGame(Package("x", server_addr));
  EXPECT_EQ(Received(game), "");
  EXPECT_TRUE(session.CanClose());
}

TEST_F(DatagramEdges, ASessionReadsItsOwnSocketsOnly) {
  UdpSession session(&provider, 1, game_addr, server_addr, 8192, 8192);
  const std::set<SOCKET> before = Polled();
  ASSERT_TRUE(session.Init());
  for (const auto& [s, delegate] : loop.turned.delegates) {
    if (before.contains(s)) continue;
    ASSERT_EQ(sendto(game, "x", 1, 0, test::Raw(&server_addr), sizeof server_addr), 1);
    ASSERT_TRUE(test::BecomesReadable(server));
    delegate->OnReadable(server);
    EXPECT_EQ(Received(server), "x") << "it is not the session's to read";
  }
}

// --- a port for each peer ----------------------------------------------------------------------

struct PeerEdges : DatagramEdges {
  std::set<SOCKET> New() {
    std::set<SOCKET> sockets;
    for (const SOCKET s : Polled())
      if (!known.contains(s)) sockets.insert(s);
    known = Polled();
    return sockets;
  }
  IRelaySocketDelegate& Delegate(SOCKET s) { return *loop.turned.delegates.at(s); }

  const test::Mended mended{kMendDatagramMatch};
  UdpSession session{&provider, 1, game_addr, server_addr, 8192, 8192};
  std::set<SOCKET> known;
};

TEST_F(PeerEdges, WithoutMemoryForItsPortsASessionDoesNotStart) {
  {
    const test::OutOfMemory none(1, sizeof(PeerSockets), sizeof(PeerSockets));
    EXPECT_FALSE(session.Init());
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_FALSE(session.HasPeerPorts());
  EXPECT_TRUE(session.Init());
}

#ifndef _WIN32
// The second of each call is for the port of the first peer; a bind is tried with many ports.
TEST_F(PeerEdges, APortThatCannotBePreparedIsRefusedAndLeavesNoSocket) {
  for (const char* const call : {"socket", "bind", "ioctlsocket"}) {
    UdpSession refused(&provider, 2, game_addr, server_addr, 8192, 8192);
    const std::size_t before = Polled().size();
    for (unsigned nth = 2; nth <= 1000; ++nth) port::FailCall(call, nth, WSAENOBUFS);
    EXPECT_FALSE(refused.Init()) << call;
    port::ClearFaults();
    EXPECT_EQ(Polled().size(), before + 1) << call << ": the flow's own socket";
    EXPECT_TRUE(log.Contains("[UDP] PeerSockets::Make failed, peer=127.0.0.1:" +
                             std::to_string(ntohs(server_addr.sin_port)) + ", token=2\n"))
        << call << log.Text();
  }
  EXPECT_TRUE(session.Init()) << "no place was lost";
}

// A stranger's datagram for which no port can be had is lost, and the next one is not.
TEST_F(PeerEdges, AStrangerGetsAPortOnceThereIsOne) {
  ASSERT_TRUE(session.Init());
  const sockaddr_in stranger = Peer("203.0.113.7");
  port::FailCall("socket", 1, WSAENOBUFS);
  session.DeliverToGame(Package("lost", stranger));
  port::ClearFaults();
  EXPECT_EQ(Received(game), "");
  EXPECT_TRUE(log.Contains("PeerSockets::SendToGame, no port for 203.0.113.7:27015, token=1\n"));
  session.DeliverToGame(Package("heard", stranger));
  ASSERT_TRUE(test::BecomesReadable(game));
  EXPECT_EQ(Received(game), "heard");
}

// Each port's datagrams wait for that port alone.
TEST_F(PeerEdges, ThePortThatHasRoomFirstSendsFirst) {
  ASSERT_TRUE(session.Init());
  const sockaddr_in a = Peer("203.0.113.7"), b = Peer("203.0.113.8");
  New();
  port::FailCall("sendto", 0, WSAEWOULDBLOCK);
  session.DeliverToGame(Package("from a", a));
  const std::set<SOCKET> port_of_a = New();
  session.DeliverToGame(Package("from b", b));
  const std::set<SOCKET> port_of_b = New();
  port::ClearFaults();
  ASSERT_EQ(port_of_a.size(), 1u);
  ASSERT_EQ(port_of_b.size(), 1u);
  for (const auto& [s, text] :
       {std::pair{*port_of_b.begin(), "from b"}, std::pair{*port_of_a.begin(), "from a"}}) {
    Delegate(s).OnWritable(s);
    ASSERT_TRUE(test::BecomesReadable(game)) << text;
    EXPECT_EQ(Received(game), text);
    EXPECT_EQ(Received(game), "") << "the other one still waits, or has gone";
  }
}

TEST_F(PeerEdges, MoreThanMayWaitIsLost) {
  ASSERT_TRUE(session.Init());
  const sockaddr_in peer = Peer("203.0.113.7");
  New();
  port::FailCall("sendto", 0, WSAEWOULDBLOCK);
  const int most = static_cast<int>(PeerSockets::kMostBlocked);
  for (int i = 0; i < most + 40; ++i) {
    session.DeliverToGame(Package(std::to_string(i).c_str(), peer));
  }
  const std::set<SOCKET> made = New();
  port::ClearFaults();
  ASSERT_EQ(made.size(), 1u);
  Delegate(*made.begin()).OnWritable(*made.begin());
  ASSERT_TRUE(test::BecomesReadable(game));
  int next = 0;
  for (std::string text = Received(game); !text.empty(); text = Received(game)) {
    EXPECT_EQ(text, std::to_string(next++));
  }
  EXPECT_GT(next, 0);
  EXPECT_LE(next, most);
}

TEST_F(PeerEdges, AnEventOfAnUnknownSocketIsIgnored) {
  New();
  ASSERT_TRUE(session.Init());
  for (const SOCKET s : New()) {
    IRelaySocketDelegate& delegate = Delegate(s);
    ASSERT_EQ(sendto(game, "x", 1, 0, test::Raw(&server_addr), sizeof server_addr), 1);
    ASSERT_TRUE(test::BecomesReadable(server));
    delegate.OnReadable(server);
    EXPECT_EQ(Received(server), "x");
  }
}

// The game's socket has gone without notice, and what it sent last cannot leave: five seconds are
// given for that, and five more.
TEST_F(PeerEdges, AForgottenSessionEndsAtTheSecondLookWhateverStillWaits) {
  const ProtoRelayOpen answer = Ask(game);
  ASSERT_TRUE(answer.opened());
  sockaddr_in port = answer.address();
  ASSERT_EQ(sendto(game, "x", 1, 0, test::Raw(&port), sizeof port), 1);
  port::FailCall("sendto", 0, WSAEWOULDBLOCK);
  for (int i = 0; i < 500 && !provider.OwesServers(); ++i) loop.turned.Turn();
  ASSERT_TRUE(provider.OwesServers()) << log.Text();
  provider.OnUpdate(5000);
  EXPECT_TRUE(provider.OwesServers()) << "it may still be sent";
  const std::string line = "[UDP] session forgotten, token=" + std::to_string(kToken) + "\n";
  EXPECT_FALSE(log.Contains(line));
  provider.OnUpdate(5000);
  EXPECT_FALSE(provider.OwesServers());
  EXPECT_TRUE(log.Contains(line)) << log.Text();
  EXPECT_EQ(provider.UsePeerPorts(kToken), nullptr);
  port::ClearFaults();
}
#endif

}  // namespace
}  // namespace moru_vyr::lsp
