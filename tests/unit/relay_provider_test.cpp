// What both providers share, and the TCP provider as far as it needs no network: how it starts and
// ends, how it treats unknown connections, and what it leaves behind of those that end.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "relay/net_provider.h"
#include "route/route.h"
#include "stream/tcp_provider.h"
#include "tests/support/hand_turned.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/loopback.h"

namespace moru_vyr::lsp {
namespace {

struct ProviderOfNothing final : NetProvider {
  void OnReadable(SOCKET) noexcept override {}
  bool OnCreateLocalServer() noexcept override { return starts; }

  bool starts = true;
};

TEST(NetProvider, RunsIfItCouldMakeItsSocket) {
  ProviderOfNothing provider;
  EXPECT_TRUE(provider.Init(nullptr, nullptr));
  provider.starts = false;
  EXPECT_FALSE(provider.Init(nullptr, nullptr));
}

TEST(NetProvider, LocalAddressIsLoopback) {
  ProviderOfNothing provider;
  sockaddr_in address;
  std::memset(&address, 0x55, sizeof address);
  provider.GetLocalAddr(&address);
  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(address.sin_port, 0);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  provider.GetLocalAddr(nullptr);
}

// --- the provider of streams -------------------------------------------------------------------

using test::HandTurned;

// The loop; it records which delegates wait to write.
struct NotingLoop final : IRelaySocketMgr {
  u32 AddSocket(SOCKET s, IRelaySocketDelegate* d) noexcept override {
    return turned.AddSocket(s, d);
  }
  void StopReading(SOCKET s) noexcept override { turned.StopReading(s); }
  u32 EnableWrite(SOCKET s) noexcept override {
    writers.push_back(s);
    return turned.EnableWrite(s);
  }
  IRelaySocketDelegate* RemoveSocket(SOCKET s) noexcept override {
    IRelaySocketDelegate* const delegate = turned.RemoveSocket(s);
    if (after_remove) after_remove(s);
    return delegate;
  }
  u32 NextToken() noexcept override { return turned.NextToken(); }
  void Turn() { turned.Turn(); }

  HandTurned turned;
  std::vector<SOCKET> writers;
  std::function<void(SOCKET)> after_remove;
};

struct StreamProvider : testing::Test {
  StreamProvider() {
    test::StartWinsock();
    EXPECT_TRUE(provider.Init(&loop, &route));
  }
  ~StreamProvider() override { provider.Uninit(); }

  bool Request(u16 port, const char* ip, u32 token) {
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(80);
    server.sin_addr.s_addr = static_cast<u32>(inet_addr(ip));
    return provider.RequestTcpRelaySession(77, port, &server, &relay_addr, &relay_len, token);
  }
  // A socket like the game's, bound and not yet connected.
  SOCKET GameSocket(u16* port) {
    sockaddr_in address;
    const SOCKET s = test::BoundSocket(SOCK_STREAM, &address);
    *port = address.sin_port;
    return s;
  }
  // In network order.
  u16 ListenerPort() const {
    sockaddr_in address;
    provider.GetLocalAddr(&address);
    return address.sin_port;
  }
  // The text after those words, to the line's end.
  static std::string LineWith(const test::LogCapture& log, const std::string& words) {
    const std::string text = log.Text();
    const std::size_t at = text.find(words);
    if (at == text.npos) return "";
    const std::size_t begin = at + words.size();
    return text.substr(begin, text.find('\n', begin) - begin);
  }
  static SOCKET SocketOf(const std::string& line) {
    const std::size_t at = line.find("socket=");
    return at == line.npos ? INVALID_SOCKET : static_cast<SOCKET>(std::stoul(line.substr(at + 7)));
  }
  // Runs passes until the peer has closed, or gives up.
  bool IsClosedSoon(SOCKET s) {
    test::MakeNonBlocking(s);
    for (int i = 0; i < 500; ++i) {
      char byte;
      const int n = recv(s, &byte, 1, 0);
      if (n == 0 || (n == SOCKET_ERROR && WSAGetLastError() == WSAECONNRESET)) return true;
      loop.Turn();
      provider.OnUpdate(31);
    }
    return false;
  }

  NotingLoop loop;
  Route route;  // knows nothing, so every connection goes to its server directly
  TcpProvider provider;
  sockaddr* relay_addr = nullptr;
  int relay_len = 0;
};

// Kept: the log lines call it a datagram socket.
TEST(StreamProviderStart, TheListenerHasBuffersOf64KiBThatConnectionsInherit) {
  test::StartWinsock();
  test::LogCapture log(0);
  HandTurned loop;
  Route route;
  TcpProvider provider;
  ASSERT_TRUE(provider.Init(&loop, &route));
  EXPECT_TRUE(log.Contains(", new send_buf=65536, socket=")) << log.Text();
  EXPECT_TRUE(log.Contains(", new recv_buf=65536, socket="));
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kTcpListen + "0, err="));
  EXPECT_TRUE(log.Contains("[0][lsp]TcpProvider::OnCreateLocalServer begin\n"));
  EXPECT_TRUE(log.Contains("[0][lsp]TcpProvider::OnCreateLocalServer end\n"));
  provider.Uninit();
}

TEST_F(StreamProvider, HandsOutItsListener) {
  ASSERT_TRUE(Request(htons(4000), "198.51.100.10", 1));
  EXPECT_EQ(relay_len, 16);
  sockaddr_in address, local;
  std::memcpy(&address, relay_addr, sizeof address);
  provider.GetLocalAddr(&local);
  EXPECT_EQ(address.sin_port, local.sin_port);
  EXPECT_NE(address.sin_port, 0);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

// A thread may still be connecting to its old port when the worker ends and starts again.
TEST_F(StreamProvider, WhatWasHandedOutStaysAsItWas) {
  ASSERT_TRUE(Request(htons(4000), "198.51.100.10", 1));
  const auto* const first = reinterpret_cast<const sockaddr_in*>(relay_addr);
  const sockaddr_in copy = *first;
  provider.Uninit();
  ASSERT_TRUE(provider.Init(&loop, &route));
  ASSERT_TRUE(Request(htons(4001), "198.51.100.10", 2));
  EXPECT_EQ(std::memcmp(first, &copy, sizeof copy), 0);
  sockaddr_in local;
  provider.GetLocalAddr(&local);
  EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(relay_addr)->sin_port, local.sin_port);
}

TEST_F(StreamProvider, RefusesNullPointers) {
  test::LogCapture log(4);
  sockaddr_in server = {};
  EXPECT_FALSE(provider.RequestTcpRelaySession(77, 1, nullptr, &relay_addr, &relay_len, 5));
  EXPECT_FALSE(provider.RequestTcpRelaySession(77, 1, &server, nullptr, &relay_len, 5));
  EXPECT_FALSE(provider.RequestTcpRelaySession(77, 1, &server, &relay_addr, nullptr, 5));
  EXPECT_TRUE(
      log.Contains("[TCP]RequestTcpRelaySession: something went wrong, socket=77, token=5\n"));
}

TEST_F(StreamProvider, ASecondRequestForAPortIsDropped) {
  test::LogCapture log(4);
  ASSERT_TRUE(Request(htons(4000), "198.51.100.10", 1));
  relay_addr = nullptr;
  relay_len = 0;
  EXPECT_TRUE(Request(htons(4000), "198.51.100.11", 2));
  EXPECT_NE(relay_addr, nullptr);
  EXPECT_EQ(relay_len, 16);
  EXPECT_TRUE(log.Contains(test::kTcpRelayAsked + "4000, socket=77, token=2\n"));
  EXPECT_TRUE(log.Contains("[TCP]RequestTcpRelaySession port duplicate, port=" +
                           std::to_string(htons(4000)) + ", socket=77, token=2\n"));
  const std::string text = log.Text();
  EXPECT_EQ(text.find("CreateNewSession succeed, socket=77, token=2"), std::string::npos);
}

TEST_F(StreamProvider, AnUnknownConnectionIsAcceptedAndClosedAndTheNextOneToo) {
  ASSERT_TRUE(Request(htons(1), "198.51.100.10", 1));
  test::LogCapture log(4);
  for (int i = 0; i < 2; ++i) {
    u16 port = 0;
    const test::OwnSocket stranger(GameSocket(&port));
    ASSERT_EQ(connect(stranger, relay_addr, relay_len), 0);
    EXPECT_TRUE(IsClosedSoon(stranger));
    EXPECT_TRUE(log.Contains(test::kStrangerAccepted + std::to_string(ntohs(port)) + ", socket="));
  }
}

// The port of the game's socket is free on the other addresses of the loopback interface, for any
// program. What connects from there is closed, and the game's session waits for the game.
TEST_F(StreamProvider, TheGamesPortOnAnotherAddressIsAStrangers) {
  u16 port = 0;
  const test::OwnSocket game(GameSocket(&port));
  ASSERT_TRUE(Request(port, "198.51.100.10", 1));
  test::LogCapture log(4);
  const test::OwnSocket thief(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in elsewhere = {};
  elsewhere.sin_family = AF_INET;
  elsewhere.sin_port = port;
  elsewhere.sin_addr.s_addr = static_cast<u32>(inet_addr("127.0.0.2"));
  ASSERT_EQ(bind(thief, test::Raw(&elsewhere), sizeof elsewhere), 0);
  ASSERT_EQ(connect(thief, relay_addr, relay_len), 0);
  EXPECT_TRUE(IsClosedSoon(thief));
  EXPECT_TRUE(log.Contains(test::kStrangerAccepted + std::to_string(ntohs(port)) + ", socket="));
  EXPECT_FALSE(log.Contains("OnLocalServerAcceptable. peer_port="));
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  for (int i = 0; i < 500 && !log.Contains("OnLocalServerAcceptable. peer_port="); ++i) loop.Turn();
  EXPECT_TRUE(LineWith(log, "OnLocalServerAcceptable. peer_port=").ends_with(", token=1"));
}

// The server is the test's own on the loopback interface; bytes go both ways, and the first request
// for a port is the one that counts.
TEST_F(StreamProvider, AnAcceptedConnectionReachesItsServer) {
  test::LogCapture log(4);
  sockaddr_in address;
  const test::OwnSocket listener(test::BoundSocket(SOCK_STREAM, &address));
  ASSERT_EQ(listen(listener, 1), 0);
  u16 port = 0;
  const test::OwnSocket game(GameSocket(&port));
  ASSERT_TRUE(provider.RequestTcpRelaySession(game, port, &address, &relay_addr, &relay_len, 9));
  ASSERT_TRUE(Request(port, "198.51.100.11", 10));
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  ASSERT_EQ(send(game, "hello", 5, 0), 5);
  test::MakeNonBlocking(listener);
  test::OwnSocket server;
  for (int i = 0; i < 500 && server == INVALID_SOCKET; ++i) {
    loop.Turn();
    server.Reset(accept(listener, nullptr, nullptr));
  }
  ASSERT_NE(SOCKET{server}, INVALID_SOCKET);
  const std::string line = LineWith(log, "[4][lsp][TCP]OnLocalServerAcceptable. peer_port=");
  EXPECT_TRUE(line.starts_with(std::to_string(ntohs(port)) + ", local_port=" +
                               std::to_string(ntohs(ListenerPort())) + ", socket="))
      << line;
  EXPECT_TRUE(line.ends_with(", token=9")) << line << ": the first request's";
  test::MakeNonBlocking(server);
  std::string heard;
  for (int i = 0; i < 500 && heard.size() < 5; ++i) {
    loop.Turn();
    char bytes[8];
    const int n = recv(server, bytes, sizeof bytes, 0);
    if (n > 0) heard.append(bytes, static_cast<size_t>(n));
  }
  EXPECT_EQ(heard, "hello");
  // The server's last bytes arrive before its end.
  ASSERT_EQ(send(server, "bye", 3, 0), 3);
  server.Close();
  heard.clear();
  test::MakeNonBlocking(game);
  for (int i = 0; i < 1000; ++i) {
    loop.Turn();
    provider.OnUpdate(31);
    char bytes[8];
    const int n = recv(game, bytes, sizeof bytes, 0);
    if (n == 0) break;
    if (n > 0) heard.append(bytes, static_cast<size_t>(n));
  }
  EXPECT_EQ(heard, "bye");
  // The port is free for another connection of the game.
  EXPECT_TRUE(Request(port, "198.51.100.11", 11));
  EXPECT_TRUE(log.Contains("CreateNewSession succeed, socket=77, token=11\n")) << log.Text();
}

// The listener's sockets inherit it: the last piece of what a server says must not wait for the
// game to confirm the one before.
TEST_F(StreamProvider, NeitherSideWaitsForSmallPiecesToBeConfirmed) {
  test::LogCapture log(4);
  sockaddr_in address;
  const test::OwnSocket listener(test::BoundSocket(SOCK_STREAM, &address));
  ASSERT_EQ(listen(listener, 1), 0);
  u16 port = 0;
  const test::OwnSocket game(GameSocket(&port));
  ASSERT_TRUE(provider.RequestTcpRelaySession(game, port, &address, &relay_addr, &relay_len, 9));
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  const char remote_line[] = "[TCP]ConnectToRemoteServer remote ";
  for (int i = 0; i < 500 && !log.Contains(remote_line); ++i) loop.Turn();
  for (const char* words : {"[TCP]OnLocalServerAcceptable. ", remote_line}) {
    int value = 0;
    int size = sizeof value;
    EXPECT_EQ(getsockopt(SocketOf(LineWith(log, words)), IPPROTO_TCP, TCP_NODELAY,
                         reinterpret_cast<char*>(&value), &size),
              0);
    EXPECT_NE(value, 0) << words;
  }
}

// Kept: the remote socket is watched for writability whatever the result of the connect. The error
// is logged at the lowest level.
TEST_F(StreamProvider, AConnectThatFailsAtOnceIsWatchedAllTheSame) {
  test::LogCapture log(0);
  u16 port = 0;
  const test::OwnSocket game(GameSocket(&port));
  ASSERT_TRUE(Request(port, "255.255.255.255", 9));
  ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
  for (int i = 0; i < 500 && !log.Contains(test::kNoRemoteSocket); ++i) loop.Turn();
  const SOCKET remote = SocketOf(LineWith(log, "[4][lsp][TCP]ConnectToRemoteServer failed. "));
  const std::string line = LineWith(log, "[0][lsp][TCP]connect [game] server failed. err=");
  EXPECT_NE(line, "") << log.Text();
  EXPECT_EQ(SocketOf(line), remote);
  EXPECT_TRUE(line.ends_with(", token=9")) << line;
  EXPECT_EQ(loop.writers, std::vector<SOCKET>{remote});
}

// A connection that has been accepted, and whose own way to its server is established.
struct JoinedStream : StreamProvider {
  JoinedStream() {
    sockaddr_in address;
    listener.Reset(test::BoundSocket(SOCK_STREAM, &address));
    EXPECT_EQ(listen(listener, 1), 0);
    u16 port = 0;
    game.Reset(GameSocket(&port));
    EXPECT_TRUE(provider.RequestTcpRelaySession(game, port, &address, &relay_addr, &relay_len, 9));
    EXPECT_EQ(connect(game, relay_addr, relay_len), 0);
    const char established[] = "connection is successful. token=9";
    for (int i = 0; i < 500 && !log.Contains(established); ++i) loop.Turn();
    EXPECT_TRUE(log.Contains(established)) << log.Text();
    server.Reset(accept(listener, nullptr, nullptr));
    local = SocketOf(LineWith(log, "[TCP]OnLocalServerAcceptable. peer_port="));
    remote = SocketOf(LineWith(log, "[TCP]ConnectToRemoteServer remote "));
    EXPECT_EQ(Watched(), 3u) << "two sides and the listener";
  }
  std::size_t Watched() const { return loop.turned.delegates.size(); }
  IRelaySocketDelegate& Side(SOCKET s) { return *loop.turned.delegates.at(s); }
  // The game's side by a reset, at which the session ends, and the server's by what it has sent.
  void MakeBothReady() {
    const linger reset{1, 0};
    ASSERT_EQ(setsockopt(game, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&reset),
                         sizeof reset),
              0);
    game.Close();
    ASSERT_EQ(send(server, "late", 4, 0), 4);
    ASSERT_TRUE(test::BecomesReadable(local));
    ASSERT_TRUE(test::BecomesReadable(remote));
  }
  int Ends() const {
    const std::string text = log.Text(), line = "[TCP]CloseObsoleteSession, remove session, ";
    int lines = 0;
    for (size_t at = text.find(line); at != text.npos; at = text.find(line, at + 1)) ++lines;
    return lines;
  }

  test::LogCapture log{0};
  test::OwnSocket listener, game, server;
  SOCKET local = INVALID_SOCKET, remote = INVALID_SOCKET;
};

TEST_F(JoinedStream, EventsOfUnknownSocketsAreLoggedEachInItsWords) {
  Side(local).OnReadable(5);
  Side(local).OnWritable(5);
  Side(local).OnException(5);
  Side(local).OnClose(5);
  Side(remote).OnReadable(5);
  Side(remote).OnWritable(6);
  Side(remote).OnException(7);
  Side(remote).OnClose(5);
  for (const char* line : {
           "[4][lsp][TCP] TcpProvider::OnLocalReadable, failed to find socket=5\n",
           "[4][lsp][TCP]TcpProvider::OnLocalWritable, failed to find socket=5\n",
           "[4][lsp][TCP]TcpProvider::OnLocalExcpetion. socket=5\n",
           "[4][lsp][TCP]TcpProvider::OnLocalClose. socket=5\n",
           "[4][lsp][TCP]TcpProvider::OnRemoteReadable, failed to find socket=5\n",
           "[4][lsp][TCP]TcpProvider::OnRemoteWritable, failed to find socket=6\n",
           "[4][lsp][TCP]TcpProvider::OnRemoteWritable, failed to find socket=7\n",
           "[0][lsp][TCP]TcpProvider::OnRemoteClose. socket=5\n",
       }) {
    EXPECT_TRUE(log.Contains(line)) << line;
  }
  EXPECT_EQ(Ends(), 0);
  EXPECT_EQ(Watched(), 3u);
}

// Both sides are ready in one pass, and the first event ends the session: the second one's delegate
// is gone by then.
TEST_F(JoinedStream, ASessionThatEndsWithinAPassIsNotServedAgain) {
  MakeBothReady();
  loop.Turn();
  EXPECT_EQ(Ends(), 1);
  EXPECT_EQ(Watched(), 1u) << "the listener";
  for (int i = 0; i < 3; ++i) {
    loop.Turn();
    provider.OnUpdate(31);
  }
  EXPECT_EQ(Ends(), 1);
  EXPECT_FALSE(log.Contains("failed to find socket="));
}

// The system gives a new socket the value of one that was closed earlier in the pass: the events
// that the pass has found for that value belong to the session that is gone.
TEST_F(JoinedStream, ASocketWithTheValueOfAClosedOneWaitsForTheNextPass) {
  struct Recorder final : IRelaySocketDelegate {
    void OnReadable(SOCKET) noexcept override { ++events; }
    void OnWritable(SOCKET) noexcept override { ++events; }
    void OnException(SOCKET) noexcept override { ++events; }
    void OnClose(SOCKET) noexcept override { ++events; }
    int events = 0;
  } successor;
  MakeBothReady();
  loop.after_remove = [&](SOCKET s) {
    if (s == remote) loop.turned.AddSocket(s, &successor);
  };
  loop.Turn();
  loop.after_remove = nullptr;
  EXPECT_EQ(Ends(), 1);
  EXPECT_EQ(successor.events, 0);
  loop.turned.RemoveSocket(remote);
}

TEST_F(StreamProvider, TheEndClosesTheListener) {
  ASSERT_TRUE(Request(htons(1), "198.51.100.10", 1));
  test::LogCapture log(0);
  provider.Uninit();
  EXPECT_TRUE(log.Contains("[0][lsp]" + test::kTcpListenerClosed));
  const test::OwnSocket late(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  EXPECT_EQ(connect(late, relay_addr, relay_len), SOCKET_ERROR);
  sockaddr_in address;
  provider.GetLocalAddr(&address);
  EXPECT_EQ(address.sin_port, 0);
}

}  // namespace
}  // namespace moru_vyr::lsp
