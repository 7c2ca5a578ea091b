// The common socket calls. Compiled into a program that imports them by name, one that imports them
// by ordinal, one that uses the older Winsock library, and a DLL.
#pragma once

#include "probe.h"

namespace probe {

inline void StreamEcho() {
  const SOCKET s = NewStream();
  SayResult("first socket", s == INVALID_SOCKET ? SOCKET_ERROR : 0);
  SayResult("connect", connect(s, Server(), sizeof(g_server)));
  sockaddr_in peer = {};
  int length = sizeof(peer);
  SayResult("getpeername", getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length));
  Say("peer is the server: %d, length %d", peer.sin_port == g_server.sin_port, length);
  SayResult("send", send(s, "hello over TCP", 14, 0));
  Say("echo: %s", ReceiveAll(s, 14).c_str());
  int option = 0;
  length = sizeof(option);
  SayResult("SO_TYPE",
            getsockopt(s, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&option), &length));
  Say("type %d", option);
  option = 1;
  SayResult("TCP_NODELAY", setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&option),
                                      sizeof(option)));
  SayResult("shutdown", shutdown(s, SD_SEND));
  char byte;
  SayResult("recv after the end", recv(s, &byte, 1, 0));
  SayResult("send after shutdown", send(s, "x", 1, 0));
  SayResult("closesocket", closesocket(s));
}

inline void DatagramEcho() {
  const SOCKET s = NewDatagram();
  sockaddr_in own = {};
  int length = sizeof(own);
  SayResult("getsockname unbound", getsockname(s, reinterpret_cast<sockaddr*>(&own), &length));
  SayResult("sendto", sendto(s, "hello over UDP", 14, 0, Server(), sizeof(g_server)));
  char buffer[64] = {};
  sockaddr_in from = {};
  length = sizeof(from);
  SayResult("recvfrom", recvfrom(s, buffer, sizeof(buffer) - 1, 0,
                                 reinterpret_cast<sockaddr*>(&from), &length));
  Say("echo: %s, from the server: %d", buffer, from.sin_port == g_server.sin_port);
  SayResult("sendto a long one", sendto(s, "0123456789", 10, 0, Server(), sizeof(g_server)));
  SayResult("recvfrom into a short buffer", recvfrom(s, buffer, 4, 0, nullptr, nullptr));
  SayResult("connect", connect(s, Server(), sizeof(g_server)));
  SayResult("send", send(s, "connected", 9, 0));
  SayResult("recv", recv(s, buffer, sizeof(buffer), 0));
  SayResult("closesocket", closesocket(s));
  SayResult("closesocket again", closesocket(s));
}

// The classic event loop: non-blocking connect, then select.
inline void SelectLoop() {
  const SOCKET s = NewStream();
  u_long on = 1;
  SayResult("ioctlsocket", ioctlsocket(s, static_cast<long>(FIONBIO), &on));
  SayResult("connect", connect(s, Server(), sizeof(g_server)));
  fd_set set;
  FD_ZERO(&set);
  FD_SET(s, &set);
  timeval patience = {10, 0};
  SayResult("select for writing", select(0, nullptr, &set, nullptr, &patience));
  Say("is set: %d", FD_ISSET(s, &set) != 0);
  char buffer[64];
  SayResult("recv with nothing there", recv(s, buffer, sizeof(buffer), 0));
  SayResult("send", send(s, "looped", 6, 0));
  FD_ZERO(&set);
  FD_SET(s, &set);
  SayResult("select for reading", select(0, &set, nullptr, nullptr, &patience));
  SayResult("recv", recv(s, buffer, sizeof(buffer), 0));
  SayResult("select with no sets", select(0, nullptr, nullptr, nullptr, &patience));
  SayResult("closesocket", closesocket(s));
}

inline void Refusals() {
  const SOCKET s = NewStream();
  const sockaddr_in nobody = Address("127.0.0.1", 1);
  SayResult("connect to nobody",
            connect(s, reinterpret_cast<const sockaddr*>(&nobody), sizeof(nobody)));
  SayResult("bind with a short name", bind(s, reinterpret_cast<const sockaddr*>(&nobody), 3));
  SayResult("listen unbound", listen(s, 5));
  SayResult("send unconnected", send(s, "x", 1, 0));
  SayResult("closesocket", closesocket(s));
  SayResult("send closed", send(s, "x", 1, 0));
  const SOCKET odd = socket(AF_INET, SOCK_STREAM, IPPROTO_UDP);
  Say("stream of UDP: %s", odd == INVALID_SOCKET ? "refused" : "made");
  const SOCKET foreign = socket(77, SOCK_STREAM, 0);
  Say("family 77: %s", foreign == INVALID_SOCKET ? "refused" : "made");
}

inline void PlainWork() {
  StreamEcho();
  DatagramEcho();
  SelectLoop();
  Refusals();
}

}  // namespace probe
