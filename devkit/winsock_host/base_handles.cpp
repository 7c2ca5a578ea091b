#include "base_handles.h"

#include <atomic>

#include "catalogue.h"

namespace winsock_base {
namespace {

std::atomic<LPWPUMODIFYIFSHANDLE> g_modify_handle = nullptr;
std::atomic<DWORD> g_stream_entry = 0;  // 0: none yet
std::atomic<DWORD> g_stream_entry_v6 = 0;

std::atomic<DWORD>* StreamEntryOf(int family) {
  return family == AF_INET6 ? &g_stream_entry_v6 : &g_stream_entry;
}

SOCKET Register(SOCKET s, DWORD entry, LPINT error) {
  const LPWPUMODIFYIFSHANDLE modify_handle = g_modify_handle;
  if (s == INVALID_SOCKET || entry == 0 || modify_handle == nullptr) return s;
  const int last_error = WSAGetLastError();
  const SOCKET registered = modify_handle(entry, s, error);
  if (registered == INVALID_SOCKET) closesocket(s);
  WSASetLastError(last_error);
  return registered;
}

}  // namespace

void UseUpcalls(const WSPUPCALLTABLE& upcalls) {
  if (upcalls.lpWPUModifyIFSHandle != nullptr) g_modify_handle = upcalls.lpWPUModifyIFSHandle;
}

SOCKET RegisterNew(SOCKET s, const WSAPROTOCOL_INFOW* info, LPINT error) {
  if (!IsOurs(info)) return s;
  if (info->iSocketType == SOCK_STREAM) {
    *StreamEntryOf(info->iAddressFamily) = info->dwCatalogEntryId;
  }
  return Register(s, info->dwCatalogEntryId, error);
}

SOCKET RegisterChild(SOCKET s, SOCKET parent, LPINT error) {
  if (s == INVALID_SOCKET || s == parent) return s;
  const int last_error = WSAGetLastError();
  sockaddr_storage name = {};
  int length = sizeof(name);
  const int result = getsockname(parent, reinterpret_cast<sockaddr*>(&name), &length);
  WSASetLastError(last_error);
  return result == 0 ? Register(s, *StreamEntryOf(name.ss_family), error) : s;
}

bool IsOurs(const WSAPROTOCOL_INFOW* info) {
  return info != nullptr && info->dwCatalogEntryId >= winsock_host::kFirstCatalogId &&
         info->dwCatalogEntryId <= winsock_host::kLastCatalogId;
}

}  // namespace winsock_base
