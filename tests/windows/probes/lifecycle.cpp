// Starts Winsock, ends it and starts it again; checks that sockets are refused in between; uses
// address families that the library does not layer.
#include "probe.h"

namespace {

void Echo() {
  const SOCKET s = probe::ConnectedStream();
  probe::SayResult("send", send(s, "alive", 5, 0));
  probe::Say("echo: %s", probe::ReceiveAll(s, 5).c_str());
  probe::SayResult("closesocket", closesocket(s));
}

void SocketOf(const char* what, int family, int type, int protocol) {
  const SOCKET s = socket(family, type, protocol);
  const int error = WSAGetLastError();
  if (s == INVALID_SOCKET) {
    probe::Say("%s: failed with %d", what, error);
    return;
  }
  probe::Say("%s: made", what);
  probe::SayResult("closesocket", closesocket(s));
}

}  // namespace

int main(int argc, char** argv) {
  SocketOf("socket before startup", AF_INET, SOCK_STREAM, IPPROTO_TCP);
  probe::Begin(argc, argv);
  WSADATA data;
  probe::SayResult("second WSAStartup", WSAStartup(MAKEWORD(1, 1), &data));
  Echo();
  probe::SayResult("first WSACleanup", WSACleanup());
  Echo();
  SocketOf("datagram of protocol 0", AF_INET, SOCK_DGRAM, 0);
  SocketOf("stream of protocol 0", AF_INET, SOCK_STREAM, 0);
  SocketOf("stream over IPv6", AF_INET6, SOCK_STREAM, IPPROTO_TCP);
  SocketOf("datagram over IPv6", AF_INET6, SOCK_DGRAM, IPPROTO_UDP);
  SocketOf("family 0", AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP);
  SocketOf("nothing said", 0, 0, 0);
  SocketOf("type 9", AF_INET, 9, 0);
  probe::SayResult("last WSACleanup", WSACleanup());
  SocketOf("socket after the last cleanup", AF_INET, SOCK_STREAM, IPPROTO_TCP);
  probe::SayResult("WSACleanup too often", WSACleanup());
  probe::SayResult("WSAStartup again", WSAStartup(MAKEWORD(2, 2), &data));
  Echo();
  return probe::End();
}
