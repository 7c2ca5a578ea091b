#include <mswsock.h>

#include <cstring>

#include "dispatch.h"
#include "finish.h"
#include "owners.h"
#include "startup.h"

namespace winsock_host {
namespace {

SOCKET MakeSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                  DWORD flags) {
  if (info != nullptr) {
    if (family == FROM_PROTOCOL_INFO) family = info->iAddressFamily;
    if (type == FROM_PROTOCOL_INFO) type = info->iSocketType;
    if (protocol == FROM_PROTOCOL_INFO) protocol = info->iProtocol;
  }
  if (!IsStarted()) {
    WSASetLastError(WSANOTINITIALISED);
    return INVALID_SOCKET;
  }
  int error = 0;
  const Provider* provider = ProviderForNewSocket(family, type, protocol, &error);
  if (provider == nullptr) {
    WSASetLastError(error);
    return INVALID_SOCKET;
  }
  WSAPROTOCOL_INFOW entry;
  LPWSAPROTOCOL_INFOW passed = info;
  if (provider != &DirectProvider()) {
    // An info of the program's own comes from the platform's catalogue or from a duplicated socket:
    // it stays as it is except for the entry's id, under which the handle is registered.
    entry = info != nullptr ? *info : provider->info;
    entry.dwCatalogEntryId = provider->info.dwCatalogEntryId;
    passed = &entry;
  }
  const SOCKET s =
      provider->table.lpWSPSocket(family, type, protocol, passed, group, flags, &error);
  return Finish<SOCKET>(*provider, kSocket, s, INVALID_SOCKET, error);
}

// A thread can ask for sockets that are not overlapped; the platform stores that setting.
DWORD FlagsOfPlainSockets() {
  const int last_error = WSAGetLastError();
  int open_type = 0;
  int length = sizeof(open_type);
  const int result = getsockopt(INVALID_SOCKET, SOL_SOCKET, SO_OPENTYPE,
                                reinterpret_cast<char*>(&open_type), &length);
  WSASetLastError(last_error);
  return result == 0 && open_type != 0 ? 0 : WSA_FLAG_OVERLAPPED;
}

// The two forms of the record differ in their last field only.
void CopyHead(void* to, const void* from) {
  std::memcpy(to, from, offsetof(WSAPROTOCOL_INFOW, szProtocol));
}
static_assert(offsetof(WSAPROTOCOL_INFOW, szProtocol) == offsetof(WSAPROTOCOL_INFOA, szProtocol));

}  // namespace

SOCKET WSAAPI Socket(int family, int type, int protocol) {
  return MakeSocket(family, type, protocol, nullptr, 0, FlagsOfPlainSockets());
}

SOCKET WSAAPI SocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info, GROUP group,
                      DWORD flags) {
  if (info == nullptr) return MakeSocket(family, type, protocol, nullptr, group, flags);
  WSAPROTOCOL_INFOW wide = {};
  CopyHead(&wide, info);
  MultiByteToWideChar(CP_ACP, 0, info->szProtocol, -1, wide.szProtocol, WSAPROTOCOL_LEN);
  return MakeSocket(family, type, protocol, &wide, group, flags);
}

SOCKET WSAAPI SocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                      DWORD flags) {
  return MakeSocket(family, type, protocol, info, group, flags);
}

SOCKET WSAAPI Accept(SOCKET s, sockaddr* addr, int* length) {
  return AcceptConditional(s, addr, length, nullptr, 0);
}

SOCKET WSAAPI AcceptConditional(SOCKET s, sockaddr* addr, int* length, LPCONDITIONPROC condition,
                                DWORD_PTR data) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const SOCKET accepted = provider.table.lpWSPAccept(s, addr, length, condition, data, &error);
  return Finish<SOCKET>(provider, kAccept, accepted, INVALID_SOCKET, error);
}

SOCKET WSAAPI JoinLeaf(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                       LPQOS sqos, LPQOS gqos, DWORD flags) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const SOCKET leaf =
      provider.table.lpWSPJoinLeaf(s, name, length, caller, callee, sqos, gqos, flags, &error);
  return Finish<SOCKET>(provider, kJoinLeaf, leaf, INVALID_SOCKET, error);
}

int WSAAPI CloseSocket(SOCKET s) {
  // Forgotten before the close: the value may come back for another thread's socket at once.
  const Provider* owner = Disown(s);
  const Provider& provider = owner != nullptr ? *owner : ProviderOfStrangers();
  int error = 0;
  const int result = provider.table.lpWSPCloseSocket(s, &error);
  if (result == SOCKET_ERROR && owner != nullptr && error != WSAENOTSOCK) Own(s, *owner);
  return Finish(provider, kCloseSocket, result, error);
}

int WSAAPI DuplicateSocketA(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOA info) {
  WSAPROTOCOL_INFOW wide = {};
  const int result = DuplicateSocketW(s, process, info != nullptr ? &wide : nullptr);
  if (result == 0 && info != nullptr) {
    CopyHead(info, &wide);
    WideCharToMultiByte(CP_ACP, 0, wide.szProtocol, -1, info->szProtocol, sizeof(info->szProtocol),
                        nullptr, nullptr);
  }
  return result;
}

int WSAAPI DuplicateSocketW(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOW info) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPDuplicateSocket(s, process, info, &error);
  return Finish(provider, kDuplicateSocket, result, error);
}

}  // namespace winsock_host
