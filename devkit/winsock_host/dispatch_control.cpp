#include <cstddef>
#include <cstring>
#include <initializer_list>

#include "dispatch.h"
#include "finish.h"
#include "owners.h"

namespace winsock_host {
namespace {

// Winsock lets the provider of the first socket in the sets serve the whole call; sets without a
// socket go to the platform.
const Provider& ProviderOfSets(const fd_set* reads, const fd_set* writes, const fd_set* excepts) {
  for (const fd_set* set : {reads, writes, excepts}) {
    if (set != nullptr && set->fd_count != 0) return OwnerOf(set->fd_array[0]);
  }
  return ProviderOfStrangers();
}

// The platform does not know our entries: a socket's own description gets the flags of the entry
// that made it.
void ShowEntry(const Provider& provider, int option, char* value) {
  static_assert(offsetof(WSAPROTOCOL_INFOW, dwServiceFlags1) == 0);
  static_assert(offsetof(WSAPROTOCOL_INFOA, dwServiceFlags1) == 0);
  if (option != SO_PROTOCOL_INFOW && option != SO_PROTOCOL_INFOA) return;
  std::memcpy(value, &provider.info.dwServiceFlags1, sizeof provider.info.dwServiceFlags1);
}

}  // namespace

int WSAAPI Bind(SOCKET s, const sockaddr* name, int length) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPBind(s, name, length, &error);
  return Finish(provider, kBind, result, error);
}

int WSAAPI Connect(SOCKET s, const sockaddr* name, int length) {
  return ConnectWithData(s, name, length, nullptr, nullptr, nullptr, nullptr);
}

int WSAAPI ConnectWithData(SOCKET s, const sockaddr* name, int length, LPWSABUF caller,
                           LPWSABUF callee, LPQOS sqos, LPQOS gqos) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result =
      provider.table.lpWSPConnect(s, name, length, caller, callee, sqos, gqos, &error);
  return Finish(provider, kConnect, result, error);
}

int WSAAPI Listen(SOCKET s, int backlog) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPListen(s, backlog, &error);
  return Finish(provider, kListen, result, error);
}

int WSAAPI Shutdown(SOCKET s, int how) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPShutdown(s, how, &error);
  return Finish(provider, kShutdown, result, error);
}

int WSAAPI GetPeerName(SOCKET s, sockaddr* name, int* length) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPGetPeerName(s, name, length, &error);
  return Finish(provider, kGetPeerName, result, error);
}

int WSAAPI GetSockName(SOCKET s, sockaddr* name, int* length) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPGetSockName(s, name, length, &error);
  return Finish(provider, kGetSockName, result, error);
}

int WSAAPI GetSockOpt(SOCKET s, int level, int option, char* value, int* length) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPGetSockOpt(s, level, option, value, length, &error);
  if (result == 0 && level == SOL_SOCKET && &provider != &DirectProvider()) {
    ShowEntry(provider, option, value);
  }
  return Finish(provider, kGetSockOpt, result, error);
}

int WSAAPI SetSockOpt(SOCKET s, int level, int option, const char* value, int length) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPSetSockOpt(s, level, option, value, length, &error);
  return Finish(provider, kSetSockOpt, result, error);
}

int WSAAPI IoctlSocket(SOCKET s, long command, u_long* argument) {
  DWORD returned = 0;
  return Ioctl(s, static_cast<DWORD>(command), argument, sizeof(*argument), argument,
               sizeof(*argument), &returned, nullptr, nullptr);
}

int WSAAPI Ioctl(SOCKET s, DWORD code, LPVOID in, DWORD in_bytes, LPVOID out, DWORD out_bytes,
                 LPDWORD returned, LPWSAOVERLAPPED overlapped,
                 LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  const Provider& provider = OwnerOf(s);
  CallingThread thread;
  int error = 0;
  const int result = provider.table.lpWSPIoctl(s, code, in, in_bytes, out, out_bytes, returned,
                                               overlapped, routine, &thread.id, &error);
  return Finish(provider, kIoctl, result, error);
}

int WSAAPI Select(int n, fd_set* reads, fd_set* writes, fd_set* excepts, const timeval* timeout) {
  const Provider& provider = ProviderOfSets(reads, writes, excepts);
  int error = 0;
  const int result =
      provider.table.lpWSPSelect(n, reads, writes, excepts, const_cast<timeval*>(timeout), &error);
  return Finish(provider, kSelect, result, error);
}

int WSAAPI AsyncSelect(SOCKET s, HWND window, u_int message, long events) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPAsyncSelect(s, window, message, events, &error);
  return Finish(provider, kAsyncSelect, result, error);
}

int WSAAPI EventSelect(SOCKET s, WSAEVENT event, long events) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPEventSelect(s, event, events, &error);
  return Finish(provider, kEventSelect, result, error);
}

int WSAAPI EnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPEnumNetworkEvents(s, event, events, &error);
  return Finish(provider, kEnumNetworkEvents, result, error);
}

BOOL WSAAPI GetQosByName(SOCKET s, LPWSABUF name, LPQOS qos) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const BOOL result = provider.table.lpWSPGetQOSByName(s, name, qos, &error);
  return Finish<BOOL>(provider, kGetQosByName, result, FALSE, error);
}

}  // namespace winsock_host
