// Streams: connecting, moving bytes, the ends of a connection.
#include <cstring>

#include "tests/contract/world.h"

namespace contract {
namespace {

int ErrorOf(SOCKET s) {
  int error = -1, size = sizeof error;
  EXPECT_EQ(getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size), 0);
  return error;
}

void LingerZero(SOCKET s) {
  struct linger now = {1, 0};
  EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&now), sizeof now),
            0);
}

TEST(Tcp, BlockingConnectCarriesBytesInBothDirections) {
  Owned listener = Listener();
  Owned client = Tcp();
  CHECK_EQ(Connect(client, LocalPort(listener)), 0);
  sockaddr_in peer = {};
  int size = sizeof peer;
  Owned server(accept(listener, Raw(peer), &size));
  CHECK_NE(static_cast<SOCKET>(server), INVALID_SOCKET);
  CHECK_EQ(size, static_cast<int>(sizeof peer));
  CHECK_EQ(peer.sin_family, AF_INET);
  CHECK_EQ(ntohs(peer.sin_port), LocalPort(client));
  CHECK_EQ(SendText(client, "hello"), 5);
  CHECK_EQ(RecvText(server), "hello");
  CHECK_EQ(SendText(server, "back"), 4);
  CHECK_EQ(RecvText(client), "back");
  CHECK_FAILS(Connect(client, LocalPort(listener)), SOCKET_ERROR, WSAEISCONN);
}

TEST(Tcp, NamesAreThoseOfTheConnection) {
  Owned listener = Listener();
  Owned client = Tcp();
  EXPECT_EQ(Connect(client, LocalPort(listener)), 0);
  sockaddr_in name = {};
  int size = sizeof name;
  CHECK_EQ(getpeername(client, Raw(name), &size), 0);
  CHECK_EQ(ntohs(name.sin_port), LocalPort(listener));
  CHECK_EQ(ntohl(name.sin_addr.s_addr), 0x7f000001u);
  size = sizeof name;
  CHECK_EQ(getsockname(client, Raw(name), &size), 0);
  CHECK_EQ(ntohl(name.sin_addr.s_addr), 0x7f000001u);
  size = 4;
  CHECK_SOCKET_ERROR(getpeername(client, Raw(name), &size), WSAEFAULT);
  size = 4;
  CHECK_SOCKET_ERROR(getsockname(client, Raw(name), &size), WSAEFAULT);
}

TEST(Tcp, NonBlockingConnectReturnsWouldBlockThenBecomesWritable) {
  Owned listener = Listener();
  Owned client = Tcp();
  SetNonBlocking(client);
  CHECK_SOCKET_ERROR(Connect(client, LocalPort(listener)), WSAEWOULDBLOCK);
  const Ready ready = SelectOne(client, 5000);
  CHECK_TRUE(ready.write);
  CHECK_FALSE(ready.read);
  CHECK_FALSE(ready.except);
  CHECK_EQ(ready.result, 1);
  CHECK_EQ(ErrorOf(client), 0);
  CHECK_SOCKET_ERROR(Connect(client, LocalPort(listener)), WSAEISCONN);
}

TEST(Tcp, RefusedNonBlockingConnectShowsInTheExceptionSetOnly) {
  Owned client = Tcp();
  SetNonBlocking(client);
  CHECK_SOCKET_ERROR(Connect(client, DeadPort()), WSAEWOULDBLOCK);
  const Ready ready = SelectOne(client, 10'000);
  CHECK_TRUE(ready.except);
  CHECK_FALSE(ready.write);
  CHECK_EQ(ErrorOf(client), WSAECONNREFUSED);
  if (WineDiffers("a refused socket is readable too, and sending on it is 10054")) return;
  CHECK_FALSE(ready.read);
  CHECK_EQ(ready.result, 1);
  CHECK_SOCKET_ERROR(SendText(client, "x"), WSAENOTCONN);
}

TEST(Tcp, RefusedConnectDoesNotMakeTheSocketWritable) {
  Owned client = Tcp();
  SetNonBlocking(client);
  Connect(client, DeadPort());
  EXPECT_TRUE(SelectOne(client, 10'000).except);
  CHECK_EQ(SelectOne(client, 50, true, true, false).result, 0);
}

TEST(Tcp, RefusedBlockingConnectIs10061AndCanBeTriedAgain) {
  Owned client = Tcp();
  CHECK_SOCKET_ERROR(Connect(client, DeadPort()), WSAECONNREFUSED);
  if (WineDiffers("the first connect after a refusal fails")) return;
  Owned listener = Listener();
  CHECK_EQ(Connect(client, LocalPort(listener)), 0);
}

TEST(Tcp, ConnectNeedsACompleteAddress) {
  if (WineDiffers("the address is bound before it is looked at: 10049 for all")) return;
  Owned client = Tcp();
  const sockaddr_in name = Loopback(1);
  CHECK_SOCKET_ERROR(connect(client, Raw(name), 4), WSAEFAULT);
  sockaddr_in other = name;
  other.sin_family = 99;
  CHECK_SOCKET_ERROR(connect(client, Raw(other), sizeof other), WSAEAFNOSUPPORT);
  const sockaddr_in nowhere = Address("0.0.0.0", 9);
  CHECK_SOCKET_ERROR(connect(client, Raw(nowhere), sizeof nowhere), WSAEADDRNOTAVAIL);
}

TEST(Tcp, UnconnectedSocketMovesNothing) {
  Owned s = Tcp();
  if (!WineDiffers("send on an unconnected stream is 10054")) {
    CHECK_SOCKET_ERROR(SendText(s, "x"), WSAENOTCONN);
  }
  char byte = 0;
  CHECK_SOCKET_ERROR(recv(s, &byte, 1, 0), WSAENOTCONN);
  sockaddr_in name = {};
  int size = sizeof name;
  CHECK_SOCKET_ERROR(getpeername(s, Raw(name), &size), WSAENOTCONN);
  CHECK_SOCKET_ERROR(shutdown(s, SD_SEND), WSAENOTCONN);
}

TEST(Tcp, UnboundSocketHasNoName) {
  Owned s = Tcp();
  sockaddr_in name = {};
  int size = sizeof name;
  CHECK_SOCKET_ERROR(getsockname(s, Raw(name), &size), WSAEINVAL);
  CHECK_SOCKET_ERROR(listen(s, 5), WSAEINVAL);
  CHECK_FAILS(accept(s, nullptr, nullptr), INVALID_SOCKET, WSAEINVAL);
}

TEST(Tcp, AddressIsBoundOnce) {
  Owned first = Listener();
  Owned second = Tcp();
  const sockaddr_in taken = Loopback(LocalPort(first));
  CHECK_SOCKET_ERROR(bind(second, Raw(taken), sizeof taken), WSAEADDRINUSE);
  const sockaddr_in fresh = Loopback(0);
  CHECK_EQ(bind(second, Raw(fresh), sizeof fresh), 0);
  CHECK_SOCKET_ERROR(bind(second, Raw(fresh), sizeof fresh), WSAEINVAL);
  Owned third = Tcp();
  const sockaddr_in foreign = Address("198.51.100.77", 0);
  CHECK_SOCKET_ERROR(bind(third, Raw(foreign), sizeof foreign), WSAEADDRNOTAVAIL);
  CHECK_SOCKET_ERROR(bind(third, Raw(fresh), 4), WSAEFAULT);
}

TEST(Tcp, AcceptedSocketInheritsNonBlockingMode) {
  for (bool non_blocking : {true, false}) {
    Owned listener = Listener();
    Owned client = Tcp();
    EXPECT_EQ(Connect(client, LocalPort(listener)), 0);
    EXPECT_TRUE(WaitReadable(listener));
    SetNonBlocking(listener, non_blocking);
    Owned server(accept(listener, nullptr, nullptr));
    CHECK_NE(static_cast<SOCKET>(server), INVALID_SOCKET);
    if (non_blocking) {
      const DWORD bound_ms = 3000;  // a blocking one must fail here, not hang
      setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&bound_ms),
                 sizeof bound_ms);
      char byte = 0;
      CHECK_SOCKET_ERROR(recv(server, &byte, 1, 0), WSAEWOULDBLOCK);
    } else {
      OnThread sender([&] {
        Sleep(30);
        SendText(client, "x");
      });
      CHECK_EQ(RecvText(server), "x");
    }
  }
}

TEST(Tcp, AcceptedSocketInheritsNoDelay) {
  const int on = 1;
  Owned listener = Listener();
  EXPECT_EQ(
      setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on),
      0);
  Owned client = Tcp();
  EXPECT_EQ(Connect(client, LocalPort(listener)), 0);
  Owned server(accept(listener, nullptr, nullptr));
  CHECK_NE(static_cast<SOCKET>(server), INVALID_SOCKET);
  int value = 0, size = sizeof value;
  CHECK_EQ(getsockopt(server, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&value), &size), 0);
  CHECK_TRUE(value != 0);
}

TEST(Tcp, NonBlockingCallsSayWouldBlock) {
  Owned listener = Listener();
  SetNonBlocking(listener);
  CHECK_FAILS(accept(listener, nullptr, nullptr), INVALID_SOCKET, WSAEWOULDBLOCK);
  Pair pair = ConnectedPair();
  SetNonBlocking(pair.client);
  char byte = 0;
  CHECK_SOCKET_ERROR(recv(pair.client, &byte, 1, 0), WSAEWOULDBLOCK);
}

TEST(Tcp, NonBlockingSendStopsWhenTheBuffersAreFull) {
  Pair pair = ConnectedPair();
  SetNonBlocking(pair.client);
  const std::string chunk(65536, 'x');
  size_t total = 0;
  int sent = 0;
  while (total < (64u << 20) && (sent = SendText(pair.client, chunk)) > 0)
    total += static_cast<size_t>(sent);
  CHECK_EQ(sent, SOCKET_ERROR);
  CHECK_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
  CHECK_FALSE(SelectOne(pair.client, 0, false, true, false).write);
  size_t got = 0;
  while (got < total) {
    const std::string text = RecvText(pair.server, 1 << 16);
    if (text.empty() || text[0] != 'x') break;
    got += text.size();
  }
  CHECK_EQ(got, total);  // nothing lost, nothing doubled
  CHECK_TRUE(SelectOne(pair.client, 5000, false, true, false).write);
}

TEST(Tcp, BlockingSendAcceptsEverything) {
  Pair pair = ConnectedPair();
  const std::string text(4 << 20, 'y');
  OnThread sender([&] { CHECK_EQ(SendText(pair.client, text), static_cast<int>(text.size())); });
  size_t got = 0;
  while (got < text.size()) {
    const std::string part = RecvText(pair.server, 1 << 16);
    if (part.empty() || part[0] != 'y') break;
    got += part.size();
  }
  CHECK_EQ(got, text.size());
}

TEST(Tcp, HalfClosedConnectionStillCarriesTheOtherDirection) {
  Pair pair = ConnectedPair();
  CHECK_EQ(SendText(pair.client, "abc"), 3);
  CHECK_EQ(shutdown(pair.client, SD_SEND), 0);
  CHECK_EQ(RecvText(pair.server), "abc");
  CHECK_EQ(RecvText(pair.server), "");
  CHECK_EQ(RecvText(pair.server), "");  // the end stays the end
  CHECK_TRUE(SelectOne(pair.server, 0).read);
  CHECK_EQ(SendText(pair.server, "xyz"), 3);
  CHECK_EQ(RecvText(pair.client), "xyz");
  CHECK_SOCKET_ERROR(SendText(pair.client, "more"), WSAESHUTDOWN);
  CHECK_SOCKET_ERROR(shutdown(pair.client, 7), WSAEINVAL);
}

TEST(Tcp, ShutReceiveSideReceivesNothingMore) {
  Pair pair = ConnectedPair();
  CHECK_EQ(shutdown(pair.client, SD_RECEIVE), 0);
  char byte = 0;
  CHECK_SOCKET_ERROR(recv(pair.client, &byte, 1, 0), WSAESHUTDOWN);
  CHECK_EQ(SendText(pair.client, "x"), 1);
  CHECK_EQ(RecvText(pair.server), "x");
}

TEST(Tcp, OrderlyCloseEndsTheStreamAfterItsData) {
  Pair pair = ConnectedPair();
  CHECK_EQ(SendText(pair.client, "last words"), 10);
  pair.client.Close();
  EXPECT_TRUE(WaitReadable(pair.server));
  CHECK_EQ(RecvText(pair.server, 4), "last");
  CHECK_EQ(RecvText(pair.server), " words");
  CHECK_EQ(RecvText(pair.server), "");
}

TEST(Tcp, AbortiveCloseResetsThePeer) {
  Pair pair = ConnectedPair();
  LingerZero(pair.client);
  pair.client.Close();
  CHECK_TRUE(SelectOne(pair.server, 5000).read);
  if (WineDiffers("a reset that came before recv reads as an orderly end")) return;
  char byte = 0;
  CHECK_SOCKET_ERROR(recv(pair.server, &byte, 1, 0), WSAECONNRESET);
}

TEST(Tcp, LingerReadsBack) {
  Owned s = Tcp();
  struct linger value = {};
  int size = sizeof value;
  LingerZero(s);
  CHECK_EQ(getsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<char*>(&value), &size), 0);
  CHECK_EQ(size, static_cast<int>(sizeof value));
  CHECK_NE(value.l_onoff, 0);
  CHECK_EQ(value.l_linger, 0);
}

TEST(Tcp, CloseWithUnreadDataResetsThePeer) {
  Pair pair = ConnectedPair();
  EXPECT_EQ(SendText(pair.client, "never read"), 10);
  EXPECT_TRUE(WaitReadable(pair.server));
  pair.server.Close();
  CHECK_TRUE(WaitReadable(pair.client));
  if (WineDiffers("a reset that came before recv reads as an orderly end")) return;
  char byte = 0;
  CHECK_SOCKET_ERROR(recv(pair.client, &byte, 1, 0), WSAECONNRESET);
}

TEST(Tcp, PeekDoesNotRemoveTheData) {
  Pair pair = ConnectedPair();
  EXPECT_EQ(SendText(pair.client, "abc"), 3);
  EXPECT_TRUE(WaitReadable(pair.server));
  CHECK_EQ(RecvText(pair.server, 2, MSG_PEEK), "ab");
  u_long readable = 0;
  CHECK_EQ(ioctlsocket(pair.server, static_cast<long>(FIONREAD), &readable), 0);
  CHECK_EQ(readable, 3u);
  CHECK_EQ(RecvText(pair.server), "abc");
}

int SendUrgent(SOCKET s, const std::string& text) {
  return send(s, text.data(), static_cast<int>(text.size()), MSG_OOB);
}

// Exactly that many bytes, in as many calls as it takes.
std::string RecvWhole(SOCKET s, size_t size) {
  std::string text;
  while (text.size() < size) {
    const std::string more = RecvText(s, static_cast<int>(size - text.size()));
    if (more.empty() || more[0] == '<') return text + more;
    text += more;
  }
  return text;
}

TEST(Tcp, UrgentByteIsReadSeparatelyFromTheStream) {
  Pair pair = ConnectedPair();
  SetNonBlocking(pair.server);
  CHECK_EQ(RecvText(pair.server, 1, MSG_OOB), "<error 10035>");
  CHECK_EQ(SendText(pair.client, "ab"), 2);
  CHECK_EQ(SendUrgent(pair.client, "cX"), 2);  // the last byte is the urgent one
  CHECK_EQ(SendText(pair.client, "de"), 2);
  CHECK_TRUE(SelectOne(pair.server, 5000, false, false, true).except);
  CHECK_TRUE(SelectOne(pair.server, 0, false, false, true).except);  // until it is taken
  CHECK_EQ(RecvText(pair.server, 8, MSG_OOB), "X");
  CHECK_FALSE(SelectOne(pair.server, 50, false, false, true).except);
  CHECK_EQ(RecvText(pair.server, 8, MSG_OOB), "<error 10035>");
  SetNonBlocking(pair.server, false);
  CHECK_EQ(RecvWhole(pair.server, 5), "abcde");
}

TEST(Tcp, AnUrgentByteIsNoOrdinaryDataToRead) {
  Pair pair = ConnectedPair();
  CHECK_EQ(SendUrgent(pair.client, "X"), 1);
  CHECK_TRUE(SelectOne(pair.server, 5000, false, false, true).except);
  CHECK_FALSE(SelectOne(pair.server, 50, true, false, false).read);
  SetNonBlocking(pair.server);
  CHECK_EQ(RecvText(pair.server, 1, MSG_OOB), "X");
  CHECK_EQ(RecvText(pair.server), "<error 10035>");
}

TEST(Tcp, UrgentByteIsPartOfTheStreamOnRequest) {
  Owned listener = Listener();
  const int on = 1;
  CHECK_EQ(
      setsockopt(listener, SOL_SOCKET, SO_OOBINLINE, reinterpret_cast<const char*>(&on), sizeof on),
      0);
  Owned client = Tcp();
  EXPECT_EQ(Connect(client, LocalPort(listener)), 0);
  Owned server(accept(listener, nullptr, nullptr));  // inherits it
  CHECK_EQ(SendText(client, "ab"), 2);
  CHECK_EQ(SendUrgent(client, "X"), 1);
  CHECK_EQ(SendText(client, "de"), 2);
  EXPECT_TRUE(WaitReadable(server));
  CHECK_FALSE(SelectOne(server, 50, false, false, true).except);
  CHECK_EQ(RecvText(server, 1, MSG_OOB), "<error 10022>");
  CHECK_EQ(RecvWhole(server, 5), "abXde");
}

TEST(Tcp, ReceiveTimesOut) {
  Pair pair = ConnectedPair();
  const DWORD limit_ms = 80;
  CHECK_EQ(setsockopt(pair.client, SOL_SOCKET, SO_RCVTIMEO,
                      reinterpret_cast<const char*>(&limit_ms), sizeof limit_ms),
           0);
  char byte = 0;
  CHECK_SOCKET_ERROR(recv(pair.client, &byte, 1, 0), WSAETIMEDOUT);
}

TEST(Tcp, CloseWakesAThreadThatReceives) {
  Pair pair = ConnectedPair();
  const SOCKET s = pair.client.Release();
  OnThread reader([&] {
    char byte = 0;
    CHECK_EQ(recv(s, &byte, 1, 0), SOCKET_ERROR);
    CHECK_NE(WSAGetLastError(), 0);
  });
  Sleep(50);
  CHECK_EQ(closesocket(s), 0);
}

TEST(Tcp, SeveralClientsAreAcceptedInOrder) {
  Owned listener = Listener();
  Owned clients[3] = {Tcp(), Tcp(), Tcp()};
  for (Owned& client : clients) CHECK_EQ(Connect(client, LocalPort(listener)), 0);
  for (Owned& client : clients) {
    sockaddr_in peer = {};
    int size = sizeof peer;
    Owned server(accept(listener, Raw(peer), &size));
    CHECK_EQ(ntohs(peer.sin_port), LocalPort(client));
  }
}

}  // namespace
}  // namespace contract
