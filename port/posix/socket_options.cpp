// Socket options, with Windows' numbers and values.
#include "port/posix/native.h"
//
#include "port/posix/sockets.h"
#include "port/shared/socket_options.h"

#include <cerrno>

namespace port {
namespace {

constexpr int kUpdateAcceptContext = 0x700B;
constexpr int kUpdateConnectContext = 0x7010;

// Options that correspond to one host flag.
int HostFlag(int option) {
  switch (option) {
    case SO_REUSEADDR:
      return native::kReuseAddr;
    case SO_KEEPALIVE:
      return native::kKeepAlive;
    case SO_DONTROUTE:
      return native::kDontRoute;
    case SO_BROADCAST:
      return native::kBroadcast;
    case SO_OOBINLINE:
      return native::kOobInline;
    default:
      return 0;
  }
}

int GetHost(const Socket& socket, int level, int option, char* value, int* size) {
  int number = 0;
  socklen_t length = sizeof number;
  if (native::GetSockOpt(socket.fd, level, option, &number, &length) != 0) return ErrorOf(errno);
  return PutOption(number, value, size);
}

int SetHost(const Socket& socket, int level, int option, int number) {
  return native::SetSockOpt(socket.fd, level, option, &number, sizeof number) == 0 ? 0
                                                                                   : ErrorOf(errno);
}

int TakeError(Socket& socket) {
  SettleConnect(socket);
  std::lock_guard hold(socket.lock);
  const int error = socket.pending_error;
  socket.pending_error = 0;
  return error;
}

int GetLinger(const Socket& socket, char* value, int* size) {
  linger host = {};
  socklen_t length = sizeof host;
  if (native::GetSockOpt(socket.fd, native::kSolSocket, native::kLinger, &host, &length) != 0)
    return ErrorOf(errno);
  return PutLinger(host.l_onoff, host.l_linger, value, size);
}

int SetLinger(const Socket& socket, const char* value, int size) {
  linger host = {};
  if (const int error = ReadLinger(value, size, &host.l_onoff, &host.l_linger)) return error;
  return native::SetSockOpt(socket.fd, native::kSolSocket, native::kLinger, &host, sizeof host) == 0
             ? 0
             : ErrorOf(errno);
}

int GetSocketOption(Socket& socket, int option, char* value, int* size) {
  if (int flag = HostFlag(option)) return GetHost(socket, native::kSolSocket, flag, value, size);
  switch (option) {
    case SO_ERROR:
      // Checked first: the error must not be lost if the buffer is too small for it.
      if (*size < static_cast<int>(sizeof(int))) return WSAEFAULT;
      return PutOption(TakeError(socket), value, size);
    case SO_TYPE:
      return PutOption(socket.type, value, size);
    case SO_ACCEPTCONN:
      return PutOption(socket.listening, value, size);
    case SO_SNDBUF:
      return PutOption(socket.send_buffer, value, size);
    case SO_RCVBUF:
      return PutOption(socket.recv_buffer, value, size);
    case SO_RCVTIMEO:
      return PutOption(static_cast<int>(socket.recv_timeout_ms), value, size);
    case SO_SNDTIMEO:
      return PutOption(static_cast<int>(socket.send_timeout_ms), value, size);
    case SO_EXCLUSIVEADDRUSE:
      return PutOption(socket.exclusive, value, size);
    case SO_DEBUG:
      return PutOption(0, value, size);
    case SO_LINGER:
      return GetLinger(socket, value, size);
    default:
      return WSAENOPROTOOPT;
  }
}

int SetSocketOption(Socket& socket, int option, const char* value, int size) {
  if (option == kUpdateAcceptContext || option == kUpdateConnectContext) return 0;
  if (!value || size < static_cast<int>(sizeof(int))) return WSAEFAULT;
  int number = 0;
  std::memcpy(&number, value, sizeof number);
  if (option == SO_OOBINLINE) socket.oob_inline = number != 0;
  if (int flag = HostFlag(option)) return SetHost(socket, native::kSolSocket, flag, number);
  switch (option) {
    case SO_SNDBUF:
      socket.send_buffer = number;
      return SetHost(socket, native::kSolSocket, native::kSndBuf, number);
    case SO_RCVBUF:
      socket.recv_buffer = number;
      return SetHost(socket, native::kSolSocket, native::kRcvBuf, number);
    case SO_RCVTIMEO:
      socket.recv_timeout_ms = static_cast<DWORD>(number);
      return 0;
    case SO_SNDTIMEO:
      socket.send_timeout_ms = static_cast<DWORD>(number);
      return 0;
    case SO_EXCLUSIVEADDRUSE:
      socket.exclusive = number != 0;
      return 0;
    case SO_DEBUG:
      return 0;
    case SO_LINGER:
      return SetLinger(socket, value, size);
    default:
      return WSAENOPROTOOPT;
  }
}

}  // namespace

int GetOption(Socket& socket, int level, int option, char* value, int* size) {
  if (!value || !size) return WSAEFAULT;
  if (level == SOL_SOCKET) return GetSocketOption(socket, option, value, size);
  if (level == IPPROTO_TCP && option == TCP_NODELAY)
    return GetHost(socket, IPPROTO_TCP, native::kNoDelay, value, size);
  if (level == IPPROTO_IP) return GetHost(socket, IPPROTO_IP, option, value, size);
  return level == IPPROTO_TCP || level == IPPROTO_UDP ? WSAENOPROTOOPT : WSAEINVAL;
}

int SetOption(Socket& socket, int level, int option, const char* value, int size) {
  if (level == SOL_SOCKET) return SetSocketOption(socket, option, value, size);
  if (!value || size < 1) return WSAEFAULT;
  int number = 0;
  std::memcpy(&number, value, std::min<size_t>(static_cast<size_t>(size), sizeof number));
  if (level == IPPROTO_TCP && option == TCP_NODELAY)
    return SetHost(socket, IPPROTO_TCP, native::kNoDelay, number);
  if (level == IPPROTO_IP) return SetHost(socket, IPPROTO_IP, option, number);
  return level == IPPROTO_TCP || level == IPPROTO_UDP ? WSAENOPROTOOPT : WSAEINVAL;
}

}  // namespace port
