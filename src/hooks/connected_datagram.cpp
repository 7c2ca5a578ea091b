#include "hooks/connected_datagram.h"

#include <cstring>

#include "common/log.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kSize = sizeof(sockaddr_in);
// SIO_ROUTING_INTERFACE_QUERY: the address from which a socket that is not bound reaches another.
constexpr DWORD kQueryInterface = 0xc8000014;

bool IsMended() noexcept { return GetMending().ConnectsDatagrams(); }

// The address that the socket would have towards its peer without the relay; 0 if nobody knows.
u32 OwnAddress(const SocketRecord& record, const WSPPROC_TABLE& next) noexcept {
  if (next.lpWSPIoctl == nullptr) return 0;
  sockaddr_in peer = record.handled_addr;
  sockaddr_in own = {};
  DWORD returned = 0;
  INT error = 0;
  WSATHREADID thread{GetCurrentThread(), 0};
  const int result = next.lpWSPIoctl(record.socket, kQueryInterface, &peer, sizeof peer, &own,
                                     sizeof own, &returned, nullptr, nullptr, &thread, &error);
  return result == 0 ? static_cast<u32>(own.sin_addr.s_addr) : 0;
}

}  // namespace

void LeavePeer(const SocketRecord& record) noexcept {
  const WSPPROC_TABLE* const next = record.next_proc_table;
  if (!IsMended() || next->lpWSPGetPeerName == nullptr) return;
  sockaddr_in peer = {};
  INT size = sizeof peer;
  INT error = 0;
  if (next->lpWSPGetPeerName(record.socket, reinterpret_cast<sockaddr*>(&peer), &size, &error)) {
    return;  // not connected
  }
  const sockaddr_in nobody = {};
  next->lpWSPConnect(record.socket, reinterpret_cast<const sockaddr*>(&nobody), sizeof nobody,
                     nullptr, nullptr, nullptr, nullptr, &error);
}

void NotePeer(const SocketRecord& record, const sockaddr* peer, int peer_size,
              bool relayed) noexcept {
  if (record.type != kSocketTypeDatagram || !IsMended()) return;
  if (!relayed) {
    GetSocketMap().ForgetHandledAddr(record.socket);
    return;
  }
  const sockaddr_in asked = ReadAddress(peer, peer_size);
  GetSocketMap().SetHandledAddr(record.socket, reinterpret_cast<const sockaddr*>(&asked), kSize);
}

int NamePeer(const SocketRecord& record, sockaddr* name, LPINT size, LPINT error) noexcept {
  if (size == nullptr || *size < kSize) {
    StoreError(error, WSAEFAULT);
    return SOCKET_ERROR;
  }
  std::memcpy(name, &record.handled_addr, sizeof record.handled_addr);
  *size = kSize;
  return 0;
}

void HookOwnName(WSPPROC_TABLE* table) noexcept {
  if (IsMended()) table->lpWSPGetSockName = WSPGetSockName;
}

int WSPAPI WSPGetSockName(SOCKET s, struct sockaddr* name, LPINT namelen, LPINT lpErrno) noexcept {
  SocketRecord record;
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPGetSockName>(s, &record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPGetSockName: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  const SizedPlace place(namelen);
  const int result = next->lpWSPGetSockName(s, name, namelen, lpErrno);
  if (result != 0 || !record.handled || record.type != kSocketTypeDatagram) return result;
  if (name == nullptr || place.Size() < kSize) return result;
  sockaddr_in own = ReadAddress(name, place.Size());
  if (own.sin_addr.s_addr != htonl(INADDR_LOOPBACK)) return result;
  if (const u32 ip = OwnAddress(record, *next); ip != 0) {
    own.sin_addr.s_addr = ip;
    std::memcpy(name, &own, sizeof own);
  }
  return result;
}

}  // namespace moru_vyr::lsp
