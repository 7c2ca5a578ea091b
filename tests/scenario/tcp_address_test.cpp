// What a game may pass to connect, and how it may have made its socket. A connect that is meant for
// the relay reaches its server; an invalid one gets the platform's own answer.
#include <mswsock.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

constexpr unsigned char kInet6 = 23;  // the family's number on this platform

// An address of any length.
std::vector<char> Bytes(const sockaddr_in& address, size_t size) {
  std::vector<char> bytes(size);
  std::memcpy(bytes.data(), &address, std::min(size, sizeof address));
  return bytes;
}

class TcpAddress : public TcpWorld {
 protected:
  static int Connects(SOCKET s, const std::vector<char>& bytes, int size) {
    return ErrorOf(connect(s, reinterpret_cast<const struct sockaddr*>(bytes.data()), size));
  }
  // Whether the relay took it and its server answers.
  void ExpectRelayed(SOCKET s) {
    EXPECT_EQ(Talks(s, "hello"), "hello");
    EXPECT_EQ(LastCall().from, "A");
    sockaddr_in peer = {};
    int size = sizeof peer;
    ASSERT_EQ(getpeername(s, Raw(peer), &size), 0);
    EXPECT_EQ(size, 16);
    EXPECT_STREQ(inet_ntoa(peer.sin_addr), kServer);
    EXPECT_EQ(ntohs(peer.sin_port), kPort);
    closesocket(s);
  }
};

SCENARIO_F(TcpAddress, AsMuchOfAnAddressAsThereIsIsRead) {
  // Kept: the family, the port and the address are enough, and a longer address is accepted.
  for (const int size : {8, 15, 16, 17, 28, 128}) {
    SCOPED_TRACE(size);
    const SOCKET s = Tcp();
    const std::vector<char> bytes = Bytes(At(kServer, kPort), static_cast<size_t>(size));
    ASSERT_EQ(Connects(s, bytes, size), 0);
    ExpectRelayed(s);
  }
  ExpectServesAgain();
}

SCENARIO_F(TcpAddress, AnInvalidAddressGetsThePlatformsError) {
  const std::vector<char> bytes = Bytes(At(kServer, kPort), 16);
  for (const int size : {-1, 0, 1, 2, 4, 6}) {
    SCOPED_TRACE(size);
    const SOCKET s = Tcp();
    EXPECT_EQ(Connects(s, bytes, size), WSAEFAULT);
    // The same socket may still be used.
    ASSERT_EQ(Connects(s, bytes, 16), 0);
    ExpectRelayed(s);
  }
  const SOCKET s = Tcp();
  EXPECT_NE(ErrorOf(connect(s, nullptr, 16)), 0);
  ASSERT_EQ(Connects(s, bytes, 16), 0);
  ExpectRelayed(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpAddress, AnAddressOfAnotherFamilyGetsThePlatformsError) {
  std::vector<char> bytes(28);
  bytes[0] = kInet6;
  bytes[2] = static_cast<char>(kPort >> 8);
  bytes[3] = static_cast<char>(kPort & 0xff);
  bytes[23] = 1;  // ::1
  const SOCKET s = Tcp();
  EXPECT_EQ(Connects(s, bytes, 28), WSAEAFNOSUPPORT);
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  ExpectRelayed(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpAddress, AGameThatBindsItselfKeepsItsPort) {
  for (const char* ip : {"0.0.0.0", "127.0.0.1"}) {
    SCOPED_TRACE(ip);
    const SOCKET s = Tcp();
    ASSERT_EQ(BindTo(s, ip, 40'000), 0);
    ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
    ResetOnClose(s);  // so that the port is free at once
    EXPECT_EQ(Talks(s, "hello"), "hello");
    EXPECT_TRUE(Logged(test::GameAccepted(40000)));
    EXPECT_EQ(LastCall().from, "A");
    closesocket(s);
    RunFor(100ms);
  }
  ExpectServesAgain();
}

// Games that cannot wait poll whether they are connected.
SCENARIO_F_SEEDS(TcpAddress, ARepeatedConnectDoesNoHarm, 20) {
  const SOCKET s = Tcp();
  NonBlocking(s);
  int error = ConnectTo(s, kServer, kPort);
  EXPECT_TRUE(error == 0 || error == WSAEWOULDBLOCK) << error;
  for (int i = 0; i < 5; ++i) {
    RunFor(20ms);
    error = ConnectTo(s, kServer, kPort);
    EXPECT_TRUE(error == WSAEISCONN || error == WSAEALREADY) << error;
  }
  u_long off = 0;
  ioctlsocket(s, static_cast<long>(FIONBIO), &off);
  ExpectRelayed(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpAddress, AnOverlappedConnectIsRelayedAndReturnsTheOppositeResult) {
  const SOCKET s = Tcp();
  const sockaddr_in server = At(kServer, kPort);
  OVERLAPPED overlapped{};
  char first[] = "first ";
  DWORD sent = 0;
  // Kept: FALSE for a connect that succeeded.
  EXPECT_EQ(
      moru_vyr::lsp::WSPConnectEx(s, Raw(server), sizeof server, first, 6, &sent, &overlapped),
      FALSE);
  EXPECT_EQ(sent, 6u);
  std::string got, end;
  EXPECT_TRUE(Collect(s, 6, &got, &end)) << end;
  EXPECT_EQ(got, "first ");
  ExpectRelayed(s);
  ExpectServesAgain();
}

SCENARIO_F(TcpAddress, ASocketThatGetsNoPortGoesDirect) {
  port::FailCall("WSPBind", 0, WSAEADDRINUSE);
  const SOCKET s = Joins();
  EXPECT_EQ(port::CallCount("WSPBind"), 200u);
  port::ClearFaults();
  EXPECT_TRUE(Logged(test::kBindRefused));
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "game");
  closesocket(s);
  ExpectServesAgain();
}

// A relay that was terminated takes no more connections.
SCENARIO_F(TcpAddress, AConnectionThatTheRelayRefusesGoesDirect) {
  moru_vyr::lsp::RelayMgr& relay = moru_vyr::lsp::GetRelayMgr();
  world.Stall(relay.GetWorkerThreadId(), 10s);
  relay.Stop();
  const SOCKET s = Tcp();  // not bound by the relay, which would keep it on the loopback interface
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_FALSE(Logged(test::kTcpRelayAsked));
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "game");
  sockaddr_in peer = {};
  int size = sizeof peer;
  ASSERT_EQ(getpeername(s, Raw(peer), &size), 0);
  EXPECT_STREQ(inet_ntoa(peer.sin_addr), kServer);
}

// A session that is never connected to waits for ever, which does no harm.
SCENARIO_F(TcpAddress, AMissingConnectDoesNotAffectTheOthers) {
  for (int i = 0; i < 20; ++i) {
    const SOCKET s = Tcp();
    port::FailCall("WSPConnect", 1, WSAENETUNREACH);
    EXPECT_EQ(ConnectTo(s, kServer, kPort), WSAENETUNREACH);
    closesocket(s);
  }
  ExpectServesAgain();
}

// --- a game whose path has no code page ---------------------------------------------------------

class TcpForeignPath : public TcpWorld {
 protected:
  TcpForeignPath() : TcpWorld(L"D:\\\u6e38\u620f\\\u9ece\u660e \u00e9t\u00e9\\\u66d9\u5149.exe") {}
};

SCENARIO_F(TcpForeignPath, IsServedAsAnyOther) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "A");
  EXPECT_EQ(a.Last("request").Number("uin"), 10001u);
  closesocket(s);
  ExpectServesAgain();
}

}  // namespace
