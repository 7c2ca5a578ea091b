#include "hooks/relayed_names.h"

#include <cstring>

#include "common/log.h"
#include "hooks/connected_datagram.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

// SIO_ROUTING_INTERFACE_QUERY: from which address of this machine another one is reached.
constexpr DWORD kRoutingInterfaceQuery = 0xc8000014u;

bool ShowsTrueNames(int socket_type) noexcept {
  return socket_type == kSocketTypeStream ? GetMending().NamesAsWithoutUs() : ConnectsDatagrams();
}

// What a call has stored, if it is an address on the loopback interface.
bool IsLoopback(const sockaddr* name, const SizedPlace& place, sockaddr_in* out) noexcept {
  if (name == nullptr || place.Size() < static_cast<int>(sizeof *out)) return false;
  std::memcpy(out, name, sizeof *out);
  return out->sin_family == AF_INET && out->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
}

bool AskRoute(const WSPPROC_TABLE& next, const SocketRecord& record, in_addr* out) noexcept {
  if (next.lpWSPIoctl == nullptr) return false;
  sockaddr_in server = record.handled_addr;
  sockaddr_in own = {};
  DWORD returned = 0;
  INT error = 0;
  WSATHREADID thread{GetCurrentThread(), 0};
  const int result =
      next.lpWSPIoctl(record.socket, kRoutingInterfaceQuery, &server, sizeof server, &own,
                      sizeof own, &returned, nullptr, nullptr, &thread, &error);
  *out = own.sin_addr;
  return result == 0 && own.sin_addr.s_addr != 0;
}

// For a next provider that does not know that query: a datagram socket that is connected to the
// server, which sends nothing, has the same address. It is the library's own, and not relayed.
bool AskDatagramSocket(const SocketRecord& record, in_addr* out) noexcept {
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (s == INVALID_SOCKET) return false;
  GetSocketMap().SetRelayDisabled(s, true);
  const SocketRecord own = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPConnect>(own);
  sockaddr_in name = {};
  INT size = sizeof name;
  INT error = 0;
  const bool found =
      next != nullptr && next->lpWSPGetSockName != nullptr &&
      next->lpWSPConnect(s, reinterpret_cast<const sockaddr*>(&record.handled_addr),
                         sizeof record.handled_addr, nullptr, nullptr, nullptr, nullptr,
                         &error) == 0 &&
      next->lpWSPGetSockName(s, reinterpret_cast<sockaddr*>(&name), &size, &error) == 0;
  closesocket(s);
  *out = name.sin_addr;
  return found && name.sin_addr.s_addr != 0;
}

bool FindOwnAddress(const WSPPROC_TABLE& next, const SocketRecord& record, in_addr* out) noexcept {
  return AskRoute(next, record, out) || AskDatagramSocket(record, out);
}

// The port is its own: the relay leaves it as it is.
int WSPAPI WSPGetSockName(SOCKET s, struct sockaddr* name, LPINT namelen, LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPGetSockName>(record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPGetSockName: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  const SizedPlace place(namelen);
  const int result = next->lpWSPGetSockName(s, name, namelen, lpErrno);
  sockaddr_in own = {};
  if (result != 0 || !record.handled || !ShowsTrueNames(record.type)) return result;
  if (!IsLoopback(name, place, &own)) return result;
  if (!FindOwnAddress(*next, record, &own.sin_addr)) return result;
  std::memcpy(name, &own, sizeof own);
  LSP_LOG(4, "WSPGetSockName: own=%s:%d, socket=%Id, token=%u",
          DescribeAddress(name, sizeof own).ip.c_str(), ntohs(own.sin_port), s, record.token);
  return result;
}

// The next provider says whether there is a connection, and room for its name.
int WSPAPI WSPGetConnectedPeerName(SOCKET s, struct sockaddr* name, LPINT namelen,
                                   LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPGetPeerName>(record);
  if (next == nullptr || !record.handled || !ShowsTrueNames(record.type)) {
    return WSPGetPeerName(s, name, namelen, lpErrno);
  }
  const SizedPlace place(namelen);
  const int result = next->lpWSPGetPeerName(s, name, namelen, lpErrno);
  sockaddr_in peer = {};
  if (result == 0 && IsLoopback(name, place, &peer)) {
    std::memcpy(name, &record.handled_addr, sizeof record.handled_addr);
  }
  LSP_LOG(4, "WSPGetPeerName: ret=%d, err=%d, peer=%s:%d, socket=%Id, token=%u", result,
          ErrorOf(lpErrno), DescribeAddress(name, place.Size()).ip.c_str(),
          DescribeAddress(name, place.Size()).port, s, record.token);
  return result;
}

}  // namespace

void HookRelayedNames(LPWSPPROC_TABLE table) noexcept {
  if (!ShowsTrueNames(kSocketTypeStream) && !ShowsTrueNames(kSocketTypeDatagram)) return;
  table->lpWSPGetSockName = WSPGetSockName;
  table->lpWSPGetPeerName = WSPGetConnectedPeerName;
}

}  // namespace moru_vyr::lsp
