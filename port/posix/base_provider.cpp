// The base provider: thirty entries over real sockets. Overlapped calls, and entries that are not
// used here, fail with 10045.
#include "port/posix/native.h"
//
#include <mswsock.h>
#include <ws2spi.h>

#include "port/posix/sockets.h"
#include "port/shared/backend.h"
#include "port/shared/faults.h"

namespace port {
namespace {

int Finish(int failure, LPINT error) {
  if (error) *error = failure;
  return failure == 0 ? 0 : SOCKET_ERROR;
}

// The steps common to every entry: the fault check, the lookup of the handle, the result.
template <class Work>
int Run(const char* name, SOCKET s, LPINT error, Work work) {
  if (Fails(name, error)) return SOCKET_ERROR;
  SocketRef socket = FindSocket(s);
  return Finish(socket ? work(*socket) : WSAENOTSOCK, error);
}

SOCKET WSPAPI BaseAccept(SOCKET s, struct sockaddr* name, LPINT name_size, LPCONDITIONPROC,
                         DWORD_PTR, LPINT error) {
  SOCKET accepted = INVALID_SOCKET;
  Run("WSPAccept", s, error,
      [&](Socket& socket) { return AcceptOn(socket, name, name_size, &accepted); });
  return accepted;
}

int WSPAPI BaseBind(SOCKET s, const struct sockaddr* name, int name_size, LPINT error) {
  return Run("WSPBind", s, error,
             [&](Socket& socket) { return BindSocket(socket, name, name_size); });
}

int WSPAPI BaseCleanup(LPINT error) { return Finish(0, error); }

int WSPAPI BaseCloseSocket(SOCKET s, LPINT error) {
  if (Fails("WSPCloseSocket", error)) return SOCKET_ERROR;
  return Finish(CloseSocket(s), error);
}

int WSPAPI BaseConnect(SOCKET s, const struct sockaddr* name, int name_size, LPWSABUF, LPWSABUF,
                       LPQOS, LPQOS, LPINT error) {
  return Run("WSPConnect", s, error,
             [&](Socket& socket) { return ConnectTo(socket, name, name_size); });
}

int WSPAPI BaseGetPeerName(SOCKET s, struct sockaddr* name, LPINT name_size, LPINT error) {
  return Run("WSPGetPeerName", s, error,
             [&](Socket& socket) { return PeerOf(socket, name, name_size); });
}

int WSPAPI BaseGetSockName(SOCKET s, struct sockaddr* name, LPINT name_size, LPINT error) {
  return Run("WSPGetSockName", s, error,
             [&](Socket& socket) { return NameOf(socket, name, name_size); });
}

int WSPAPI BaseGetSockOpt(SOCKET s, int level, int option, char* value, LPINT size, LPINT error) {
  return Run("WSPGetSockOpt", s, error,
             [&](Socket& socket) { return GetOption(socket, level, option, value, size); });
}

int WSPAPI BaseListen(SOCKET s, int backlog, LPINT error) {
  return Run("WSPListen", s, error, [&](Socket& socket) { return ListenOn(socket, backlog); });
}

int WSPAPI BaseRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                        struct sockaddr* from, LPINT from_size, LPWSAOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
  return Run("WSPRecvFrom", s, error, [&](Socket& socket) {
    if (overlapped) return WSAEOPNOTSUPP;
    if (!buffers || !received || !flags) return WSAEFAULT;
    return ReceiveOn(socket, buffers, count, *flags, from, from_size, received);
  });
}

int WSPAPI BaseRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID,
                    LPINT error) {
  return Run("WSPRecv", s, error, [&](Socket& socket) {
    if (overlapped) return WSAEOPNOTSUPP;
    if (!buffers || !received || !flags) return WSAEFAULT;
    return ReceiveOn(socket, buffers, count, *flags, nullptr, nullptr, received);
  });
}

int WSPAPI BaseSelect(int, fd_set* read, fd_set* write, fd_set* except,
                      const struct timeval* timeout, LPINT error) {
  if (Fails("WSPSelect", error)) return SOCKET_ERROR;
  int ready = 0;
  const int failure = SelectSockets(read, write, except, timeout, &ready);
  return Finish(failure, error) == 0 ? ready : SOCKET_ERROR;
}

int WSPAPI BaseSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID,
                    LPINT error) {
  return Run("WSPSend", s, error, [&](Socket& socket) {
    if (overlapped) return WSAEOPNOTSUPP;
    if (!buffers || !sent) return WSAEFAULT;
    return SendOn(socket, buffers, count, flags, nullptr, 0, sent);
  });
}

int WSPAPI BaseSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                      const struct sockaddr* to, int to_size, LPWSAOVERLAPPED overlapped,
                      LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
  return Run("WSPSendTo", s, error, [&](Socket& socket) {
    if (overlapped) return WSAEOPNOTSUPP;
    if (!buffers || !sent) return WSAEFAULT;
    return SendOn(socket, buffers, count, flags, to, to_size, sent);
  });
}

int WSPAPI BaseSetSockOpt(SOCKET s, int level, int option, const char* value, int size,
                          LPINT error) {
  return Run("WSPSetSockOpt", s, error,
             [&](Socket& socket) { return SetOption(socket, level, option, value, size); });
}

int WSPAPI BaseShutdown(SOCKET s, int how, LPINT error) {
  return Run("WSPShutdown", s, error, [&](Socket& socket) { return ShutDown(socket, how); });
}

SOCKET WSPAPI BaseSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP, DWORD,
                         LPINT error) {
  if (Fails("WSPSocket", error)) return INVALID_SOCKET;
  if (info && family == 0) family = info->iAddressFamily;
  if (info && type == 0) type = info->iSocketType;
  if (info && protocol == 0) protocol = info->iProtocol;
  SOCKET made = INVALID_SOCKET;
  return Finish(OpenSocket(family, type, protocol, &made), error) == 0 ? made : INVALID_SOCKET;
}

// --- WSPIoctl and the one extension function ------------------------------------------------

// Blocks where the platform would return "pending", so the outcome is known when it returns.
BOOL WINAPI ConnectAtOnce(SOCKET s, const struct sockaddr* name, int name_size, PVOID data,
                          DWORD size, LPDWORD sent, LPOVERLAPPED overlapped) {
  int error = 0;
  DWORD done = 0;
  Run("ConnectEx", s, &error, [&](Socket& socket) {
    if (!overlapped || !socket.bound) return WSAEINVAL;
    const bool non_blocking = socket.non_blocking.exchange(false);
    int failure = ConnectTo(socket, name, name_size);
    WSABUF one = {size, static_cast<CHAR*>(data)};
    if (failure == 0 && data && size > 0) failure = SendOn(socket, &one, 1, 0, nullptr, 0, &done);
    socket.non_blocking = non_blocking;
    return failure;
  });
  WSASetLastError(error);
  if (error != 0) return FALSE;
  if (sent) *sent = done;
  overlapped->Internal = 0;
  overlapped->InternalHigh = done;
  if (overlapped->hEvent) SetEvent(overlapped->hEvent);
  return TRUE;
}

int HandOutExtension(const void* in, DWORD in_size, void* out, DWORD out_size, LPDWORD returned) {
  LPFN_CONNECTEX function = &ConnectAtOnce;
  if (!in || in_size < sizeof(GUID) || !out || out_size < sizeof function) return WSAEFAULT;
  const GUID connect_ex = WSAID_CONNECTEX;
  GUID asked;
  std::memcpy(&asked, in, sizeof asked);
  if (!(asked == connect_ex)) return WSAEINVAL;
  std::memcpy(out, &function, sizeof function);
  *returned = sizeof function;
  return 0;
}

int ReadableBytes(const Socket& socket, void* out, DWORD out_size, LPDWORD returned) {
  if (!out || out_size < sizeof(DWORD)) return WSAEFAULT;
  int bytes = 0;
  if (::ioctl(socket.fd, native::kReadable, &bytes) != 0) return WSAEINVAL;
  std::memcpy(out, &bytes, sizeof(DWORD));
  *returned = sizeof(DWORD);
  return 0;
}

int Control(Socket& socket, DWORD code, const void* in, DWORD in_size, void* out, DWORD out_size,
            LPDWORD returned) {
  DWORD value = 0;
  if (in && in_size >= sizeof value) std::memcpy(&value, in, sizeof value);
  switch (code) {
    case static_cast<DWORD>(FIONBIO):
      if (!in || in_size < sizeof value) return WSAEFAULT;
      socket.non_blocking = value != 0;
      return 0;
    case static_cast<DWORD>(FIONREAD):
      return ReadableBytes(socket, out, out_size, returned);
    case SIO_UDP_CONNRESET:
      if (!in || in_size < 1) return WSAEFAULT;
      socket.report_unreachable = *static_cast<const char*>(in) != 0;
      return 0;
    case SIO_GET_EXTENSION_FUNCTION_POINTER:
      return HandOutExtension(in, in_size, out, out_size, returned);
    default:
      return WSAEOPNOTSUPP;
  }
}

int WSPAPI BaseIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                     LPDWORD returned, LPWSAOVERLAPPED overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
  return Run("WSPIoctl", s, error, [&](Socket& socket) {
    if (overlapped) return WSAEOPNOTSUPP;
    if (!returned) return WSAEFAULT;
    *returned = 0;
    return Control(socket, code, in, in_size, out, out_size, returned);
  });
}

// --- what nothing here uses -----------------------------------------------------------------

int NotHere(LPINT error) { return Finish(WSAEOPNOTSUPP, error); }

INT WSPAPI BaseAddressToString(LPSOCKADDR, DWORD, LPWSAPROTOCOL_INFOW, LPWSTR, LPDWORD,
                               LPINT error) {
  return NotHere(error);
}
int WSPAPI BaseAsyncSelect(SOCKET, HWND, unsigned int, long, LPINT error) { return NotHere(error); }
int WSPAPI BaseCancelBlockingCall(LPINT error) { return NotHere(error); }
int WSPAPI BaseDuplicateSocket(SOCKET, DWORD, LPWSAPROTOCOL_INFOW, LPINT error) {
  return NotHere(error);
}
int WSPAPI BaseEnumNetworkEvents(SOCKET, WSAEVENT, LPWSANETWORKEVENTS, LPINT error) {
  return NotHere(error);
}
int WSPAPI BaseEventSelect(SOCKET, WSAEVENT, long, LPINT error) { return NotHere(error); }
BOOL WSPAPI BaseGetOverlappedResult(SOCKET, LPWSAOVERLAPPED, LPDWORD, BOOL, LPDWORD, LPINT error) {
  NotHere(error);
  return FALSE;
}
BOOL WSPAPI BaseGetQOSByName(SOCKET, LPWSABUF, LPQOS, LPINT error) {
  NotHere(error);
  return FALSE;
}
SOCKET WSPAPI BaseJoinLeaf(SOCKET, const struct sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                           DWORD, LPINT error) {
  NotHere(error);
  return INVALID_SOCKET;
}
int WSPAPI BaseRecvDisconnect(SOCKET, LPWSABUF, LPINT error) { return NotHere(error); }
int WSPAPI BaseSendDisconnect(SOCKET, LPWSABUF, LPINT error) { return NotHere(error); }
INT WSPAPI BaseStringToAddress(LPWSTR, INT, LPWSAPROTOCOL_INFOW, LPSOCKADDR, LPINT, LPINT error) {
  return NotHere(error);
}

}  // namespace

const WSPPROC_TABLE& BaseProviderTable() {
  static const WSPPROC_TABLE table = {
      &BaseAccept,
      &BaseAddressToString,
      &BaseAsyncSelect,
      &BaseBind,
      &BaseCancelBlockingCall,
      &BaseCleanup,
      &BaseCloseSocket,
      &BaseConnect,
      &BaseDuplicateSocket,
      &BaseEnumNetworkEvents,
      &BaseEventSelect,
      &BaseGetOverlappedResult,
      &BaseGetPeerName,
      &BaseGetSockName,
      &BaseGetSockOpt,
      &BaseGetQOSByName,
      &BaseIoctl,
      &BaseJoinLeaf,
      &BaseListen,
      &BaseRecv,
      &BaseRecvDisconnect,
      &BaseRecvFrom,
      &BaseSelect,
      &BaseSend,
      &BaseSendDisconnect,
      &BaseSendTo,
      &BaseSetSockOpt,
      &BaseShutdown,
      &BaseSocket,
      &BaseStringToAddress,
  };
  return table;
}

}  // namespace port
