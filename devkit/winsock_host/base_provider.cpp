// winsock_base.dll: a base provider whose thirty entries are the platform's own Winsock calls. It
// stands at the bottom of the chain where the platform's real base provider cannot be loaded
// through its path. The host never touches this module's imports, so these calls always reach the
// platform. Each start of it is a start of the platform's Winsock, which lasts until as many
// cleanups have come: a layer that does not pass them on keeps its sockets open, as on Windows.
//
// Every entry leaves the last error as the platform's call left it, on success too: a program
// must not be able to tell the chain from a direct call.

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <cwchar>

#include "base_handles.h"
#include "merged_select.h"

namespace {

using winsock_base::IsOurs;
using winsock_base::MergedSelect;
using winsock_base::RegisterChild;
using winsock_base::RegisterNew;

template <typename Result>
Result Report(Result result, Result failure, LPINT error) {
  const int last_error = WSAGetLastError();
  if (result == failure && error != nullptr) *error = last_error;
  return result;
}
int Report(int result, LPINT error) { return Report(result, SOCKET_ERROR, error); }

SOCKET WSPAPI Accept(SOCKET s, sockaddr* addr, LPINT length, LPCONDITIONPROC condition,
                     DWORD_PTR data, LPINT error) {
  const SOCKET accepted =
      Report<SOCKET>(WSAAccept(s, addr, length, condition, data), INVALID_SOCKET, error);
  return RegisterChild(accepted, s, error);
}

INT WSPAPI AddressToString(LPSOCKADDR address, DWORD length, LPWSAPROTOCOL_INFOW, LPWSTR text,
                           LPDWORD text_length, LPINT error) {
  return Report(WSAAddressToStringW(address, length, nullptr, text, text_length), error);
}

int WSPAPI AsyncSelect(SOCKET s, HWND window, unsigned message, long events, LPINT error) {
  return Report(WSAAsyncSelect(s, window, message, events), error);
}

int WSPAPI Bind(SOCKET s, const sockaddr* name, int length, LPINT error) {
  return Report(bind(s, name, length), error);
}

int WSPAPI CancelBlockingCall(LPINT error) { return Report(WSACancelBlockingCall(), error); }

int WSPAPI Cleanup(LPINT error) { return Report(WSACleanup(), error); }

int WSPAPI CloseSocket(SOCKET s, LPINT error) { return Report(closesocket(s), error); }

int WSPAPI Connect(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                   LPQOS sqos, LPQOS gqos, LPINT error) {
  return Report(WSAConnect(s, name, length, caller, callee, sqos, gqos), error);
}

int WSPAPI DuplicateSocket(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOW info, LPINT error) {
  return Report(WSADuplicateSocketW(s, process, info), error);
}

int WSPAPI EnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events, LPINT error) {
  return Report(WSAEnumNetworkEvents(s, event, events), error);
}

int WSPAPI EventSelect(SOCKET s, WSAEVENT event, long events, LPINT error) {
  return Report(WSAEventSelect(s, event, events), error);
}

BOOL WSPAPI GetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                LPDWORD flags, LPINT error) {
  return Report<BOOL>(WSAGetOverlappedResult(s, overlapped, bytes, wait, flags), FALSE, error);
}

int WSPAPI GetPeerName(SOCKET s, sockaddr* name, LPINT length, LPINT error) {
  return Report(getpeername(s, name, length), error);
}

int WSPAPI GetSockName(SOCKET s, sockaddr* name, LPINT length, LPINT error) {
  return Report(getsockname(s, name, length), error);
}

int WSPAPI GetSockOpt(SOCKET s, int level, int option, char* value, LPINT length, LPINT error) {
  return Report(getsockopt(s, level, option, value, length), error);
}

BOOL WSPAPI GetQosByName(SOCKET s, LPWSABUF name, LPQOS qos, LPINT error) {
  return Report<BOOL>(WSAGetQOSByName(s, name, qos), FALSE, error);
}

int WSPAPI Ioctl(SOCKET s, DWORD code, LPVOID in, DWORD in_bytes, LPVOID out, DWORD out_bytes,
                 LPDWORD returned, LPWSAOVERLAPPED overlapped,
                 LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID, LPINT error) {
  return Report(WSAIoctl(s, code, in, in_bytes, out, out_bytes, returned, overlapped, routine),
                error);
}

SOCKET WSPAPI JoinLeaf(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                       LPQOS sqos, LPQOS gqos, DWORD flags, LPINT error) {
  const SOCKET leaf = Report<SOCKET>(
      WSAJoinLeaf(s, name, length, caller, callee, sqos, gqos, flags), INVALID_SOCKET, error);
  return RegisterChild(leaf, s, error);
}

int WSPAPI Listen(SOCKET s, int backlog, LPINT error) { return Report(listen(s, backlog), error); }

int WSPAPI Recv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                LPWSATHREADID, LPINT error) {
  return Report(WSARecv(s, buffers, count, received, flags, overlapped, routine), error);
}

int WSPAPI RecvDisconnect(SOCKET s, LPWSABUF data, LPINT error) {
  return Report(WSARecvDisconnect(s, data), error);
}

int WSPAPI RecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                    sockaddr* from, LPINT from_length, LPWSAOVERLAPPED overlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID, LPINT error) {
  return Report(
      WSARecvFrom(s, buffers, count, received, flags, from, from_length, overlapped, routine),
      error);
}

int WSPAPI Select(int n, fd_set* reads, fd_set* writes, fd_set* excepts, const PTIMEVAL timeout,
                  LPINT error) {
  return Report(MergedSelect(n, reads, writes, excepts, timeout), error);
}

int WSPAPI Send(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                LPWSATHREADID, LPINT error) {
  return Report(WSASend(s, buffers, count, sent, flags, overlapped, routine), error);
}

int WSPAPI SendDisconnect(SOCKET s, LPWSABUF data, LPINT error) {
  return Report(WSASendDisconnect(s, data), error);
}

int WSPAPI SendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                  const sockaddr* to, int to_length, LPWSAOVERLAPPED overlapped,
                  LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID, LPINT error) {
  return Report(WSASendTo(s, buffers, count, sent, flags, to, to_length, overlapped, routine),
                error);
}

int WSPAPI SetSockOpt(SOCKET s, int level, int option, const char* value, int length, LPINT error) {
  return Report(setsockopt(s, level, option, value, length), error);
}

int WSPAPI Shutdown(SOCKET s, int how, LPINT error) { return Report(shutdown(s, how), error); }

// An info of our own catalogue means nothing to the platform; one made by duplicating a socket
// carries the handle, in words that are reserved, and must go through.
bool MeansSomethingToThePlatform(const WSAPROTOCOL_INFOW* info) {
  return !IsOurs(info) || info->dwServiceFlags3 != 0 || info->dwServiceFlags4 != 0 ||
         info->dwProviderReserved != 0;
}

SOCKET WSPAPI Socket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                     DWORD flags, LPINT error) {
  const LPWSAPROTOCOL_INFOW passed = MeansSomethingToThePlatform(info) ? info : nullptr;
  const SOCKET s = Report<SOCKET>(WSASocketW(family, type, protocol, passed, group, flags),
                                  INVALID_SOCKET, error);
  return RegisterNew(s, info, error);
}

INT WSPAPI StringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW, LPSOCKADDR address,
                           LPINT length, LPINT error) {
  return Report(WSAStringToAddressW(text, family, nullptr, address, length), error);
}

constexpr WSPPROC_TABLE kTable = {Accept,
                                  AddressToString,
                                  AsyncSelect,
                                  Bind,
                                  CancelBlockingCall,
                                  Cleanup,
                                  CloseSocket,
                                  Connect,
                                  DuplicateSocket,
                                  EnumNetworkEvents,
                                  EventSelect,
                                  GetOverlappedResult,
                                  GetPeerName,
                                  GetSockName,
                                  GetSockOpt,
                                  GetQosByName,
                                  Ioctl,
                                  JoinLeaf,
                                  Listen,
                                  Recv,
                                  RecvDisconnect,
                                  RecvFrom,
                                  Select,
                                  Send,
                                  SendDisconnect,
                                  SendTo,
                                  SetSockOpt,
                                  Shutdown,
                                  Socket,
                                  StringToAddress};

}  // namespace

extern "C" int WSPAPI WSPStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info,
                                 WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE table) {
  if (info == nullptr || data == nullptr || table == nullptr) return WSAEPROVIDERFAILEDINIT;
  if (version < MAKEWORD(2, 2) && LOBYTE(version) < 2) return WSAVERNOTSUPPORTED;
  WSADATA platform = {};
  if (const int result = WSAStartup(MAKEWORD(2, 2), &platform); result != 0) return result;
  winsock_base::UseUpcalls(upcalls);
  *data = {};
  data->wVersion = MAKEWORD(2, 2);
  data->wHighVersion = MAKEWORD(2, 2);
  std::wcscpy(data->szDescription, L"platform Winsock");
  *table = kTable;
  return 0;
}
