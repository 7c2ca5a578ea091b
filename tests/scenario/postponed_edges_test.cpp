// Edges of mended connects: one that nobody decides, and names that nobody can give. At stake: no
// thread of the game waits forever, and what cannot be found out stays as the next provider said.
#include "abi/mending_formats.h"
#include "hooks/connect_target.h"
#include "hooks/postponed_target.h"
#include "port/shared/faults.h"
#include "sockets/socket_map.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using moru_vyr::lsp::ConnectTarget;
using moru_vyr::lsp::GetSocketMap;
using moru_vyr::lsp::SocketRecord;

class UndecidedConnect : public TcpWorld {
 protected:
  UndecidedConnect() : TcpWorld(L"", nullptr, moru_vyr::lsp::kMendRefusal) {}
};

// No session was asked for, so the worker never hears of it. Its own limits are far below this one.
SCENARIO_F(UndecidedConnect, EndsAfterThreeMinutes) {
  const SOCKET first = Joins();
  EXPECT_EQ(Talks(first, "hello"), "hello");
  closesocket(first);
  const SOCKET s = Tcp();
  const SocketRecord record = GetSocketMap().Get(s);
  const sockaddr_in server = At(kServer, kPort);
  ConnectTarget target{Raw(server), sizeof server};
  Postpone(record, &target);
  ASSERT_NE(target.postponed, nullptr);
  const auto start = world.now();
  INT error = 0;
  EXPECT_FALSE(MayConnectNow(record, target, &error));
  EXPECT_EQ(error, WSAETIMEDOUT);
  EXPECT_GE(world.now() - start, 180s);
  EXPECT_LE(world.now() - start, 181s);
  EndPostponed(record, &target);
  closesocket(s);
  ExpectServesAgain();
}

class UnknownName : public TcpWorld {
 protected:
  UnknownName() : TcpWorld(L"", nullptr, moru_vyr::lsp::kMendNames) {}
  static std::string OwnAddress(SOCKET s) {
    sockaddr_in name = {};
    int size = sizeof name;
    EXPECT_EQ(getsockname(s, Raw(name), &size), 0);
    return inet_ntoa(name.sin_addr);
  }
};

// The provider below does not know from which address a server is reached, and a socket that would
// show it cannot be had, or cannot be connected, or does not say.
SCENARIO_F(UnknownName, StaysThatOfTheRelay) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hi"), "hi");  // the relay has made its socket, with a call of that name
  const std::string known = OwnAddress(s);
  EXPECT_NE(known, "127.0.0.1");
  const std::pair<const char*, unsigned> calls_below[] = {
      {"WSPSocket", 1}, {"WSPConnect", 1}, {"WSPGetSockName", 2}};
  for (const auto& [call, nth] : calls_below) {
    port::FailCall("WSPIoctl", 0, WSAEOPNOTSUPP);
    port::FailCall(call, nth, WSAENOBUFS);
    EXPECT_EQ(OwnAddress(s), "127.0.0.1") << call;
    port::ClearFaults();
    EXPECT_EQ(OwnAddress(s), known);
  }
  port::FailCall("WSPIoctl", 0, WSAEOPNOTSUPP);
  EXPECT_EQ(OwnAddress(s), known) << "the socket says it";
}

}  // namespace
