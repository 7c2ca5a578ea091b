// The classes between the worker's loop and a provider, and the TCP provider as far as it needs no
// network: how it starts and ends, and how it treats unknown connections.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "relay/net_provider.h"
#include "relay/relay_sockets.h"
#include "route/route.h"
#include "stream/tcp_provider.h"
#include "tests/support/hand_turned.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/loopback.h"

namespace moru_vyr::lsp {
namespace {

// The name of each event that reaches the provider.
class NamedEvents final : public NetProvider {
 public:
  void OnLocalServerAcceptable(SOCKET s) noexcept override { Note("acceptable", s); }
  void OnLocalReadable(SOCKET s) noexcept override { Note("local readable", s); }
  void OnLocalWritable(SOCKET s) noexcept override { Note("local writable", s); }
  void OnLocalExcpetion(SOCKET s) noexcept override { Note("local exception", s); }
  void OnLocalClose(SOCKET s) noexcept override { Note("local close", s); }
  void OnRemoteReadable(SOCKET s) noexcept override { Note("remote readable", s); }
  void OnRemoteWritable(SOCKET s) noexcept override { Note("remote writable", s); }
  void OnRemoteExcpetion(SOCKET s) noexcept override { Note("remote exception", s); }
  void OnRemoteClose(SOCKET s) noexcept override { Note("remote close", s); }
  bool OnCreateLocalServer() noexcept override { return starts; }
  void OnCloseLocalServer() noexcept override { Note("closed", local_socket_); }

  bool starts = true;
  std::vector<std::string> events;

 private:
  void Note(const char* what, SOCKET s) { events.push_back(what + (" " + std::to_string(s))); }
};

using Events = std::vector<std::string>;

void FireAll(IRelaySocketDelegate& delegate) {
  delegate.OnReadable(1);
  delegate.OnWritable(2);
  delegate.OnException(3);
  delegate.OnClose(4);
}

TEST(RelaySockets, EachSideNamesItsEvents) {
  NamedEvents provider;
  TcpServerSocket server;
  LocalRelaySocket local;
  RemoteRelaySocket remote;
  for (RelaySocket* socket : {static_cast<RelaySocket*>(&server), static_cast<RelaySocket*>(&local),
                              static_cast<RelaySocket*>(&remote)}) {
    socket->SetProvider(&provider);
    FireAll(*socket);
  }
  EXPECT_EQ(provider.events, (Events{"acceptable 1", "local readable 1", "local writable 2",
                                     "local exception 3", "local close 4", "remote readable 1",
                                     "remote writable 2", "remote exception 3", "remote close 4"}));
}

TEST(NetProvider, WithNothingToStartItCountsAsStarted) {
  NetProvider provider;
  EXPECT_FALSE(provider.IsRunning());
  EXPECT_TRUE(provider.Init(nullptr, nullptr));
  EXPECT_TRUE(provider.IsRunning());
  provider.Uninit();
  EXPECT_FALSE(provider.IsRunning());
}

TEST(NetProvider, AProviderThatCannotStartDoesNotRun) {
  NamedEvents provider;
  provider.starts = false;
  EXPECT_FALSE(provider.Init(nullptr, nullptr));
}

TEST(NetProvider, AnEndBeforeTheStartUsesTheInitialValues) {
  NamedEvents provider;
  provider.Uninit();
  EXPECT_EQ(provider.events, (Events{"closed 0"}));
}

TEST(NetProvider, LocalAddressIsLoopback) {
  NetProvider provider;
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
  IRelaySocketDelegate* RemoveSocket(SOCKET s) noexcept override { return turned.RemoveSocket(s); }
  u32 NextToken() noexcept override { return turned.NextToken(); }
  void Turn() { turned.Turn(); }

  HandTurned turned;
  std::vector<SOCKET> writers;
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

TEST_F(StreamProvider, EventsOfUnknownSocketsAreLoggedEachInItsWords) {
  test::LogCapture log(0);
  provider.OnLocalReadable(5);
  provider.OnLocalWritable(5);
  provider.OnLocalExcpetion(5);
  provider.OnLocalClose(5);
  provider.OnRemoteReadable(5);
  provider.OnRemoteWritable(6);
  provider.OnRemoteExcpetion(7);
  provider.OnRemoteClose(5);
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
