// Edges of the relay of datagrams over the loopback interface: sockets and memory that cannot be
// had, requests that must be refused, and sockets that have gone. At stake: what cannot be relayed
// is refused in words that the requester understands, and leaves nothing behind.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

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
  pieces = {PieceOf(none), PieceOf(first), PieceOf(other)};
  EXPECT_FALSE(CompareToWsaBuffers("abcd", 4, pieces.data(), 3, 4)) << "in a later piece";
}

// A game's buffers may have more room than the datagram needs.
TEST(QueueComparison, WhatIsBehindTheDatagramDoesNotCount) {
  std::string first = "ab", second = "cd and more", third = "behind";
  const std::array<WSABUF, 3> pieces = {PieceOf(first), PieceOf(second), PieceOf(third)};
  EXPECT_TRUE(CompareToWsaBuffers("abcdefghijkl", 4, pieces.data(), 3, 4));
}

// Whatever the lengths are.
TEST(QueueEntries, ALoneOneIsFoundByADatagramOfAnotherLength) {
  const std::string bytes(64, 'x');
  for (u32 queued = 1; queued <= 64; ++queued) {
    UdpPackageQueue queue;
    sockaddr_in address = {};
    address.sin_port = static_cast<u16>(queued);
    ASSERT_TRUE(queue.Push(bytes.data(), queued, &address));
    sockaddr_in found = {};
    EXPECT_TRUE(queue.FindAddrThenRemove(bytes.data(), 65 - queued, &found)) << queued;
    EXPECT_EQ(found.sin_port, queued);
  }
}

// --- memory of datagrams -----------------------------------------------------------------------

TEST(DatagramMemory, OfADatagramThatWasTakenServesTheNext) {
  UdpPackageQueue queue;
  sockaddr_in address = {};
  const auto in_and_out = [&] {
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(queue.Push("abcd", 4, &address));
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(queue.FindAddrThenRemove("abcd", 4, &address));
  };
  in_and_out();
  const long before = test::AllocationsAlive();
  for (int i = 0; i < 50; ++i) in_and_out();
  EXPECT_EQ(test::AllocationsAlive(), before);
}

TEST(DatagramMemory, GrowsByDoublingUpToSixteenBlocksAtATime) {
  constexpr long kLists = 2;  // of the pool: of all blocks, and of the free ones
  PackageBlockPool pool(PackageBlockPool::kMinBlockSize);
  std::vector<long> held;
  held.reserve(49);
  const long before = test::AllocationsAlive();
  for (int i = 0; i < 49; ++i) {
    ASSERT_NE(pool.Get(), nullptr);
    const long blocks = test::AllocationsAlive() - before - kLists;
    if (held.empty() || held.back() != blocks) held.push_back(blocks);
  }
  EXPECT_EQ(held, (std::vector<long>{4, 8, 16, 32, 48, 64}));
}

// It is given back while a datagram is on its way, where nothing may fail.
TEST(DatagramMemory, IsGivenBackWithoutAnyMore) {
  PackageBlockPool pool(PackageBlockPool::kMinBlockSize);
  std::vector<void*> blocks;
  for (int i = 0; i < 49; ++i) blocks.push_back(pool.Get());
  {
    const test::OutOfMemory none;
    for (void* const block : blocks) pool.Put(block);
  }
  EXPECT_FALSE(test::OutOfMemory::WasFelt());
  EXPECT_NE(pool.Get(), nullptr);
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

  void Send(const ProtoRelayOpen& request, SOCKET from) {
    sockaddr_in control;
    provider.GetLocalAddr(&control);
    EXPECT_EQ(sendto(from, reinterpret_cast<const char*>(&request), sizeof request, 0,
                     test::Raw(&control), sizeof control),
              static_cast<int>(sizeof request));
  }
  // What the game's process sends to ask for a relay, from that socket; the answer.
  ProtoRelayOpen Ask(SOCKET from, u32 token = kToken) {
    Send(ProtoRelayOpen::Request(token, server_addr, event.get(), from), from);
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

// What a map like the one of the live queues needs for an entry.
template <class T>
struct Weighed {
  using value_type = T;
  explicit Weighed(std::size_t* last) : bytes(last) {}
  template <class Other>
  explicit Weighed(const Weighed<Other>& other) : bytes(other.bytes) {}
  T* allocate(std::size_t count) {
    *bytes = count * sizeof(T);
    return std::allocator<T>().allocate(count);
  }
  void deallocate(T* place, std::size_t count) { std::allocator<T>().deallocate(place, count); }
  bool operator==(const Weighed&) const = default;
  std::size_t* bytes;
};

// The session is there by then, and its queues cannot be announced to the game's threads. Nothing
// of that size is needed later, and what the platform needs must not fail: so it is the last one.
TEST_F(DatagramEdges, WithoutMemoryForItsQueuesARequestLeavesNothingOfItsSession) {
  using Entry = std::pair<const u32, std::shared_ptr<UdpQueues>>;
  std::size_t size = 0;
  std::map<u32, std::shared_ptr<UdpQueues>, std::less<>, Weighed<Entry>> weighed{
      Weighed<Entry>(&size)};
  weighed[1] = nullptr;
  const std::set<SOCKET> before = Polled();
  for (int nth = 16; nth > 0; --nth) {
    const ProtoRelayOpen request = ProtoRelayOpen::Request(kToken, server_addr, event.get(), game);
    Send(request, game);
    ASSERT_TRUE(test::BecomesReadable(*before.begin())) << "the control port";
    {
      const test::OutOfMemory none(nth, size, size, true);
      provider.OnReadable(*before.begin());
    }
    ProtoRelayOpen answer = request;
    EXPECT_EQ(WaitForSingleObject(event.get(), 0), WAIT_OBJECT_0);
    ASSERT_TRUE(provider.GetCreateResult(kToken, &answer));
    EXPECT_NE(answer.opened(), test::OutOfMemory::WasFelt());
    if (test::OutOfMemory::WasFelt()) break;
    provider.NoteUntoldEnd(kToken);
    provider.OnUpdate(30);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_EQ(Polled(), before);
  provider.OnUpdate(30);
  EXPECT_TRUE(Ask(game).opened()) << "the token is free";
}

// The relay's sockets get the same.
TEST_F(DatagramEdges, ARequestSaysHowMuchRoomTheGamesSocketHasAndWhenItWasMade) {
  const auto room = [this](int option) {
    int size = 0, length = sizeof size;
    EXPECT_EQ(getsockopt(game, SOL_SOCKET, option, reinterpret_cast<char*>(&size), &length), 0);
    return static_cast<std::uintptr_t>(size);
  };
  int wanted = 20000;
  for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
    ASSERT_EQ(
        setsockopt(game, SOL_SOCKET, option, reinterpret_cast<const char*>(&wanted), sizeof wanted),
        0);
    wanted *= 2;
  }
  ASSERT_NE(room(SO_SNDBUF), room(SO_RCVBUF));
  const DWORD before = GetTickCount();
  const ProtoRelayOpen request = ProtoRelayOpen::Request(kToken, server_addr, nullptr, game);
  EXPECT_EQ(std::uintptr_t{request.send_size_or_queue}, room(SO_SNDBUF));
  EXPECT_EQ(std::uintptr_t{request.recv_size_or_queue}, room(SO_RCVBUF));
  EXPECT_NE(u32{request.tick}, 0u);
  EXPECT_LE(u32{request.tick} - before, GetTickCount() - before);
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

// Kept: only those with ports are looked for; the others end by a message or a note.
TEST_F(DatagramEdges, ASessionByQueuesIsNotForgotten) {
  const ProtoRelayOpen answer = Ask(game);
  ASSERT_TRUE(answer.opened());
  for (int i = 0; i < 3; ++i) provider.OnUpdate(5000);
  EXPECT_NE(provider.UseQueue(answer.send_queue(), kToken), nullptr);
}

// --- a port for each peer ----------------------------------------------------------------------

struct PeerEdges : DatagramEdges {
  explicit PeerEdges(u32 bits = kMendDatagramMatch) : mended(bits) {}
  std::set<SOCKET> New() {
    std::set<SOCKET> sockets;
    for (const SOCKET s : Polled())
      if (!known.contains(s)) sockets.insert(s);
    known = Polled();
    return sockets;
  }
  IRelaySocketDelegate& Delegate(SOCKET s) { return *loop.turned.delegates.at(s); }

  const test::Mended mended;
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

// Without the timer.
TEST_F(PeerEdges, WhatWaitsForRoomLeavesAsSoonAsThereIsSome) {
  ASSERT_TRUE(session.Init());
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  session.DeliverToGame(Package("waits", Peer("203.0.113.7")));
  EXPECT_EQ(Received(game), "");
  std::string got;
  for (int i = 0; i < 100 && got.empty(); ++i) {
    loop.turned.Turn();
    got = Received(game);
  }
  EXPECT_EQ(got, "waits");
}

TEST_F(PeerEdges, MoreThanMayWaitIsLost) {
  ASSERT_TRUE(session.Init());
  const int room = 200'000;
  setsockopt(game, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&room), sizeof room);
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
  EXPECT_EQ(next, most);
}

// What a node that was left is still to be told does not outlive the link.
TEST_F(PeerEdges, AClearedLinkHasNoSocketAndNothingThatWaits) {
  const UdpFlow flow{&session, 1, server_addr, game_addr, SessionGuid::Make()};
  NodeLink link(flow, false);
  ASSERT_TRUE(link.Open());
  const test::OwnSocket opened(link.sock());
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  link.SendEnd();
  EXPECT_TRUE(link.HasBlocked());
  link.Clear();
  EXPECT_EQ(link.sock(), INVALID_SOCKET);
  EXPECT_FALSE(link.HasBlocked());
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

#endif

// A port that has had one datagram at a time is read once a pass, but not before its end.
struct PacedPeerEdges : PeerEdges {
  PacedPeerEdges() : PeerEdges(kMendDatagramMatch | kMendThroughput) {}
};

TEST_F(PacedPeerEdges, WhatTheGameSentBeforeItClosedIsReadToTheEnd) {
  ASSERT_TRUE(session.Init());
  sockaddr_in port = {};
  ASSERT_TRUE(session.GetRelayAddrFor(server_addr, &port));
  const auto game_sends = [&](const std::string& text) {
    EXPECT_EQ(sendto(game, text.data(), 3, 0, test::Raw(&port), sizeof port), 3);
  };
  for (int i = 0; i < 10; ++i) {
    game_sends("one");
    std::string got;
    for (int turn = 0; turn < 100 && got.empty(); ++turn) {
      loop.turned.Turn();
      got = Received(server);
    }
    ASSERT_EQ(got, "one");
  }
  const std::string last[] = {"abc", "def", "ghi"};
  for (const std::string& text : last) game_sends(text);
  EXPECT_TRUE(session.CanClose());
  for (const std::string& text : last) {
    ASSERT_TRUE(test::BecomesReadable(server)) << text;
    EXPECT_EQ(Received(server), text);
  }
}

// The worker looks for them every five seconds.
TEST_F(PeerEdges, SessionsOfSocketsThatHaveGoneEndTogether) {
  sockaddr_in address;
  const test::OwnSocket second(test::BoundSocket(SOCK_DGRAM, &address));
  ASSERT_TRUE(Ask(game).opened());
  ASSERT_TRUE(Ask(second, kToken + 1).opened());
  provider.OnUpdate(4999);
  EXPECT_NE(provider.UsePeerPorts(kToken), nullptr);
  EXPECT_NE(provider.UsePeerPorts(kToken + 1), nullptr);
  provider.OnUpdate(1);
  EXPECT_EQ(provider.UsePeerPorts(kToken), nullptr);
  EXPECT_EQ(provider.UsePeerPorts(kToken + 1), nullptr);
}

TEST_F(PeerEdges, PortsThatHaveEndedMakeRoomForOthers) {
  for (int i = 0; i < 100; ++i) {
    UdpSession one(&provider, 2, game_addr, server_addr, 8192, 8192);
    ASSERT_TRUE(one.Init()) << i;
  }
}

#ifndef _WIN32
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
