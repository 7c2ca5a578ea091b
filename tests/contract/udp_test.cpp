// Datagrams.
#include "tests/contract/world.h"

namespace contract {
namespace {

struct Received {
  int result;
  int error;
  std::string text;
  unsigned port;
};

Received ReceiveFrom(SOCKET s, int most = 4096) {
  EXPECT_TRUE(WaitReadable(s));
  Received got = {};
  got.text.resize(static_cast<size_t>(most));
  sockaddr_in from = {};
  int size = sizeof from;
  WSASetLastError(0);
  got.result = recvfrom(s, got.text.data(), most, 0, Raw(from), &size);
  got.error = WSAGetLastError();
  if (got.result >= 0) got.text.resize(static_cast<size_t>(got.result));
  got.port = ntohs(from.sin_port);
  return got;
}

TEST(Udp, ReportsTheSender) {
  Owned a = BoundUdp(), b = BoundUdp();
  CHECK_EQ(SendTextTo(a, "hello", LocalPort(b)), 5);
  const Received got = ReceiveFrom(b);
  CHECK_EQ(got.text, "hello");
  CHECK_EQ(got.port, LocalPort(a));
  CHECK_EQ(SendTextTo(a, "", LocalPort(b)), 0);  // an empty datagram is one
  CHECK_EQ(ReceiveFrom(b).result, 0);
}

TEST(Udp, SendingBinds) {
  Owned a = Udp(), b = BoundUdp();
  sockaddr_in name = {};
  int size = sizeof name;
  CHECK_SOCKET_ERROR(getsockname(a, Raw(name), &size), WSAEINVAL);
  char byte = 0;
  if (!WineDiffers("recvfrom on an unbound socket waits for ever")) {
    CHECK_SOCKET_ERROR(recvfrom(a, &byte, 1, 0, nullptr, nullptr), WSAEINVAL);
  }
  CHECK_EQ(SendTextTo(a, "x", LocalPort(b)), 1);
  CHECK_NE(LocalPort(a), 0u);
  CHECK_EQ(ReceiveFrom(b).port, LocalPort(a));
}

TEST(Udp, OversizeDatagramFillsTheBufferAndIsAnError) {
  Owned a = BoundUdp(), b = BoundUdp();
  SendTextTo(a, "0123456789", LocalPort(b));
  SendTextTo(a, "next", LocalPort(b));
  const Received cut = ReceiveFrom(b, 4);
  CHECK_EQ(cut.result, SOCKET_ERROR);
  CHECK_EQ(cut.error, WSAEMSGSIZE);
  CHECK_EQ(cut.text, "0123");
  CHECK_EQ(ReceiveFrom(b).text, "next");  // the rest is gone
}

TEST(Udp, OversizeDatagramStillReportsTheSender) {
  Owned a = BoundUdp(), b = BoundUdp();
  SendTextTo(a, "0123456789", LocalPort(b));
  CHECK_EQ(ReceiveFrom(b, 4).port, LocalPort(a));
}

TEST(Udp, DatagramTooLargeToSendIs10040) {
  Owned a = BoundUdp(), b = BoundUdp();
  CHECK_SOCKET_ERROR(SendTextTo(a, std::string(70'000, 'x'), LocalPort(b)), WSAEMSGSIZE);
}

TEST(Udp, PeekDoesNotRemoveTheDatagram) {
  Owned a = BoundUdp(), b = BoundUdp();
  SendTextTo(a, "abc", LocalPort(b));
  EXPECT_TRUE(WaitReadable(b));
  CHECK_EQ(RecvText(b, 10, MSG_PEEK), "abc");
  CHECK_EQ(RecvText(b, 10), "abc");
}

TEST(Udp, ConnectedSocketReceivesFromItsPeerOnly) {
  Owned a = BoundUdp(), b = BoundUdp(), stranger = BoundUdp();
  CHECK_EQ(Connect(a, LocalPort(b)), 0);
  CHECK_EQ(SendTextTo(stranger, "no", LocalPort(a)), 2);
  CHECK_EQ(SendTextTo(b, "yes", LocalPort(a)), 3);
  EXPECT_TRUE(WaitReadable(a));
  CHECK_EQ(RecvText(a), "yes");
  CHECK_EQ(SendText(a, "reply"), 5);
  CHECK_EQ(ReceiveFrom(b).text, "reply");
  sockaddr_in peer = {};
  int size = sizeof peer;
  CHECK_EQ(getpeername(a, Raw(peer), &size), 0);
  CHECK_EQ(ntohs(peer.sin_port), LocalPort(b));
}

TEST(Udp, UnconnectedSocketHasNoDestination) {
  Owned a = BoundUdp();
  if (!WineDiffers("send on an unconnected datagram socket is 10022")) {
    CHECK_SOCKET_ERROR(SendText(a, "x"), WSAENOTCONN);
  }
  sockaddr_in peer = {};
  int size = sizeof peer;
  CHECK_SOCKET_ERROR(getpeername(a, Raw(peer), &size), WSAENOTCONN);
}

TEST(Udp, UnreachablePeerShowsAsAResetAtTheNextReceive) {
  if (WineDiffers("nothing is told about an unreachable loopback peer")) return;
  Owned dead = BoundUdp();
  const unsigned port = LocalPort(dead);
  dead.Close();
  Owned a = BoundUdp();
  CHECK_EQ(SendTextTo(a, "x", port), 1);
  CHECK_TRUE(WaitReadable(a));
  char byte = 0;
  CHECK_SOCKET_ERROR(recvfrom(a, &byte, 1, 0, nullptr, nullptr), WSAECONNRESET);
  SetNonBlocking(a);
  CHECK_SOCKET_ERROR(recvfrom(a, &byte, 1, 0, nullptr, nullptr), WSAEWOULDBLOCK);  // told once
  Owned b = BoundUdp();
  CHECK_EQ(SendTextTo(a, "y", LocalPort(b)), 1);  // and the socket goes on
  CHECK_EQ(ReceiveFrom(b).text, "y");
}

TEST(Udp, TheUnspecifiedAddressIsNotADestination) {
  Owned a = BoundUdp();
  const sockaddr_in nobody = Address("0.0.0.0", 9);
  if (WineDiffers("a socket on loopback sends to 0.0.0.0")) return;
  CHECK_SOCKET_ERROR(sendto(a, "x", 1, 0, Raw(nobody), sizeof nobody), WSAEADDRNOTAVAIL);
}

TEST(Udp, DestinationNeedsACompleteAddress) {
  Owned a = BoundUdp();
  const sockaddr_in to = Loopback(9);
  CHECK_SOCKET_ERROR(sendto(a, "x", 1, 0, Raw(to), 4), WSAEFAULT);
}

TEST(Udp, PortIsBoundOnce) {
  Owned a = BoundUdp(), b = Udp();
  const sockaddr_in taken = Loopback(LocalPort(a));
  CHECK_SOCKET_ERROR(bind(b, Raw(taken), sizeof taken), WSAEADDRINUSE);
}

TEST(Udp, DoesNotListenOrAccept) {
  Owned a = BoundUdp();
  CHECK_SOCKET_ERROR(listen(a, 5), WSAEOPNOTSUPP);
  CHECK_FAILS(accept(a, nullptr, nullptr), INVALID_SOCKET, WSAEOPNOTSUPP);
}

TEST(Udp, KeepsDatagramsApartAndInOrder) {
  Owned a = BoundUdp(), b = BoundUdp();
  for (int i = 0; i < 20; ++i) SendTextTo(a, std::to_string(i), LocalPort(b));
  for (int i = 0; i < 20; ++i) CHECK_EQ(ReceiveFrom(b).text, std::to_string(i));
}

}  // namespace
}  // namespace contract
