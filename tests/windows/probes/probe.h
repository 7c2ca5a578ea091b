// What the probe programs share. A probe does one kind of work with the native echo server of the
// bed (argument 1: its address, argument 2: its port for TCP and UDP), and prints one line for each
// result. The lines contain nothing that differs from run to run: the test compares them between
// runs with and without the library.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace probe {

inline sockaddr_in g_server = {};

inline void Say(const char* format, ...) __attribute__((format(__MINGW_PRINTF_FORMAT, 1, 2)));
inline void Say(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::printf("\n");
  std::fflush(stdout);
}

// Prints a result and, if it is a failure, the error.
inline void SayResult(const char* what, int result) {
  const int error = WSAGetLastError();
  if (result == SOCKET_ERROR) {
    Say("%s: failed with %d", what, error);
  } else {
    Say("%s: %d", what, result);
  }
}

inline sockaddr_in Address(const char* ip, u_short port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(ip);
  address.sin_port = htons(port);
  return address;
}

inline void Begin(int argc, char** argv) {
  WSADATA data;
  SayResult("WSAStartup", WSAStartup(MAKEWORD(2, 2), &data));
  if (argc < 3) {
    Say("usage: PROBE ADDRESS PORT");
    std::exit(2);
  }
  g_server = Address(argv[1], static_cast<u_short>(std::atoi(argv[2])));
}

inline int End() {
  SayResult("WSACleanup", WSACleanup());
  return 0;
}

inline const sockaddr* Server() { return reinterpret_cast<const sockaddr*>(&g_server); }

inline SOCKET NewStream() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }
inline SOCKET NewDatagram() { return socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP); }

inline SOCKET ConnectedStream() {
  const SOCKET s = NewStream();
  if (connect(s, Server(), sizeof(g_server)) != 0) {
    Say("connect failed with %d", WSAGetLastError());
    std::exit(1);
  }
  return s;
}

// A listener on the loopback interface; *address is set to its address.
inline SOCKET Listener(sockaddr_in* address) {
  const SOCKET s = NewStream();
  *address = Address("127.0.0.1", 0);
  bind(s, reinterpret_cast<sockaddr*>(address), sizeof(*address));
  int length = sizeof(*address);
  getsockname(s, reinterpret_cast<sockaddr*>(address), &length);
  listen(s, SOMAXCONN);
  return s;
}

// Receives up to `size` bytes, in any number of pieces.
inline std::string ReceiveAll(SOCKET s, size_t size) {
  std::string text;
  char buffer[4096];
  while (text.size() < size) {
    const size_t wanted = size - text.size() < sizeof(buffer) ? size - text.size() : sizeof(buffer);
    const int got = recv(s, buffer, static_cast<int>(wanted), 0);
    if (got <= 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

// A simple checksum, to compare long data in one line.
inline unsigned SumOf(const std::string& text) {
  unsigned sum = 2166136261u;
  for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 16777619u;
  return sum;
}

}  // namespace probe
