// select, handles, options, and the last error.
#include <memory>
#include <vector>

#include "tests/contract/world.h"

namespace contract {
namespace {

timeval Milliseconds(int ms) { return {ms / 1000, ms % 1000 * 1000}; }

TEST(Select, WithoutAnyHandleIsRefused) {
  timeval soon = Milliseconds(10);
  CHECK_SOCKET_ERROR(select(0, nullptr, nullptr, nullptr, &soon), WSAEINVAL);
  fd_set empty;
  FD_ZERO(&empty);
  CHECK_SOCKET_ERROR(select(0, &empty, &empty, &empty, &soon), WSAEINVAL);
}

TEST(Select, ServesTheSetsInArrayOrder) {
  Owned s[4] = {BoundUdp(), BoundUdp(), BoundUdp(), BoundUdp()};
  for (int i : {3, 0, 2}) SendTextTo(s[1], "x", LocalPort(s[i]));
  for (int i : {0, 2, 3}) EXPECT_TRUE(WaitReadable(s[i]));
  fd_set read;
  FD_ZERO(&read);
  for (int i : {2, 1, 3, 0}) FD_SET(s[i], &read);
  timeval now = Milliseconds(0);
  CHECK_EQ(select(0, &read, nullptr, nullptr, &now), 3);
  CHECK_EQ(read.fd_count, 3u);
  CHECK_EQ(read.fd_array[0], static_cast<SOCKET>(s[2]));
  CHECK_EQ(read.fd_array[1], static_cast<SOCKET>(s[3]));
  CHECK_EQ(read.fd_array[2], static_cast<SOCKET>(s[0]));
}

TEST(Select, SetsHold128Handles) {
  CHECK_EQ(FD_SETSIZE, 128);
  std::vector<Owned> sockets;
  fd_set write;
  FD_ZERO(&write);
  for (int i = 0; i < 130; ++i) {
    sockets.push_back(BoundUdp());
    FD_SET(sockets.back(), &write);
  }
  CHECK_EQ(write.fd_count, 128u);
  timeval now = Milliseconds(0);
  CHECK_EQ(select(0, nullptr, &write, nullptr, &now), 128);
  CHECK_EQ(write.fd_array[127], static_cast<SOCKET>(sockets[127]));
  CHECK_FALSE(FD_ISSET(sockets[128], &write));
}

TEST(Select, SetsHoldAHandleOnce) {
  Owned a = BoundUdp(), b = BoundUdp(), c = BoundUdp();
  fd_set set;
  FD_ZERO(&set);
  for (SOCKET s : {SOCKET(a), SOCKET(b), SOCKET(a), SOCKET(c)}) FD_SET(s, &set);
  CHECK_EQ(set.fd_count, 3u);
  FD_CLR(SOCKET(a), &set);
  CHECK_EQ(set.fd_count, 2u);
  CHECK_EQ(set.fd_array[0], SOCKET(b));
  CHECK_FALSE(FD_ISSET(SOCKET(a), &set));
  CHECK_TRUE(FD_ISSET(SOCKET(c), &set));
}

TEST(Select, CountsAHandleInEachSet) {
  Pair pair = ConnectedPair();
  EXPECT_EQ(SendText(pair.client, "x"), 1);
  EXPECT_TRUE(WaitReadable(pair.server));
  const Ready ready = SelectOne(pair.server, 1000);
  CHECK_EQ(ready.result, 2);
  CHECK_TRUE(ready.read && ready.write && !ready.except);
}

TEST(Select, TimesOutWithEmptySets) {
  Owned a = BoundUdp();
  const DWORD before = GetTickCount();
  const Ready ready = SelectOne(a, 60, true, false, true);
  CHECK_EQ(ready.result, 0);
  CHECK_FALSE(ready.read || ready.except);
  CHECK_TRUE(GetTickCount() - before >= 44);
}

TEST(Select, WakesOnData) {
  Owned a = BoundUdp(), b = BoundUdp();
  OnThread sender([&] {
    Sleep(40);
    SendTextTo(a, "x", LocalPort(b));
  });
  fd_set read;
  FD_ZERO(&read);
  FD_SET(SOCKET(b), &read);
  timeval long_time = Milliseconds(20'000);
  const DWORD before = GetTickCount();
  CHECK_EQ(select(0, &read, nullptr, nullptr, &long_time), 1);
  CHECK_TRUE(GetTickCount() - before < 15'000);
}

TEST(Select, WakesOnAnIncomingConnection) {
  Owned listener = Listener();
  CHECK_FALSE(SelectOne(listener, 0).read);
  CHECK_FALSE(SelectOne(listener, 0).write);
  Owned client = Tcp();
  OnThread connector([&] { Connect(client, LocalPort(listener)); });
  CHECK_TRUE(WaitReadable(listener));
}

TEST(Select, UnconnectedStreamIsNeverReady) {
  Owned s = Tcp();
  const Ready ready = SelectOne(s, 30);
  CHECK_EQ(ready.result, 0);
}

TEST(Select, ClosedHandleIs10038) {
  Owned open = BoundUdp(), other = BoundUdp();
  const SOCKET closed = other;
  other.Close();
  fd_set read;
  FD_ZERO(&read);
  FD_SET(SOCKET(open), &read);
  FD_SET(closed, &read);
  timeval now = Milliseconds(0);
  CHECK_SOCKET_ERROR(select(0, &read, nullptr, nullptr, &now), WSAENOTSOCK);
}

TEST(Select, EndOfStreamReadsAndWrites) {
  Pair pair = ConnectedPair();
  pair.client.Close();
  const Ready ready = SelectOne(pair.server, 5000, true, false, true);
  CHECK_TRUE(ready.read);
  CHECK_FALSE(ready.except);
}

TEST(Handles, ClosedOrForeignOnesAreNotSockets) {
  Owned s = BoundUdp();
  const SOCKET closed = s;
  s.Close();
  for (SOCKET bad : {closed, SOCKET(0x7ffffff1), INVALID_SOCKET, SOCKET(0)}) {
    sockaddr_in name = Loopback(9);
    int size = sizeof name;
    char byte = 0;
    u_long flag = 1;
    int value = 0, value_size = sizeof value;
    CHECK_SOCKET_ERROR(closesocket(bad), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(bind(bad, Raw(name), sizeof name), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(listen(bad, 1), WSAENOTSOCK);
    CHECK_FAILS(accept(bad, nullptr, nullptr), INVALID_SOCKET, WSAENOTSOCK);
    CHECK_SOCKET_ERROR(connect(bad, Raw(name), sizeof name), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(send(bad, &byte, 1, 0), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(recv(bad, &byte, 1, 0), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(sendto(bad, &byte, 1, 0, Raw(name), sizeof name), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(recvfrom(bad, &byte, 1, 0, Raw(name), &size), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(shutdown(bad, SD_SEND), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(getsockname(bad, Raw(name), &size), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(getpeername(bad, Raw(name), &size), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(ioctlsocket(bad, static_cast<long>(FIONBIO), &flag), WSAENOTSOCK);
    CHECK_SOCKET_ERROR(
        getsockopt(bad, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&value), &value_size),
        WSAENOTSOCK);
    CHECK_SOCKET_ERROR(
        setsockopt(bad, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<char*>(&value), value_size),
        WSAENOTSOCK);
  }
}

TEST(Handles, OfUnsupportedKindsAreNotCreated) {
  CHECK_FAILS(socket(99, SOCK_STREAM, 0), INVALID_SOCKET, WSAEAFNOSUPPORT);
  CHECK_FAILS(socket(AF_INET, 99, 0), INVALID_SOCKET, WSAESOCKTNOSUPPORT);
  CHECK_FAILS(socket(AF_INET, SOCK_STREAM, IPPROTO_UDP), INVALID_SOCKET, WSAEPROTONOSUPPORT);
  Owned plain(socket(AF_INET, SOCK_DGRAM, 0));
  CHECK_NE(static_cast<SOCKET>(plain), INVALID_SOCKET);
}

int GetInt(SOCKET s, int level, int option) {
  int value = 0, size = sizeof value;
  EXPECT_EQ(getsockopt(s, level, option, reinterpret_cast<char*>(&value), &size), 0) << option;
  EXPECT_TRUE(size == sizeof value || size == 1) << option;  // a flag may come as one byte
  return value;
}

int SetInt(SOCKET s, int level, int option, int value) {
  return setsockopt(s, level, option, reinterpret_cast<const char*>(&value), sizeof value);
}

TEST(Options, ReadBackAsSet) {
  Owned tcp = Tcp(), udp = Udp();
  CHECK_EQ(GetInt(tcp, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  CHECK_EQ(GetInt(udp, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  CHECK_EQ(GetInt(tcp, SOL_SOCKET, SO_ERROR), 0);
  for (int option : {SO_SNDBUF, SO_RCVBUF}) {
    CHECK_EQ(SetInt(udp, SOL_SOCKET, option, 32768), 0);
    CHECK_EQ(GetInt(udp, SOL_SOCKET, option), 32768);
  }
  for (int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
    CHECK_EQ(GetInt(tcp, SOL_SOCKET, option), 0);
    CHECK_EQ(SetInt(tcp, SOL_SOCKET, option, 1500), 0);
    CHECK_EQ(GetInt(tcp, SOL_SOCKET, option), 1500);
  }
  for (int option : {SO_KEEPALIVE, SO_REUSEADDR}) {
    CHECK_EQ(SetInt(tcp, SOL_SOCKET, option, 1), 0);
    CHECK_NE(GetInt(tcp, SOL_SOCKET, option), 0);
  }
  CHECK_EQ(SetInt(udp, SOL_SOCKET, SO_BROADCAST, 1), 0);
  CHECK_NE(GetInt(udp, SOL_SOCKET, SO_BROADCAST), 0);
  CHECK_EQ(SetInt(tcp, IPPROTO_TCP, TCP_NODELAY, 1), 0);
  CHECK_NE(GetInt(tcp, IPPROTO_TCP, TCP_NODELAY), 0);
  CHECK_EQ(GetInt(tcp, SOL_SOCKET, SO_ACCEPTCONN), 0);
  Owned listener = Listener();
  CHECK_NE(GetInt(listener, SOL_SOCKET, SO_ACCEPTCONN), 0);
}

TEST(Options, UnknownOrTooSmallAreRefused) {
  Owned s = Tcp();
  int value = 0, size = sizeof value;
  char* raw = reinterpret_cast<char*>(&value);
  CHECK_SOCKET_ERROR(getsockopt(s, SOL_SOCKET, 0x6666, raw, &size), WSAENOPROTOOPT);
  CHECK_SOCKET_ERROR(setsockopt(s, SOL_SOCKET, 0x6666, raw, sizeof value), WSAENOPROTOOPT);
  size = 1;
  CHECK_SOCKET_ERROR(getsockopt(s, SOL_SOCKET, SO_RCVBUF, raw, &size), WSAEFAULT);
  CHECK_SOCKET_ERROR(setsockopt(s, SOL_SOCKET, SO_RCVBUF, raw, 1), WSAEFAULT);
  CHECK_SOCKET_ERROR(setsockopt(s, SOL_SOCKET, SO_RCVBUF, nullptr, 4), WSAEFAULT);
}

TEST(LastSocketError, IsClearedByACallThatSucceeds) {
  Pair pair = ConnectedPair();
  Owned udp = BoundUdp();
  sockaddr_in name = {};
  int size = sizeof name;
  u_long flag = 0;
  const auto clears = [](const char* what, auto call) {
    WSASetLastError(12345);
    EXPECT_NE(call(), SOCKET_ERROR) << what;
    EXPECT_EQ(Counted(WSAGetLastError()), 0) << what;
  };
  clears("socket", [&] { return Udp() == INVALID_SOCKET ? SOCKET_ERROR : 0; });
  clears("getsockname", [&] { return getsockname(udp, Raw(name), &size); });
  clears("getpeername", [&] { return getpeername(pair.client, Raw(name), &size); });
  clears("sendto", [&] { return SendTextTo(udp, "x", LocalPort(udp)); });
  clears("ioctlsocket", [&] { return ioctlsocket(udp, static_cast<long>(FIONBIO), &flag); });
  clears("send", [&] { return SendText(pair.client, "x"); });
  clears("select", [&] { return SelectOne(pair.server, 5000).result; });
  clears("recv", [&] { return RecvText(pair.server) == "x" ? 0 : SOCKET_ERROR; });
  clears("recvfrom", [&] { return RecvText(udp) == "x" ? 0 : SOCKET_ERROR; });
  clears("shutdown", [&] { return shutdown(pair.client, SD_SEND); });
  clears("bind", [&] {
    Owned fresh = BoundUdp();
    return 0;
  });
  clears("listen", [&] {
    Owned fresh = Listener();
    return 0;
  });
  if (WineDiffers("closesocket leaves the last error alone")) return;
  clears("closesocket", [&] { return closesocket(udp.Release()); });
}

}  // namespace
}  // namespace contract
