// Single steps of relayed streams, turned by hand: how long an end may last, what is done at once
// and what at the next update, and what is left behind. At stake: a game that waits for nothing,
// and sockets that nobody owns any more.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "abi/mending_formats.h"
#include "sockets/socket_map.h"
#include "stream/block_buffer.h"
#include "stream/block_pool.h"
#include "stream/postponed_connect.h"
#include "stream/tcp_session.h"
#include "stream/wake_socket.h"
#include "tests/support/direct_stream.h"
#include "tests/unit/out_of_memory.h"
#include "tracker/tracker.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

const char kSessionRemoved[] = "[TCP]CloseObsoleteSession, remove session, ";

// --- blocks ------------------------------------------------------------------------------------

// Of an ended connection's blocks, one that was used much goes back to the system, wherever it
// stands; the others serve the next connection.
TEST(BlocksPutBack, AreKeptOrFreedOneByOne) {
  BlockPool pool;
  std::list<BufferBlock> blocks;
  pool.Take(BlockBuffer::kBlockSize, &blocks);
  blocks.back().Wrote(BlockPool::kLittleUsed + 1);
  pool.Take(BlockBuffer::kBlockSize, &blocks);
  u8* const little_used = blocks.back().data.get();
  pool.Put(&blocks);
  EXPECT_TRUE(blocks.empty());
  pool.Take(BlockBuffer::kBlockSize, &blocks);
  EXPECT_EQ(blocks.back().data.get(), little_used);
}

#ifndef _WIN32
// A connection whose bytes have all been delivered ends like any other.
TEST(BlocksPutBack, ADrainedBlockServesTheNextConnection) {
  BlockPool pool;
  u8* place = nullptr;
  {
    BlockBuffer buffer(&pool);
    ASSERT_TRUE(buffer.Reserve(&place, 100));
    ASSERT_TRUE(buffer.Commit(100));
    ASSERT_TRUE(buffer.Consume(100));
  }
  port::CountCalls();
  BlockBuffer next(&pool);
  ASSERT_TRUE(next.Reserve(&place, 100));
  EXPECT_EQ(port::CallCount("VirtualAlloc"), 0u);
  port::ClearFaults();
}
#endif

// --- half-closed streams -----------------------------------------------------------------------

struct HalfClosedStream : DirectStream {
  HalfClosedStream() : DirectStream(kMendHalfClose) {}
  void Ends(SOCKET side) {
    ASSERT_EQ(shutdown(side, SD_SEND), 0);
    const std::string stopped = "[TCP]TcpSession::StopSending, ";
    for (int i = 0; i < 500 && !log.Contains(stopped); ++i) loop.Turn();
    ASSERT_TRUE(log.Contains(stopped)) << log.Text();
  }
  bool IsRemoved() const { return log.Contains(kSessionRemoved); }
};

// Five minutes without a byte: an end of the game's alone may be a game that has gone.
TEST_F(HalfClosedStream, LivesForFiveMinutesAfterTheGamesEnd) {
  Joins();
  Ends(game);
  provider.OnUpdate(299'999);
  EXPECT_FALSE(IsRemoved());
  provider.OnUpdate(1);
  EXPECT_TRUE(IsRemoved());
}

TEST_F(HalfClosedStream, LivesForFiveMinutesAfterTheServersEnd) {
  Joins();
  Ends(server);
  provider.OnUpdate(299'999);
  EXPECT_FALSE(IsRemoved());
  provider.OnUpdate(1);
  EXPECT_TRUE(IsRemoved());
}

TEST_F(HalfClosedStream, EachByteGivesItFiveMinutesAgain) {
  Joins();
  Ends(game);
  provider.OnUpdate(299'999);
  ASSERT_EQ(send(server, "x", 1, 0), 1);
  char got = 0;
  for (int i = 0; i < 500 && recv(game, &got, 1, 0) != 1; ++i) loop.Turn();
  ASSERT_EQ(got, 'x');
  provider.OnUpdate(299'999);
  EXPECT_FALSE(IsRemoved());
  provider.OnUpdate(1);
  EXPECT_TRUE(IsRemoved());
}

// --- what is owed ------------------------------------------------------------------------------

struct OwingStream : DirectStream {};

// The end of the relay waits for what a game has sent, and not for a connection that is idle.
TEST_F(OwingStream, OwesWhatTheServerHasNotTaken) {
  Joins();
  EXPECT_FALSE(provider.OwesServers());
  const std::string piece(65536, 'x');
  for (int i = 0; i < 500 && !provider.OwesServers(); ++i) {
    send(game, piece.data(), static_cast<int>(piece.size()), 0);
    loop.Turn();
  }
  EXPECT_TRUE(provider.OwesServers());
}

// What a game that has ended is owed has no receiver, and its server is read to its end.
TEST_F(OwingStream, AGameThatHasEndedHoldsNoServerBack) {
  Joins();
  test::MakeNonBlocking(server);
  const std::string piece(65536, 'x');
  const auto sends = [&](SOCKET s) {
    const int n = send(s, piece.data(), static_cast<int>(piece.size()), 0);
    loop.Turn();
    return n > 0;
  };
  for (int i = 0, refused = 0; i < 2000 && refused < 5; ++i)
    refused = sends(server) ? 0 : refused + 1;
  // Until it stays so: the system's buffers grow. And no more, or the end could not be read.
  for (int i = 0, owing = 0; i < 2000 && owing < 50; ++i) {
    owing = provider.OwesServers() ? owing + 1 : 0;
    if (owing == 0) sends(game);
    loop.Turn();
  }
  ASSERT_TRUE(provider.OwesServers());
  ASSERT_EQ(shutdown(game, SD_SEND), 0);
  for (int i = 0; i < 20; ++i) loop.Turn();
  EXPECT_FALSE(log.Contains(kSessionRemoved));
  ASSERT_EQ(shutdown(server, SD_SEND), 0);
  for (int i = 0; i < 500 && !log.Contains(kSessionRemoved); ++i) loop.Turn();
  EXPECT_TRUE(log.Contains(kSessionRemoved));
}

struct HeldBackStream : DirectStream {
  HeldBackStream() : DirectStream(kMendStart | kMendHalfClose) {}
};

// Its end would be readable forever.
TEST_F(HeldBackStream, IsNotReadAgainAfterItsEnd) {
  Joins();
  test::MakeNonBlocking(server);
  std::string bytes(65536, 'x');
  const int size = static_cast<int>(bytes.size());
  for (int i = 0, refused = 0; i < 2000 && refused < 5; ++i) {
    refused = send(game, bytes.data(), size, 0) > 0 ? 0 : refused + 1;
    loop.Turn();
  }
  ASSERT_EQ(shutdown(game, SD_SEND), 0);
  int n = SOCKET_ERROR;
  for (int i = 0; i < 5000 && n != 0; ++i) {
    n = recv(server, bytes.data(), size, 0);
    loop.Turn();
  }
  EXPECT_EQ(n, 0) << "the server has heard all of it";
  for (int i = 0; i < 5; ++i) loop.Turn();
  const std::string text = log.Whole(), end = "[TCP]TcpSession::StopSending, side=local, ";
  ASSERT_NE(text.find(end), text.npos);
  EXPECT_EQ(text.find(end), text.rfind(end));
}

// --- places ------------------------------------------------------------------------------------

struct CrowdedStreams : DirectStream {
  explicit CrowdedStreams(u32 bits = 0) : DirectStream(bits) {}
  bool HasRoomIn(u32 places) {
    loop.room = places;
    return provider.HasRoomForSession();
  }
};

// A session has two ends, and those that wait for their games will need places, too.
TEST_F(CrowdedStreams, NeedAPlaceForEachSocketOfASession) {
  EXPECT_FALSE(HasRoomIn(1));
  EXPECT_TRUE(HasRoomIn(2));
  ASSERT_TRUE(Request(5, htons(4000)));
  EXPECT_FALSE(HasRoomIn(3));
  EXPECT_TRUE(HasRoomIn(4));
}

struct CrowdedRaces : CrowdedStreams {
  CrowdedRaces() : CrowdedStreams(kMendFallback) {}
};

// And up to three ways at a time.
TEST_F(CrowdedRaces, NeedAPlaceForEachSocketOfASession) {
  EXPECT_FALSE(HasRoomIn(3));
  EXPECT_TRUE(HasRoomIn(4));
}

#ifndef _WIN32
struct RefusedStream : DirectStream {};

// The server cannot be reached at all, so what the game has sent can never leave. Once the game has
// found out and closed, nothing is left.
TEST_F(RefusedStream, EndsWithItsGame) {
  sockaddr_in address;
  game.Reset(test::BoundSocket(SOCK_STREAM, &address));
  ASSERT_TRUE(Request(game, address.sin_port));
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  port::FailCall("connect", 0, WSAENETUNREACH);
  const std::string failed = "[TCP]ConnectToRemoteServer failed. ";
  for (int i = 0; i < 500 && !log.Contains(failed); ++i) loop.Turn();
  port::ClearFaults();
  ASSERT_TRUE(log.Contains(failed)) << log.Text();
  provider.OnUpdate(31);
  EXPECT_FALSE(log.Contains(kSessionRemoved)) << log.Text();
  ASSERT_EQ(send(game, "x", 1, 0), 1);
  for (int i = 0; i < 5; ++i) loop.Turn();
  game.Close();
  for (int i = 0; i < 50 && !log.Contains(kSessionRemoved); ++i) {
    loop.Turn();
    provider.OnUpdate(31);
  }
  EXPECT_TRUE(log.Contains(kSessionRemoved)) << log.Text();
}
#endif

#ifndef _WIN32
struct ResetStream : DirectStream {
  ResetStream() : DirectStream(kMendReset) {}
  // Whether the end of the session closes the remote socket, of which a receive fails so.
  bool IsClosedWithItsSession(int error) {
    Joins();
    const SOCKET remote = RemoteSide();
    EXPECT_EQ(send(server, "x", 1, 0), 1);
    port::FailCall("recv", 1, static_cast<DWORD>(error));
    for (int i = 0; i < 500 && !log.Contains(kSessionRemoved); ++i) loop.Turn();
    port::ClearFaults();
    EXPECT_TRUE(log.Contains(kSessionRemoved));
    return log.Contains(
        "[TCP]CloseObsoleteSession, about to close socket=" + std::to_string(remote) + ",");
  }
};

// The loss shows when the game's bytes are sent on, before anything is read.
TEST_F(ResetStream, ALossThatASendFindsIsAResetForTheGame) {
  Joins();
  ASSERT_EQ(send(game, "x", 1, 0), 1);
  port::FailCall("send", 0, WSAECONNRESET);
  for (int i = 0; i < 500 && port::CallCount("send") == 0; ++i) loop.Turn();
  port::ClearFaults();
  EXPECT_EQ(Reads(game), End("", "reset"));
}

TEST_F(ResetStream, ASocketThatHasLostItsConnectionIsClosedBeforeItsSession) {
  EXPECT_FALSE(IsClosedWithItsSession(WSAECONNRESET)) << log.Text();
}

TEST_F(ResetStream, ASocketThatHadAnotherErrorIsClosedWithItsSession) {
  EXPECT_TRUE(IsClosedWithItsSession(WSAENOBUFS)) << log.Text();
}

// Not every system clears the last error where a call succeeds.
TEST_F(ResetStream, ByteCountsDoNotDependOnAnEarlierLastError) {
  Joins();
  const SOCKET remote = RemoteSide();
  ASSERT_EQ(send(server, "hello", 5, 0), 5);
  ASSERT_TRUE(test::BecomesReadable(remote));
  port::SuccessKeepsLastError(true);
  WSASetLastError(WSAEWOULDBLOCK);
  loop.delegates.at(remote)->OnReadable(remote);
  port::SuccessKeepsLastError(false);
  const SocketQosRecord* const record = GetTracker().Find(remote);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->total_recv_bytes, 5u);
}

struct FastStream : DirectStream {
  FastStream() : DirectStream(kMendThroughput) {}
  int PiecesRead() const {
    const std::string text = log.Text(), line = "[TCP]DoLocalRead. Read game client data, ";
    int pieces = 0;
    for (std::size_t at = text.find(line); at != text.npos; at = text.find(line, at + 1)) ++pieces;
    return pieces;
  }
};

// Its bytes are passed on in one pass, but for no more than its share of that.
TEST_F(FastStream, MovesEightPiecesInAPass) {
  Joins();
  const int size = 1 << 20;
  const auto* const bytes = reinterpret_cast<const char*>(&size);
  std::vector<SOCKET> sockets = {game, server};
  for (const auto& [s, delegate] : loop.delegates) sockets.push_back(s);
  for (const SOCKET s : sockets)
    for (const int option : {SO_SNDBUF, SO_RCVBUF})
      setsockopt(s, SOL_SOCKET, option, bytes, sizeof size);
  const std::string much(1 << 20, 'x');
  int sent = 0;
  for (int n = 1; n > 0; sent += n > 0 ? n : 0) n = send(game, much.data(), 1 << 20, 0);
  const int before = PiecesRead();
  loop.Turn();
  const int pieces = PiecesRead() - before;
  EXPECT_LE(pieces, 8);
  // A host may keep to smaller buffers, and then the pieces are smaller, too.
  if (sent >= size) {
    EXPECT_EQ(pieces, 8);
  }
}

// The sets may have had no place for the request when it was made.
TEST_F(FastStream, AsksForRoomAgainAtEachUpdate) {
  Joins();
  test::MakeNonBlocking(server);
  const SOCKET local = LocalSide();
  constexpr SOCKET kOthers = 0x100000;
  for (SOCKET s = kOthers; s < kOthers + FD_SETSIZE; ++s) {
    loop.AddSocket(s, nullptr);
    loop.EnableWrite(s);
  }
  std::string bytes(65536, 'x');
  const int size = static_cast<int>(bytes.size());
  int sent = 0, got = 0;
  for (int i = 0; i < 500 && !provider.OwesServers(); ++i) {
    sent += std::max(0, send(game, bytes.data(), size, 0));
    loop.delegates.at(local)->OnReadable(local);
  }
  ASSERT_TRUE(provider.OwesServers());
  for (SOCKET s = kOthers; s < kOthers + FD_SETSIZE; ++s) loop.RemoveSocket(s);
  const auto reads = [&] {
    loop.Turn();
    got += std::max(0, recv(server, bytes.data(), size, 0));
  };
  for (int i = 0; i < 100; ++i) reads();
  EXPECT_LT(got, sent) << "nobody knows that there is room";
  provider.OnUpdate(31);
  for (int i = 0; i < 500 && got < sent; ++i) reads();
  EXPECT_EQ(got, sent);
}
#endif

// --- ends of the provider ----------------------------------------------------------------------

struct EndedStreams : DirectStream {
  EndedStreams() : DirectStream(kMendRefusal) {}
};

TEST_F(EndedStreams, ThatNeverServedLeaveNothingToPoll) {
  EXPECT_EQ(loop.delegates.size(), 2u) << "the listener, and the socket that wakes the worker";
  provider.Uninit();
  EXPECT_TRUE(loop.delegates.empty());
}

#ifndef _WIN32
TEST(StreamsThatCannotStart, CloseWhatTheyHaveOpened) {
  struct Entry {  // of the list of the listener's addresses
    void* next;
    sockaddr_in address;
  };
  test::StartWinsock();
  test::HandTurned loop;
  Route route;
  TcpProvider provider;
  port::CountCalls();
  {
    const test::OutOfMemory none(1, sizeof(Entry), sizeof(Entry));
    EXPECT_FALSE(provider.Init(&loop, &route));
  }
  EXPECT_GT(port::CallCount("socket"), 0u);
  EXPECT_EQ(port::CallCount("closesocket"), port::CallCount("socket"));
  port::ClearFaults();
}

// The socket that wakes the worker is one that somebody could take for theirs once it is closed.
TEST(SocketThatWakes, IsClosedOnce) {
  test::StartWinsock();
  test::HandTurned loop;
  TcpProvider provider;
  WakeSocket wake{&provider};
  for (const char* const call : {"bind", "ioctlsocket"}) {
    port::FailCall(call, 0, WSAENOBUFS);
    wake.Open(&loop);
    EXPECT_EQ(port::CallCount("closesocket"), 1u) << call;
    port::ClearFaults();
  }
  wake.Open(&loop);
  port::CountCalls();
  wake.Close(&loop);
  EXPECT_EQ(port::CallCount("closesocket"), 1u);
  wake.Close(&loop);
  EXPECT_EQ(port::CallCount("closesocket"), 1u);
  port::ClearFaults();
}
#endif

// --- connects that wait ------------------------------------------------------------------------

// A game whose connect waits for a server that is reached directly.
struct WaitingGame : DirectStream {
  explicit WaitingGame(u32 bits = kMendRefusal) : DirectStream(bits) {
    sockaddr_in address;
    game.Reset(test::BoundSocket(SOCK_STREAM, &address));
    port = address.sin_port;
    GetSocketMap().Add(game, kSocketTypeStream, 6, 9);
    next.lpWSPConnect = ConnectsLater;
    record = GetSocketMap().Get(game);
    record.next_proc_table = &next;
    record.non_blocking = true;
  }
  ~WaitingGame() override { GetSocketMap().Remove(game); }

  static int WSPAPI ConnectsLater(SOCKET, const sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                                  LPINT) {
    return 0;
  }
  void Asks() {
    postponed = provider.postponed_connects().Add(record);
    ASSERT_NE(postponed, nullptr);
    GetSocketMap().SetConnectStage(game, ConnectStage::kWaiting, 9);
    ASSERT_TRUE(Request(game, port, postponed));
  }
  void IsToldToConnect() {
    for (int i = 0; i < 500 && postponed->error == PostponedConnect::kUndecided; ++i) loop.Turn();
    ASSERT_EQ(postponed->error, 0);
  }

  u16 port = 0;
  WSPPROC_TABLE next{};
  SocketRecord record;
  std::shared_ptr<PostponedConnect> postponed;
};

// The worker is woken, so a connect that waits does not wait for the next update, too.
TEST_F(WaitingGame, IsServedBeforeTheNextUpdate) {
  Asks();
  IsToldToConnect();
  EXPECT_EQ(GetSocketMap().Get(game).connect_stage, ConnectStage::kIssued);
}

#ifndef _WIN32
TEST_F(WaitingGame, IsServedAtTheNextUpdateIfTheWorkerCouldNotBeWoken) {
  port::FailCall("sendto", 0, WSAENOBUFS);
  Asks();
  port::ClearFaults();
  for (int i = 0; i < 20; ++i) loop.Turn();
  EXPECT_FALSE(log.Contains("[TCP]DecideRemoteAddr.use_acc_=")) << log.Text();
  provider.OnUpdate(31);
  EXPECT_TRUE(log.Contains("[TCP]DecideRemoteAddr.use_acc_=")) << log.Text();
}
#endif

// What the server says before the game has connected waits for it.
TEST_F(WaitingGame, GetsWhatTheServerHasSaidBeforeItConnected) {
  Asks();
  IsToldToConnect();
  server.Reset(accept(listener, nullptr, nullptr));
  ASSERT_NE(SOCKET{server}, INVALID_SOCKET);
  ASSERT_EQ(send(server, "hello", 5, 0), 5);
  for (int i = 0; i < 10; ++i) loop.Turn();
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  EXPECT_EQ(Reads(game), End("hello", ""));
  EXPECT_EQ(GetSocketMap().Get(game).connect_stage, ConnectStage::kNone);
}

TEST_F(WaitingGame, IsToldApartFromAStrangerWhoConnectsFirst) {
  Asks();
  IsToldToConnect();
  sockaddr_in address;
  const test::OwnSocket stranger(test::BoundSocket(SOCK_STREAM, &address));
  ASSERT_EQ(connect(stranger, relay_addr, relay_len), 0);
  for (int i = 0; i < 500 && !log.Contains("session not registered for port="); ++i) loop.Turn();
  EXPECT_FALSE(log.Contains("[TCP]MeetPostponed. ")) << log.Text();
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  for (int i = 0; i < 500 && !log.Contains("[TCP]MeetPostponed. "); ++i) loop.Turn();
  EXPECT_TRUE(log.Contains("[TCP]MeetPostponed. ")) << log.Text();
}

// The relay ends: nobody will decide any more.
TEST_F(WaitingGame, FailsWhenTheRelayEnds) {
  Asks();
  provider.Uninit();
  EXPECT_EQ(postponed->error, WSAENETDOWN);
}

// One of several that wait closes its socket.
TEST_F(WaitingGame, IsGivenUpAlone) {
  Asks();
  SocketRecord other_record = record;
  other_record.token = 10;
  const auto other = provider.postponed_connects().Add(other_record);
  ASSERT_NE(other, nullptr);
  provider.postponed_connects().Cancel(9);
  EXPECT_EQ(postponed->error, WSAEINTR);
  EXPECT_EQ(other->error, PostponedConnect::kUndecided);
}

}  // namespace
}  // namespace moru_vyr::lsp
