// The plain calls of Winsock, over the call table of each socket's provider.
#include "port/shared/winsock.h"

#include "port/shared/backend.h"
#include "port/shared/faults.h"
#include "port/shared/process.h"

namespace port {
namespace {

SocketLayers& Layers() { return CurrentProcess().layers; }

// A provider reports failure through *error, which a plain call makes the last error. Success
// clears the last error, unless a test has set otherwise. The error is passed by reference because
// it is set by the call that is another argument here.
template <class Result>
Result Finish(Result result, bool failed, const int& error) {
  if (failed) {
    WSASetLastError(error);
  } else if (!DoesSuccessKeepLastError()) {
    SetLastError(LastErrorOfSuccess());
  }
  return result;
}

int Finish(int result, const int& error) { return Finish(result, result == SOCKET_ERROR, error); }

int Fail(int error) { return Finish(SOCKET_ERROR, error); }

// Every plain call checks this first. If true, the last error is set, and the call has failed.
bool Refuses(const char* name) {
  if (Fails(name)) return true;
  if (!Layers().ended()) return false;
  WSASetLastError(WSANOTINITIALISED);
  return true;
}

SOCKET FirstOf(const vyr_port_fd_set* set) {
  return set && set->fd_count > 0 ? set->fd_array[0] : INVALID_SOCKET;
}

}  // namespace
}  // namespace port

using port::Fail;
using port::Fails;
using port::Finish;
using port::Layers;
using port::Refuses;

int WSAAPI WSAStartup(WORD version, LPWSADATA data) {
  INT error = 0;
  if (Fails("WSAStartup", &error)) return error;
  if (!data) return WSAEFAULT;
  if (LOBYTE(version) < 1) return WSAVERNOTSUPPORTED;
  *data = {};
  data->wVersion = std::min<WORD>(version, MAKEWORD(2, 2));
  data->wHighVersion = MAKEWORD(2, 2);
  std::strcpy(data->szDescription, "WinSock 2.0");
  std::strcpy(data->szSystemStatus, "Running");
  Layers().StartUp();
  return 0;
}

int WSAAPI WSACleanup() {
  const int error = Layers().CleanUp();
  return error == 0 ? 0 : Fail(error);
}

SOCKET vyr_port_socket(int family, int type, int protocol) {
  if (Refuses("socket")) return INVALID_SOCKET;
  int error = 0;
  auto started = Layers().ForNewSocket(family, type, protocol, &error);
  if (error != 0) return Finish(INVALID_SOCKET, true, error);
  const WSPPROC_TABLE& table = started ? started->table : port::BaseProviderTable();
  WSAPROTOCOL_INFOW entry;
  if (started) entry = started->entry;
  const SOCKET s = table.lpWSPSocket(family, type, protocol, started ? &entry : nullptr, 0,
                                     WSA_FLAG_OVERLAPPED, &error);
  Layers().Remember(s, started);
  return Finish(s, s == INVALID_SOCKET, error);
}

int WSAAPI closesocket(SOCKET s) {
  if (Refuses("closesocket")) return SOCKET_ERROR;
  const WSPPROC_TABLE& table = Layers().TableOf(s);
  // Forget it first: once it is closed, the handle may belong to another socket.
  auto started = Layers().Forget(s);
  int error = 0;
  const int result = table.lpWSPCloseSocket(s, &error);
  if (result == SOCKET_ERROR && error == WSAEWOULDBLOCK) Layers().Remember(s, started);
  return Finish(result, error);
}

int vyr_port_bind(SOCKET s, const struct sockaddr* name, int name_size) {
  if (Refuses("bind")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPBind(s, name, name_size, &error), error);
}

int vyr_port_listen(SOCKET s, int backlog) {
  if (Refuses("listen")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPListen(s, backlog, &error), error);
}

SOCKET vyr_port_accept(SOCKET s, struct sockaddr* name, int* name_size) {
  if (Refuses("accept")) return INVALID_SOCKET;
  int error = 0;
  const SOCKET accepted = Layers().TableOf(s).lpWSPAccept(s, name, name_size, nullptr, 0, &error);
  Layers().Remember(accepted, Layers().Of(s));
  return Finish(accepted, accepted == INVALID_SOCKET, error);
}

int vyr_port_connect(SOCKET s, const struct sockaddr* name, int name_size) {
  if (Refuses("connect")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPConnect(s, name, name_size, nullptr, nullptr, nullptr,
                                                 nullptr, &error),
                error);
}

int vyr_port_select(int ignored, vyr_port_fd_set* read, vyr_port_fd_set* write,
                    vyr_port_fd_set* except, const struct vyr_port_timeval* timeout) {
  if (Refuses("select")) return SOCKET_ERROR;
  // The provider of the first handle serves the whole call, as in Winsock.
  SOCKET first = port::FirstOf(read);
  if (first == INVALID_SOCKET) first = port::FirstOf(write);
  if (first == INVALID_SOCKET) first = port::FirstOf(except);
  if (first == INVALID_SOCKET) return Fail(WSAEINVAL);
  int error = 0;
  return Finish(Layers().TableOf(first).lpWSPSelect(ignored, read, write, except, timeout, &error),
                error);
}

int vyr_port_recv(SOCKET s, char* buffer, int size, int flags) {
  if (Refuses("recv")) return SOCKET_ERROR;
  WSABUF one = {static_cast<ULONG>(size), buffer};
  DWORD received = 0;
  DWORD in_out = static_cast<DWORD>(flags);
  int error = 0;
  const int result = Layers().TableOf(s).lpWSPRecv(s, &one, 1, &received, &in_out, nullptr, nullptr,
                                                   nullptr, &error);
  return result == SOCKET_ERROR ? Fail(error) : Finish(static_cast<int>(received), 0);
}

int vyr_port_send(SOCKET s, const char* buffer, int size, int flags) {
  if (Refuses("send")) return SOCKET_ERROR;
  WSABUF one = {static_cast<ULONG>(size), const_cast<char*>(buffer)};
  DWORD sent = 0;
  int error = 0;
  const int result = Layers().TableOf(s).lpWSPSend(s, &one, 1, &sent, static_cast<DWORD>(flags),
                                                   nullptr, nullptr, nullptr, &error);
  return result == SOCKET_ERROR ? Fail(error) : Finish(static_cast<int>(sent), 0);
}

int vyr_port_recvfrom(SOCKET s, char* buffer, int size, int flags, struct sockaddr* from,
                      int* from_size) {
  if (Refuses("recvfrom")) return SOCKET_ERROR;
  WSABUF one = {static_cast<ULONG>(size), buffer};
  DWORD received = 0;
  DWORD in_out = static_cast<DWORD>(flags);
  int error = 0;
  const int result = Layers().TableOf(s).lpWSPRecvFrom(
      s, &one, 1, &received, &in_out, from, from_size, nullptr, nullptr, nullptr, &error);
  return result == SOCKET_ERROR ? Fail(error) : Finish(static_cast<int>(received), 0);
}

int vyr_port_sendto(SOCKET s, const char* buffer, int size, int flags, const struct sockaddr* to,
                    int to_size) {
  if (Refuses("sendto")) return SOCKET_ERROR;
  WSABUF one = {static_cast<ULONG>(size), const_cast<char*>(buffer)};
  DWORD sent = 0;
  int error = 0;
  const int result = Layers().TableOf(s).lpWSPSendTo(
      s, &one, 1, &sent, static_cast<DWORD>(flags), to, to_size, nullptr, nullptr, nullptr, &error);
  return result == SOCKET_ERROR ? Fail(error) : Finish(static_cast<int>(sent), 0);
}

int vyr_port_shutdown(SOCKET s, int how) {
  if (Refuses("shutdown")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPShutdown(s, how, &error), error);
}

int vyr_port_getsockname(SOCKET s, struct sockaddr* name, int* name_size) {
  if (Refuses("getsockname")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPGetSockName(s, name, name_size, &error), error);
}

int vyr_port_getpeername(SOCKET s, struct sockaddr* name, int* name_size) {
  if (Refuses("getpeername")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPGetPeerName(s, name, name_size, &error), error);
}

int vyr_port_getsockopt(SOCKET s, int level, int option, char* value, int* value_size) {
  if (Refuses("getsockopt")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPGetSockOpt(s, level, option, value, value_size, &error),
                error);
}

int vyr_port_setsockopt(SOCKET s, int level, int option, const char* value, int value_size) {
  if (Refuses("setsockopt")) return SOCKET_ERROR;
  int error = 0;
  return Finish(Layers().TableOf(s).lpWSPSetSockOpt(s, level, option, value, value_size, &error),
                error);
}

int WSAAPI ioctlsocket(SOCKET s, long command, u_long* argument) {
  if (Refuses("ioctlsocket")) return SOCKET_ERROR;
  if (!argument) return Fail(WSAEFAULT);
  // The interface's arguments are 32 bits wide; u_long is wider here.
  DWORD value = static_cast<DWORD>(*argument);
  DWORD returned = 0;
  int error = 0;
  const int result =
      Layers().TableOf(s).lpWSPIoctl(s, static_cast<DWORD>(command), &value, sizeof value, &value,
                                     sizeof value, &returned, nullptr, nullptr, nullptr, &error);
  if (result != SOCKET_ERROR && static_cast<DWORD>(command) != FIONBIO) *argument = value;
  return Finish(result, error);
}
