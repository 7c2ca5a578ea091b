// What applications get in place of ConnectEx.
#include <mswsock.h>

#include "common/log.h"
#include "hooks/connect_target.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "hooks/relay_admission.h"
#include "route/mending.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {
namespace {

// The next provider's ConnectEx, asked for again at each call: it may differ from socket to
// socket. Null where there is none.
LPFN_CONNECTEX FindNextConnectEx(const WSPPROC_TABLE& next, SOCKET s) {
  GUID id = WSAID_CONNECTEX;
  LPFN_CONNECTEX function = nullptr;
  DWORD returned = 0;
  INT error = 0;
  WSATHREADID thread{GetCurrentThread(), 0};
  const int result =
      next.lpWSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function,
                      sizeof function, &returned, nullptr, nullptr, &thread, &error);
  return result == 0 ? function : nullptr;
}

}  // namespace

BOOL PASCAL WSPConnectEx(SOCKET s, const struct sockaddr* name, int namelen, PVOID lpSendBuffer,
                         DWORD dwSendDataLength, LPDWORD lpdwBytesSent,
                         LPOVERLAPPED lpOverlapped) noexcept {
  const bool answers_truly = GetMending().KeepsConnectExResult();
  // Kept: a caller reads this as TRUE.
  const BOOL refused = answers_truly ? FALSE : -1;
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPIoctl>(record);
  if (name == nullptr || next == nullptr) {
    LSP_LOG(5, "WSPConnectEx: next_proc_table invalid, socket=%Id", s);
    if (answers_truly) WSASetLastError(WSAEINVAL);
    return refused;
  }
  ConnectTarget target{name, namelen};
  if (IsAllowedRelay(record)) {
    LSP_LOG(4, "WSPConnectEx: protocol=%d, type=%d, socket=%Id, token=%u", record.protocol,
            record.type, s, record.token);
    if (record.type == kSocketTypeStream) RedirectStream(record, &target);
  }
  const LPFN_CONNECTEX connect_ex = FindNextConnectEx(*next, s);
  if (connect_ex == nullptr) {
    LSP_LOG(4, "WSPConnectEx: WSPIoctl get function pointer failure, socket=%Id, token=%u", s,
            record.token);
    return refused;
  }
  LSP_LOG(0, "WSPConnectEx: WSPConnectEx, lpConnectEx=%p, socket=%Id, token=%u",
          reinterpret_cast<void*>(connect_ex), s, record.token);
  // Copied now: once the connect is pending or has succeeded, its completion may have freed the
  // address.
  const AddressText dest = common::IsLogged(5) ? DescribeAddress(name, namelen) : AddressText{};
  const BOOL result = connect_ex(s, target.name, target.name_size, lpSendBuffer, dwSendDataLength,
                                 lpdwBytesSent, lpOverlapped);
  const int error = WSAGetLastError();
  if (result == FALSE && error != ERROR_IO_PENDING) ForgetRedirect(record, &target);
  LSP_LOG(5, "WSPConnectEx: ret=%d, err=%d, dest=%s:%d, port=%d, socket=%Id, token=%u", result,
          error, dest.ip.c_str(), dest.port, ntohs(target.local_port), s, record.token);
  if (answers_truly) {
    WSASetLastError(error);  // the log line may have changed it
    return result;
  }
  return result == 0 ? TRUE : FALSE;
}

}  // namespace moru_vyr::lsp
