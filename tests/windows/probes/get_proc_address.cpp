// Imports nothing from Winsock: looks up names and ordinals at run time, like language runtimes
// with a system layer of their own.
#include <windows.h>
#include <winsock2.h>

#include <cstdio>
#include <cstdlib>

namespace {

HMODULE g_winsock;

template <typename Function>
Function Find(const char* name, WORD ordinal = 0) {
  return reinterpret_cast<Function>(reinterpret_cast<void*>(
      GetProcAddress(g_winsock, ordinal != 0 ? MAKEINTRESOURCEA(ordinal) : name)));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  g_winsock = LoadLibraryA("ws2_32.dll");
  const auto startup = Find<int(WSAAPI*)(WORD, LPWSADATA)>("", 115);
  const auto socket_w =
      Find<SOCKET(WSAAPI*)(int, int, int, LPWSAPROTOCOL_INFOW, GROUP, DWORD)>("WSASocketW");
  const auto connect_by_ordinal = Find<int(WSAAPI*)(SOCKET, const sockaddr*, int)>("", 4);
  const auto send_buffers =
      Find<int(WSAAPI*)(SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, LPWSAOVERLAPPED,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE)>("WSASend");
  const auto receive = Find<int(WSAAPI*)(SOCKET, char*, int, int)>("recv");
  const auto close_socket = Find<int(WSAAPI*)(SOCKET)>("", 3);
  const auto parse = Find<u_long(WSAAPI*)(const char*)>("inet_addr");
  const auto swap = Find<u_short(WSAAPI*)(u_short)>("htons");
  const auto last_error = Find<int(WSAAPI*)()>("WSAGetLastError");

  WSADATA data;
  std::printf("startup %d\n", startup(MAKEWORD(2, 2), &data));
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_addr.s_addr = parse(argv[1]);
  server.sin_port = swap(static_cast<u_short>(std::atoi(argv[2])));
  const SOCKET s = socket_w(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
  std::printf("connect %d\n",
              connect_by_ordinal(s, reinterpret_cast<sockaddr*>(&server), sizeof(server)));
  char text[] = "found at run time";
  WSABUF buffer = {17, text};
  DWORD sent = 0;
  std::printf("send %d", send_buffers(s, &buffer, 1, &sent, 0, nullptr, nullptr));
  std::printf(" sent %lu\n", sent);
  char echo[32] = {};
  int got = 0;
  while (got < 17) {
    const int part = receive(s, echo + got, 17 - got, 0);
    if (part <= 0) break;
    got += part;
  }
  std::printf("echo %d %s\n", got, echo);
  std::printf("close %d\n", close_socket(s));
  std::printf("close again %d\n", close_socket(s));
  std::printf("error %d\n", last_error());
  return 0;
}
