// A relayed connection whose provider is turned by hand, without the relay's worker.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "route/route.h"
#include "stream/tcp_provider.h"
#include "tests/support/hand_turned.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback.h"
#include "tests/support/mended.h"

namespace moru_vyr::lsp {

// A connection to a server of the test's own, which is on no table, so that it is reached directly.
// `World` is the base of the suite's tests.
template <class World>
struct DirectStreamIn : World {
  explicit DirectStreamIn(u32 bits = 0) : mended(bits) {
    test::StartWinsock();
    listener.Reset(test::BoundSocket(SOCK_STREAM, &server_addr));
    EXPECT_EQ(listen(listener, 4), 0);
    EXPECT_TRUE(provider.Init(&loop, &route));
  }
  ~DirectStreamIn() override { provider.Uninit(); }

  bool Request(SOCKET from, u16 port, std::shared_ptr<PostponedConnect> postponed = nullptr) {
    return provider.RequestTcpRelaySession(from, port, &server_addr, &relay_addr, &relay_len, 9,
                                           nullptr, std::move(postponed));
  }
  void Joins() {
    sockaddr_in address;
    game.Reset(test::BoundSocket(SOCK_STREAM, &address));
    ASSERT_TRUE(Request(game, address.sin_port));
    ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
    test::MakeNonBlocking(game);
    for (int i = 0; i < 500 && loop.delegates.size() < 3; ++i) loop.Turn();
    server.Reset(accept(listener, nullptr, nullptr));
    ASSERT_NE(SOCKET{server}, INVALID_SOCKET);
    for (int i = 0; i < 3; ++i) loop.Turn();
  }
  // The socket that the first log line with these words names; INVALID_SOCKET: there is none.
  SOCKET SocketOf(const std::string& words) const {
    const std::string text = log.Text();
    const std::size_t line = text.find(words), value = text.find("socket=", line);
    if (line == text.npos || value == text.npos) return INVALID_SOCKET;
    return static_cast<SOCKET>(std::stoul(text.substr(value + 7)));
  }
  SOCKET LocalSide() const { return SocketOf("[TCP]OnLocalServerAcceptable. peer_port="); }
  SOCKET RemoteSide() const { return SocketOf("[TCP]ConnectToRemoteServer remote socket="); }
  // "bytes" and how the stream ended: "" not yet, "closed", "reset".
  std::pair<std::string, std::string> Reads(SOCKET s) {
    test::MakeNonBlocking(s);
    std::string bytes;
    for (int i = 0; i < 50; ++i) {
      loop.Turn();
      provider.OnUpdate(31);
      char piece[64];
      const int n = recv(s, piece, sizeof piece, 0);
      if (n == 0) return {bytes, "closed"};
      if (n > 0) bytes.append(piece, static_cast<size_t>(n));
      if (n == SOCKET_ERROR && WSAGetLastError() == WSAECONNRESET) return {bytes, "reset"};
    }
    return {bytes, ""};
  }
  using End = std::pair<std::string, std::string>;

  test::LogCapture log{0};
  test::HandTurned loop;
  Route route;
  const test::Mended mended;
  TcpProvider provider;
  test::OwnSocket listener, game, server;
  sockaddr_in server_addr;
  sockaddr* relay_addr = nullptr;
  int relay_len = 0;
};

using DirectStream = DirectStreamIn<testing::Test>;

}  // namespace moru_vyr::lsp
