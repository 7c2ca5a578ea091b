// What calls answer that make no sense.
#include "parity.h"

namespace parity {
namespace {

constexpr SOCKET kNoSocket = 0x12344;

void Creation() {
  Note("socket of an unknown family", Said(static_cast<int>(socket(99, SOCK_STREAM, 0))));
  Note("socket of an unknown type", Said(static_cast<int>(socket(AF_INET, 99, 0))));
  Note("socket of an unknown protocol", Said(static_cast<int>(socket(AF_INET, SOCK_STREAM, 99))));
  Note("a stream of UDP", Said(static_cast<int>(socket(AF_INET, SOCK_STREAM, IPPROTO_UDP))));
  Note("a datagram socket of TCP",
       Said(static_cast<int>(socket(AF_INET, SOCK_DGRAM, IPPROTO_TCP))));
  const Socket plain(socket(AF_INET, SOCK_STREAM, 0));
  Note("a stream without a protocol", YesNo(plain != INVALID_SOCKET));
}

void CallsWithoutASocket() {
  char byte = 0;
  int size = sizeof(sockaddr_in);
  sockaddr_in address = Address(kServerIp, kPort);
  u_long mode = 0;
  Note("send on no socket", Said(send(kNoSocket, &byte, 1, 0)));
  Note("sendto on no socket", Said(sendto(kNoSocket, &byte, 1, 0, Of(address), size)));
  Note("recv on no socket", Said(recv(kNoSocket, &byte, 1, 0)));
  Note("recvfrom on no socket", Said(recvfrom(kNoSocket, &byte, 1, 0, Of(address), &size)));
  Note("connect of no socket", Said(connect(kNoSocket, Of(address), size)));
  Note("bind of no socket", Said(bind(kNoSocket, Of(address), size)));
  Note("listen on no socket", Said(listen(kNoSocket, 1)));
  Note("accept on no socket", Said(static_cast<int>(accept(kNoSocket, nullptr, nullptr))));
  Note("getsockname of no socket", Said(getsockname(kNoSocket, Of(address), &size)));
  Note("getpeername of no socket", Said(getpeername(kNoSocket, Of(address), &size)));
  Note("ioctlsocket of no socket", Said(ioctlsocket(kNoSocket, static_cast<long>(FIONBIO), &mode)));
  Note("shutdown of no socket", Said(shutdown(kNoSocket, SD_BOTH)));
  Note("closesocket of no socket", Said(closesocket(kNoSocket)));
  Note("select with no socket", Ready(kNoSocket, 0));
  Note("WSAIoctl of no socket", Said(WSAIoctl(kNoSocket, SIO_KEEPALIVE_VALS, nullptr, 0, nullptr, 0,
                                              nullptr, nullptr, nullptr)));
}

void Addresses() {
  const sockaddr_in server = Address(kServerIp, kPort);
  const sockaddr_in any = Address("0.0.0.0", 0);
  Note("connect with a short address", Said(connect(NewStream(), Of(server), 8)));
  Note("bind with a short address", Said(bind(NewStream(), Of(any), 8)));
  Note("bind to an address of another machine",
       Said(bind(NewStream(), Of(Address(kNobodyIp, 0)), sizeof any)));
  Note("connect to port 0", Said(connect(NewStream(), Of(Address(kServerIp, 0)), sizeof any)));
  sockaddr_in foreign = server;
  foreign.sin_family = 77;
  Note("connect to an unknown family", Said(connect(NewStream(), Of(foreign), sizeof foreign)));
  sockaddr_in6 six = {};
  six.sin6_family = AF_INET6;
  Note("connect of an IPv4 socket to an IPv6 address",
       Said(connect(NewStream(), reinterpret_cast<sockaddr*>(&six), sizeof six)));
  sockaddr_in room = {};
  int size = 4;
  const Peer peer = Ask("echo");
  Note("getpeername with too little room", Said(getpeername(peer.s, Of(room), &size)));
  size = 4;
  Note("getsockname with too little room", Said(getsockname(peer.s, Of(room), &size)));
}

void Ended() {
  Socket s = NewStream();
  const SOCKET value = s;
  Note("closesocket", Said(s.Close()));
  Note("closesocket again", Said(closesocket(value)));
  WSASetLastError(10042);
  Note("the last error is the program's own", ErrorText(WSAGetLastError()));
  WSADATA data;
  Note("WSAStartup once more", Said(WSAStartup(MAKEWORD(2, 2), &data)));
  Note("WSACleanup of that one", Said(WSACleanup()));
  const Peer peer = Ask("echo");
  Send(peer.s, "still here");
  Note("Winsock works on", Receive(peer.s));
}

}  // namespace

void Arguments() {
  Creation();
  CallsWithoutASocket();
  Addresses();
  Ended();
}

}  // namespace parity
