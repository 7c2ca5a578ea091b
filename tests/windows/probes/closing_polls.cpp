// Waits with select for connections that their peer ends at any moment, each of them both in the
// set to read and in the set of exceptions, with a short limit: what a loop over many sockets does.
//
//   closing_polls ADDRESS PORT CONNECTIONS
#include <winsock2.h>

#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr unsigned kAtOnce = 40;

SOCKET ConnectedSocket(const sockaddr_in& server) {
  const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (connect(s, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    std::printf("connect: error %d\n", WSAGetLastError());
    std::exit(1);
  }
  shutdown(s, SD_SEND);  // the peer's end is the end of both directions then
  return s;
}

void Remove(fd_set* set, SOCKET s) {
  for (u_int i = 0; i < set->fd_count; ++i) {
    if (set->fd_array[i] == s) set->fd_array[i] = set->fd_array[--set->fd_count];
  }
}

}  // namespace

int main(int argc, char** argv) {
  WSADATA data;
  if (argc < 4 || WSAStartup(MAKEWORD(2, 2), &data) != 0) return 2;
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_addr.s_addr = inet_addr(argv[1]);
  server.sin_port = htons(static_cast<u_short>(std::atoi(argv[2])));
  const int wanted = std::atoi(argv[3]);
  fd_set open;
  FD_ZERO(&open);
  int begun = 0, ended = 0;
  while (ended < wanted) {
    if (begun < wanted && open.fd_count < kAtOnce) {
      open.fd_array[open.fd_count++] = ConnectedSocket(server);
      ++begun;
    }
    fd_set reads = open, excepts = open;
    timeval limit = {0, 1000};
    if (select(0, &reads, nullptr, &excepts, &limit) == SOCKET_ERROR) {
      std::printf("select: error %d\n", WSAGetLastError());
      return 1;
    }
    for (u_int i = 0; i < reads.fd_count; ++i) {
      char byte;
      if (recv(reads.fd_array[i], &byte, 1, 0) > 0) continue;
      Remove(&open, reads.fd_array[i]);
      closesocket(reads.fd_array[i]);
      ++ended;
    }
  }
  std::printf("%d connections have ended\n", ended);
  WSACleanup();
  return 0;
}
