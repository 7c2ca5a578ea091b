// getsockopt and setsockopt. Options that have no effect here are only stored.
#include "port/shared/socket_options.h"
#include "port/sim/sockets.h"

namespace sim {
namespace {

int SetLinger(Socket& socket, const char* value, int size) {
  if (!socket.stream()) return WSAENOPROTOOPT;
  int on = 0, seconds = 0;
  if (const int error = port::ReadLinger(value, size, &on, &seconds)) return error;
  socket.linger_on = on != 0;
  socket.linger_seconds = seconds;
  return 0;
}

void ApplySettings(Socket& socket) {
  if (socket.tcp) socket.tcp->SetSettings(socket.settings);
  if (socket.listener) socket.listener->SetSettings(socket.settings);
  if (socket.datagrams) socket.datagrams->limit = socket.settings.receive;
}

}  // namespace

int GetOption(Socket& socket, int level, int option, char* value, int* size) {
  socket.Settle();
  if (level == IPPROTO_TCP && option == TCP_NODELAY)
    return port::PutOption(socket.settings.no_delay, value, size);
  if (level != SOL_SOCKET) {
    const auto at = socket.plain_options.find({level, option});
    return port::PutOption(at == socket.plain_options.end() ? 0 : at->second, value, size);
  }
  switch (option) {
    case SO_ERROR:
      if (*size < static_cast<int>(sizeof(int))) return WSAEFAULT;
      return port::PutOption(std::exchange(socket.pending_error, 0), value, size);
    case SO_TYPE:
      return port::PutOption(socket.type, value, size);
    case SO_SNDBUF:
      return port::PutOption(static_cast<int>(socket.settings.send), value, size);
    case SO_RCVBUF:
      return port::PutOption(static_cast<int>(socket.settings.receive), value, size);
    case SO_ACCEPTCONN:
      return port::PutOption(socket.listener != nullptr, value, size);
    case SO_OOBINLINE:
      return port::PutOption(socket.settings.oob_inline, value, size);
    case SO_REUSEADDR:
      return port::PutOption(socket.share, value, size);
    case SO_EXCLUSIVEADDRUSE:
      return port::PutOption(socket.exclusive, value, size);
    case SO_LINGER:
      return port::PutLinger(socket.linger_on, socket.linger_seconds, value, size);
    case SO_SNDTIMEO:
      return port::PutOption(static_cast<int>(socket.send_timeout_ms), value, size);
    case SO_RCVTIMEO:
      return port::PutOption(static_cast<int>(socket.receive_timeout_ms), value, size);
    case SO_KEEPALIVE:
    case SO_DEBUG:
    case SO_DONTROUTE:
    case SO_BROADCAST: {
      const auto at = socket.plain_options.find({level, option});
      return port::PutOption(at == socket.plain_options.end() ? 0 : at->second, value, size);
    }
    default:
      return WSAENOPROTOOPT;
  }
}

int SetOption(Socket& socket, int level, int option, const char* value, int size) {
  if (level == SOL_SOCKET && option == SO_LINGER) return SetLinger(socket, value, size);
  if (size < static_cast<int>(sizeof(int))) return WSAEFAULT;
  int number = 0;
  std::memcpy(&number, value, sizeof number);
  if (level == IPPROTO_TCP && option == TCP_NODELAY) {
    socket.settings.no_delay = number != 0;
    ApplySettings(socket);
    return 0;
  }
  if (level != SOL_SOCKET) {
    socket.plain_options[{level, option}] = number;
    return 0;
  }
  switch (option) {
    case SO_SNDBUF:
      if (number < 0) return WSAEINVAL;
      socket.settings.send = static_cast<size_t>(number);
      ApplySettings(socket);
      return 0;
    case SO_RCVBUF:
      if (number < 0) return WSAEINVAL;
      socket.settings.receive = static_cast<size_t>(number);
      ApplySettings(socket);
      return 0;
    case SO_OOBINLINE:
      socket.settings.oob_inline = number != 0;
      ApplySettings(socket);
      return 0;
    case SO_REUSEADDR:
      if (socket.exclusive && number != 0) return WSAEINVAL;
      socket.share = number != 0;
      return 0;
    case SO_EXCLUSIVEADDRUSE:
      if (socket.binding || (socket.share && number != 0)) return WSAEINVAL;
      socket.exclusive = number != 0;
      return 0;
    case SO_SNDTIMEO:
      socket.send_timeout_ms = static_cast<DWORD>(number);
      return 0;
    case SO_RCVTIMEO:
      socket.receive_timeout_ms = static_cast<DWORD>(number);
      return 0;
    case SO_KEEPALIVE:
    case SO_DEBUG:
    case SO_DONTROUTE:
    case SO_BROADCAST:
      socket.plain_options[{level, option}] = number != 0;
      return 0;
    default:
      return WSAENOPROTOOPT;
  }
}

}  // namespace sim
