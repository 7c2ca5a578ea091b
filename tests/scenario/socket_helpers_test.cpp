// The relay's own sockets, and every way in which creating one can fail. At stake: a failure must
// leave the caller with a result that it can act on, and no socket open except where that is
// documented.
#include "sockets/socket_helpers.h"

#include <gtest/gtest.h>

#include <string>

#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"

namespace {

using common::u16;
using common::u32;
using moru_vyr::lsp::AdjustSocketBuff;
using moru_vyr::lsp::BindRandomPort;
using moru_vyr::lsp::CreateNonBlockTcpSocket;
using moru_vyr::lsp::CreateTcpSocketAndBind;

sockaddr_in NameOf(SOCKET s) {
  sockaddr_in name = {};
  int size = sizeof name;
  EXPECT_EQ(getsockname(s, sim_test::Raw(name), &size), 0);
  return name;
}

std::string Number(SOCKET s) { return "socket=" + std::to_string(s); }

// --- BindRandomPort, plainly ------------------------------------------------------------------

SCENARIO(BindRandomPort, BindsAPlainSocketAndReturnsThePortInNetworkOrder) {
  test::LogCapture log(5);
  const SOCKET s = sim_test::Udp();
  u16 port = 0;
  ASSERT_TRUE(BindRandomPort(s, false, &port, true));
  const sockaddr_in name = NameOf(s);
  EXPECT_EQ(name.sin_port, port);
  EXPECT_EQ(ntohl(name.sin_addr.s_addr), 0x7F000001u);
  EXPECT_EQ(log.Text(), "") << "on this path only failures are logged";
}

SCENARIO(BindRandomPort, BindsToAllAddressesWithoutLoopback) {
  const SOCKET s = sim_test::Udp();
  ASSERT_TRUE(BindRandomPort(s, false, nullptr, false));
  EXPECT_EQ(NameOf(s).sin_addr.s_addr, 0u);
}

SCENARIO(BindRandomPort, TriesAgainWhileThePortsAreInUse) {
  for (unsigned i = 1; i <= 199; ++i) port::FailCall("bind", i, WSAEADDRINUSE);
  EXPECT_TRUE(BindRandomPort(sim_test::Udp(), false, nullptr, true));
  EXPECT_EQ(port::CallCount("bind"), 200u);
}

SCENARIO(BindRandomPort, GivesUpAfter200PortsInUseWithoutALogLine) {
  test::LogCapture log(0);
  port::FailCall("bind", 0, WSAEADDRINUSE);
  u16 port = 7;
  EXPECT_FALSE(BindRandomPort(sim_test::Udp(), false, &port, true));
  EXPECT_EQ(port::CallCount("bind"), 200u);
  EXPECT_EQ(port, 7);
  EXPECT_EQ(log.Text(), "");
}

SCENARIO(BindRandomPort, EndsAtOnceWithAnyOtherError) {
  test::LogCapture log(5);
  port::FailCall("bind", 2, WSAEACCES);
  port::FailCall("bind", 1, WSAEADDRINUSE);
  const SOCKET s = sim_test::Udp();
  EXPECT_FALSE(BindRandomPort(s, false, nullptr, true));
  EXPECT_EQ(port::CallCount("bind"), 2u);
  EXPECT_TRUE(log.Contains(test::RandomBindFailed(WSAEACCES) + Number(s))) << log.Text();
}

SCENARIO(BindRandomPort, AnInvalidSocketEndsItAtOnce) {
  test::LogCapture log(5);
  EXPECT_FALSE(BindRandomPort(12345, false, nullptr, true));
  EXPECT_TRUE(log.Contains(test::RandomBindFailed(WSAENOTSOCK) + "socket=12345")) << log.Text();
}

// The secure generator has never been seen to fail; if it does, the first port is as good.
SCENARIO(BindRandomPort, DoesWithoutRandomBits) {
  port::FailCall("rand_s", 0, EINVAL);
  u16 port = 0;
  EXPECT_TRUE(BindRandomPort(sim_test::Udp(), false, &port, true));
  EXPECT_EQ(ntohs(port), 1025);
}

// --- CreateTcpSocketAndBind -------------------------------------------------------------------

SCENARIO(CreateTcpSocketAndBind, MakesANonBlockingSocketThatCanListen) {
  SOCKET s = INVALID_SOCKET;
  u16 port = 0;
  ASSERT_TRUE(CreateTcpSocketAndBind(&s, &port));
  EXPECT_EQ(NameOf(s).sin_port, port);
  EXPECT_EQ(ntohl(NameOf(s).sin_addr.s_addr), 0x7F000001u);
  ASSERT_EQ(listen(s, 5), 0);
  EXPECT_EQ(accept(s, nullptr, nullptr), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
}

int NoDelayOf(SOCKET s) {
  int value = -1;
  int size = sizeof value;
  getsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&value), &size);
  return value;
}

// A server that speaks in pieces must not wait for a game that is slow to confirm the first of
// them.
SCENARIO(CreateTcpSocketAndBind, WhatItAcceptsHoldsNoSmallPieceBack) {
  SOCKET s = INVALID_SOCKET;
  u16 port = 0;
  ASSERT_TRUE(CreateTcpSocketAndBind(&s, &port));
  ASSERT_EQ(listen(s, 5), 0);
  ASSERT_EQ(sim_test::ConnectTo(sim_test::Tcp(), "127.0.0.1", ntohs(port)), 0);
  ASSERT_TRUE(sim_test::ReadableWithin(s, 1000));
  const SOCKET accepted = accept(s, nullptr, nullptr);
  ASSERT_NE(accepted, INVALID_SOCKET);
  EXPECT_EQ(NoDelayOf(accepted), 1);
}

// Otherwise another program could wait for the game's connections on the same port.
SCENARIO(CreateTcpSocketAndBind, SharesItsPortWithNoOtherProgram) {
  SOCKET s = INVALID_SOCKET;
  u16 port = 0;
  ASSERT_TRUE(CreateTcpSocketAndBind(&s, &port));
  const SOCKET thief = sim_test::Tcp();
  sim_test::SetIntOption(thief, SO_REUSEADDR, 1);
  EXPECT_EQ(sim_test::BindTo(thief, "127.0.0.1", ntohs(port)), WSAEADDRINUSE);
}

SCENARIO(CreateTcpSocketAndBind, WorksWithAProviderWithoutTheOptions) {
  port::FailCall("setsockopt", 0, WSAENOPROTOOPT);
  SOCKET s = INVALID_SOCKET;
  EXPECT_TRUE(CreateTcpSocketAndBind(&s, nullptr));
  EXPECT_EQ(NoDelayOf(s), 0);
}

SCENARIO(CreateTcpSocketAndBind, TakesNullForBoth) {
  EXPECT_TRUE(CreateTcpSocketAndBind(nullptr, nullptr));
}

SCENARIO(CreateTcpSocketAndBind, LogsWhyThereIsNoSocket) {
  test::LogCapture log(5);
  port::FailCall("socket", 1, WSAEMFILE);
  SOCKET s = 7;
  u16 port = 7;
  EXPECT_FALSE(CreateTcpSocketAndBind(&s, &port));
  EXPECT_TRUE(log.Contains("[TCP] CreateTcpSocketAndBind socket error=10024")) << log.Text();
  EXPECT_EQ(s, 7u);
  EXPECT_EQ(port, 7);
}

SCENARIO(CreateTcpSocketAndBind, LeavesTheSocketOpenWhenTheBindFails) {
  port::FailCall("bind", 1, WSAENOBUFS);
  SOCKET s = 7;
  EXPECT_FALSE(CreateTcpSocketAndBind(&s, nullptr));
  EXPECT_EQ(s, 7u);
  EXPECT_EQ(port::CallCount("closesocket"), 0u);
  EXPECT_EQ(port::CallCount("ioctlsocket"), 0u);
}

SCENARIO(CreateTcpSocketAndBind, GivesUpAfterTwentyReservedPorts) {
  port::FailCall("bind", 0, WSAEACCES);
  SOCKET s = 7;
  EXPECT_FALSE(CreateTcpSocketAndBind(&s, nullptr));
  EXPECT_EQ(port::CallCount("bind"), 20u);
  EXPECT_EQ(s, 7u);
  EXPECT_EQ(port::CallCount("closesocket"), 0u);
}

SCENARIO(CreateTcpSocketAndBind, ClosesTheSocketThatCannotBeMadeNonBlocking) {
  test::LogCapture log(5);
  port::FailCall("ioctlsocket", 1, WSAENOBUFS);
  SOCKET s = 7;
  u16 port = 7;
  EXPECT_FALSE(CreateTcpSocketAndBind(&s, &port));
  EXPECT_TRUE(log.Contains("[TCP]CreateTcpSocketAndBind ioctlsocket, err = 10055")) << log.Text();
  EXPECT_EQ(port::CallCount("closesocket"), 1u);
  EXPECT_EQ(s, 7u);
  EXPECT_EQ(port, 7);
}

// --- CreateNonBlockTcpSocket ------------------------------------------------------------------

SCENARIO(CreateNonBlockTcpSocket, MakesANonBlockingSocketThatIsNotBound) {
  test::LogCapture log(0);
  SOCKET s = INVALID_SOCKET;
  ASSERT_TRUE(CreateNonBlockTcpSocket(&s));
  sockaddr_in name = {};
  int size = sizeof name;
  EXPECT_EQ(getsockname(s, sim_test::Raw(name), &size), SOCKET_ERROR);
  EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
  EXPECT_EQ(sim_test::ConnectTo(s, "192.0.2.1", 9), WSAEWOULDBLOCK);
  EXPECT_EQ(log.Text(), "");
  EXPECT_TRUE(CreateNonBlockTcpSocket(nullptr));
}

// A game that writes in pieces must not wait for a peer that is slow to confirm the first of them.
SCENARIO(CreateNonBlockTcpSocket, HoldsNoSmallPieceBack) {
  SOCKET s = INVALID_SOCKET;
  ASSERT_TRUE(CreateNonBlockTcpSocket(&s));
  EXPECT_EQ(NoDelayOf(s), 1);
}

SCENARIO(CreateNonBlockTcpSocket, WorksWithAProviderWithoutTheOption) {
  test::LogCapture log(0);
  SOCKET s = INVALID_SOCKET;
  port::FailCall("setsockopt", 1, WSAENOPROTOOPT);
  EXPECT_TRUE(CreateNonBlockTcpSocket(&s));
  EXPECT_EQ(NoDelayOf(s), 0);
  EXPECT_EQ(log.Text(), "");
}

SCENARIO(CreateNonBlockTcpSocket, LogsWhyItFailsAndKeepsNothing) {
  test::LogCapture log(5);
  SOCKET s = 7;
  port::FailCall("socket", 1, WSAENOBUFS);
  EXPECT_FALSE(CreateNonBlockTcpSocket(&s));
  EXPECT_TRUE(log.Contains("[TCP] CreateNonBlockTcpSocket socket error=10055")) << log.Text();
  port::FailCall("ioctlsocket", 1, WSAEFAULT);
  EXPECT_FALSE(CreateNonBlockTcpSocket(&s));
  EXPECT_TRUE(log.Contains("[TCP]CreateNonBlockTcpSocket ioctlsocket, err = 10014")) << log.Text();
  EXPECT_EQ(port::CallCount("closesocket"), 1u);
  EXPECT_EQ(s, 7u);
}

// --- AdjustSocketBuff -------------------------------------------------------------------------

SCENARIO(AdjustSocketBuff, SetsBothBuffersAndTellsWhatTheyWere) {
  test::LogCapture log(5);
  const SOCKET s = sim_test::Udp();
  const int send_before = sim_test::IntOption(s, SO_SNDBUF);
  const int recv_before = sim_test::IntOption(s, SO_RCVBUF);
  AdjustSocketBuff(s, 65536, 70000);
  EXPECT_EQ(sim_test::IntOption(s, SO_SNDBUF), 65536);
  EXPECT_EQ(sim_test::IntOption(s, SO_RCVBUF), 70000);
  EXPECT_TRUE(log.Contains("[UDP] AdjustSocketBuff, previous send_buf=" +
                           std::to_string(send_before) + ", new send_buf=65536, " + Number(s)))
      << log.Text();
  EXPECT_TRUE(log.Contains("[UDP] AdjustSocketBuff, previous recv_buf=" +
                           std::to_string(recv_before) + ", new recv_buf=70000, " + Number(s)));
}

SCENARIO(AdjustSocketBuff, OneSizeOfZeroLeavesBothBuffersUnchanged) {
  test::LogCapture log(0);
  const SOCKET s = sim_test::Udp();
  port::CountCalls();
  AdjustSocketBuff(s, 0, 65536);
  AdjustSocketBuff(s, 65536, 0);
  AdjustSocketBuff(s, 0, 0);
  EXPECT_EQ(port::CallCount("getsockopt"), 0u);
  EXPECT_EQ(port::CallCount("setsockopt"), 0u);
  EXPECT_EQ(log.Text(), "");
}

SCENARIO(AdjustSocketBuff, FailuresOfItsCallsStopNothing) {
  test::LogCapture log(5);
  const SOCKET s = sim_test::Udp();
  port::FailCall("getsockopt", 0, WSAENOPROTOOPT);
  port::FailCall("setsockopt", 0, WSAENOPROTOOPT);
  AdjustSocketBuff(s, 1000, 2000);
  EXPECT_EQ(port::CallCount("setsockopt"), 2u);
  EXPECT_TRUE(log.Contains("previous send_buf=0, new send_buf=1000, " + Number(s))) << log.Text();
  EXPECT_TRUE(log.Contains("previous recv_buf=0, new recv_buf=2000, " + Number(s)));
}

}  // namespace
