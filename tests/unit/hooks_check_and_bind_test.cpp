// The local port of a game's socket. At stake: the relay recognises the connection by it, so it
// must be the port that the socket really has.
#include <gtest/gtest.h>

#include <string>

#include "sockets/check_and_bind.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"

namespace moru_vyr::lsp {
namespace {

constexpr SOCKET kSocket = 4322;

struct NextAnswers {
  int name_error = 0;
  u16 name_port = 0;  // host order
  int bind_error = 0;
  u16 bound_port = 0;  // network order
  int names = 0, binds = 0;
};
NextAnswers* answers = nullptr;

int WSPAPI AnswerName(SOCKET s, sockaddr* name, LPINT size, LPINT error) {
  EXPECT_EQ(s, kSocket);
  EXPECT_EQ(*size, 16);
  ++answers->names;
  if (answers->name_error != 0) {
    *error = answers->name_error;
    return SOCKET_ERROR;
  }
  reinterpret_cast<sockaddr_in*>(name)->sin_port = htons(answers->name_port);
  return 0;
}

int WSPAPI AnswerBind(SOCKET, const sockaddr* name, int, LPINT error) {
  ++answers->binds;
  if (answers->bind_error != 0) {
    *error = answers->bind_error;
    return SOCKET_ERROR;
  }
  const auto* const address = reinterpret_cast<const sockaddr_in*>(name);
  EXPECT_EQ(address->sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  answers->bound_port = address->sin_port;
  return 0;
}

struct CheckAndBindTest : testing::Test {
  CheckAndBindTest() {
    table.lpWSPGetSockName = AnswerName;
    table.lpWSPBind = AnswerBind;
    answers = &next;
    GetSocketMap().Add(kSocket, kSocketTypeStream, IPPROTO_TCP, 1);
    GetSocketMap().SetNextProcTable(kSocket, &table);
  }
  ~CheckAndBindTest() override {
    GetSocketMap().Remove(kSocket);
    answers = nullptr;
  }
  u16 Recorded() {
    u16 recorded = 0;
    GetSocketMap().GetLocalPort(kSocket, &recorded);
    return recorded;
  }

  NextAnswers next;
  WSPPROC_TABLE table{};
  u16 port = 0;
  test::LogCapture log{0};
};

TEST_F(CheckAndBindTest, ASocketThatTheGameBoundKeepsItsPort) {
  next.name_port = 4000;
  EXPECT_TRUE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(port, htons(4000));
  EXPECT_EQ(next.binds, 0);
  EXPECT_EQ(Recorded(), htons(4000));
}

TEST_F(CheckAndBindTest, ThePortIsQueriedOnce) {
  next.name_port = 4000;
  EXPECT_TRUE(CheckAndBind(kSocket, nullptr));
  EXPECT_TRUE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(port, htons(4000));
  EXPECT_EQ(next.names, 1);
  EXPECT_TRUE(log.Contains("[0][lsp]CheckAndBind, retrieve port=4000 for socket=4322\n"));
}

// Kept: every answer is accepted. The next call asks again.
TEST_F(CheckAndBindTest, APortOfZeroIsBelieved) {
  port = 1;
  EXPECT_TRUE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(port, 0);
  EXPECT_FALSE(log.Contains(test::kBindRefused));
  EXPECT_EQ(next.binds, 0);
  next.name_port = 4000;
  EXPECT_TRUE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(port, htons(4000));
  EXPECT_EQ(next.names, 2);
}

TEST_F(CheckAndBindTest, AnUnboundSocketGetsARandomPort) {
  next.name_error = WSAEINVAL;
  EXPECT_TRUE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(next.binds, 1);
  EXPECT_NE(port, 0);
  EXPECT_EQ(port, next.bound_port);
  EXPECT_EQ(Recorded(), port);
}

TEST_F(CheckAndBindTest, WithoutAFreePortThereIsNoPort) {
  next.name_error = WSAEINVAL;
  next.bind_error = WSAEACCES;
  EXPECT_FALSE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(port, 0);
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kBindRefused + "4322\n"));
  EXPECT_FALSE(log.Contains(test::kBindFailed));
}

TEST_F(CheckAndBindTest, AnotherErrorIsNamed) {
  next.name_error = WSAENOTSOCK;
  EXPECT_FALSE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(next.binds, 0);
  EXPECT_TRUE(
      log.Contains("[5][lsp][LSP] " + test::kBindFailed + ", error = 10038, socket=4322\n"));
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kBindRefused + "4322\n"));
}

TEST_F(CheckAndBindTest, ASocketWithoutARecordHasNoPort) {
  EXPECT_FALSE(CheckAndBind(kSocket + 1, &port));
  EXPECT_EQ(next.names, 0);
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kBindRefused + "4323\n"));
}

// Of a socket that was made before its protocol had a next provider.
TEST_F(CheckAndBindTest, ASocketWithoutANextProviderHasNoPort) {
  GetSocketMap().Remove(kSocket);
  GetSocketMap().Add(kSocket, kSocketTypeStream, IPPROTO_TCP, 2);
  EXPECT_FALSE(CheckAndBind(kSocket, &port));
  EXPECT_EQ(Recorded(), 0);
}

TEST_F(CheckAndBindTest, ANextProviderWithoutTheCallHasNoPort) {
  table.lpWSPGetSockName = nullptr;
  EXPECT_FALSE(CheckAndBind(kSocket, &port));
}

}  // namespace
}  // namespace moru_vyr::lsp
