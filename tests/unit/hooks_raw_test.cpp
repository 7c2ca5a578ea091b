// Raw pings through the replaced entries. At stake: a ping of a server that the relay knows is
// answered here and never sent; every other call of a raw socket passes through unchanged.
#include <gtest/gtest.h>

#include <cstring>

#include "hooks/hook_entries.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Generic;
using test::WordsOf;

struct RawHooks : testing::Test {
  ~RawHooks() override { Close(); }
  void MakeSocket(int protocol = 1) {
    WSPSocket(AF_INET, 3, protocol, nullptr, 0, 1, &error);
    next.calls.clear();
  }
  void Connect(int size = 16) {
    EXPECT_EQ(
        WSPConnect(next.socket, Generic(server), size, nullptr, nullptr, nullptr, nullptr, &error),
        0);
  }
  void Close() { WSPCloseSocket(next.socket, &error); }
  int Send() {
    sent = 99;
    return WSPSend(next.socket, &ping, 1, &sent, 4, nullptr, nullptr, nullptr, &error);
  }
  int Recv(DWORD room) {
    received = 99;
    buffer = {room, reply};
    return WSPRecv(next.socket, &buffer, 1, &received, &flags, nullptr, nullptr, nullptr, &error);
  }
  static void WaitUntilDue() {
    const DWORD begin = GetTickCount();
    while (GetTickCount() - begin < 45) Sleep(1);
  }
  std::string tail() const { return "socket=" + std::to_string(next.socket) + "\n"; }

  test::ScriptedProvider next;
  const sockaddr_in server = Address("198.51.100.20", 0);
  INT error = 0;
  char message[8] = {8, 0, '\xf7', '\xff', 0, 0, 0, 0};
  WSABUF ping{sizeof message, message};
  char reply[300] = {};
  WSABUF buffer{};
  DWORD sent = 0, received = 0, flags = 0;
};

TEST_F(RawHooks, APingIsHeldAndAnsweredWithoutTheNextProvider) {
  MakeSocket();
  Connect();
  EXPECT_EQ(next.Last().name, "WSPConnect");
  EXPECT_EQ(next.Last().arguments[1], reinterpret_cast<std::uintptr_t>(&server)) << "unchanged";
  next.calls.clear();
  test::LogCapture log(0);
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(sent, 8u);
  EXPECT_TRUE(next.calls.empty());
  EXPECT_TRUE(log.Contains("[0][lsp]" + test::kPingForRelayed + "8, " + tail()));
  WaitUntilDue();
  EXPECT_EQ(Recv(300), 0);
  EXPECT_EQ(received, 28u);
  EXPECT_EQ(reply[0], 0x45);
  EXPECT_EQ(std::memcmp(reply + 12, &server.sin_addr, 4), 0);
  EXPECT_TRUE(next.calls.empty());
  EXPECT_TRUE(log.Contains("[0][lsp][RAW]CheckoutPingResponse: buffer_len=28, " + tail()));
}

TEST_F(RawHooks, BeforeItsTimeAReceiveReachesTheNextProvider) {
  MakeSocket();
  Connect();
  next.result = -1;
  next.error = 10035;
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(Recv(300), -1);
  EXPECT_EQ(error, 10035);
  EXPECT_EQ(next.Last().name, "WSPRecv");
  EXPECT_EQ(next.Last().arguments,
            WordsOf(next.socket, &buffer, 1, &received, &flags, nullptr, nullptr, nullptr));
  WaitUntilDue();
  EXPECT_EQ(Recv(27), -1) << "no room for a reply";
  EXPECT_EQ(Recv(28), 0);
}

TEST_F(RawHooks, CountsMayBeMissing) {
  MakeSocket();
  Connect();
  EXPECT_EQ(WSPSend(next.socket, &ping, 1, nullptr, 4, nullptr, nullptr, nullptr, &error), 0);
  WaitUntilDue();
  buffer = {sizeof reply, reply};
  EXPECT_EQ(WSPRecv(next.socket, &buffer, 1, nullptr, &flags, nullptr, nullptr, nullptr, &error),
            0);
  EXPECT_EQ(next.calls.size(), 1u) << "the connect alone";
}

// Kept: the game is told a larger count than it got.
TEST_F(RawHooks, ATruncatedReplyReportsItsFullLength) {
  MakeSocket();
  Connect();
  char longer[16] = {8, 0, '\xf7', '\xff'};
  ping = {sizeof longer, longer};
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(sent, 16u);
  WaitUntilDue();
  reply[28] = 'x';
  EXPECT_EQ(Recv(28), 0);
  EXPECT_EQ(received, 36u);
  EXPECT_EQ(reply[28], 'x');
}

TEST_F(RawHooks, WithoutBuffersNoPingIsHeld) {
  MakeSocket();
  Connect();
  next.calls.clear();
  WSPSend(next.socket, &ping, 0, &sent, 4, nullptr, nullptr, nullptr, &error);
  WSPSend(next.socket, nullptr, 1, &sent, 4, nullptr, nullptr, nullptr, &error);
  WSABUF nowhere{8, nullptr};
  WSPSend(next.socket, &nowhere, 1, &sent, 4, nullptr, nullptr, nullptr, &error);
  WSPRecv(next.socket, &nowhere, 0, &received, &flags, nullptr, nullptr, nullptr, &error);
  WSPRecv(next.socket, nullptr, 1, &received, &flags, nullptr, nullptr, nullptr, &error);
  EXPECT_EQ(next.calls.size(), 5u);
}

TEST_F(RawHooks, OnlyConnectedIcmpSocketsAreAnsweredFor) {
  MakeSocket(255);
  Connect();
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(next.Last().name, "WSPSend");
  Close();
  MakeSocket();
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(next.Last().name, "WSPSend") << "not connected";
}

// The address is not read beyond the length that the game gives.
TEST_F(RawHooks, AShortAddressCountsAsZero) {
  MakeSocket();
  Connect(4);
  EXPECT_EQ(Send(), 0);
  WaitUntilDue();
  EXPECT_EQ(Recv(28), 0);
  EXPECT_EQ(std::memcmp(reply + 12, "\0\0\0\0", 4), 0);
}

TEST_F(RawHooks, CloseForgetsTheSocket) {
  MakeSocket();
  Connect();
  Close();
  MakeSocket();
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(next.Last().name, "WSPSend");
}

}  // namespace
}  // namespace moru_vyr::lsp
