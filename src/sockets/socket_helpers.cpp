#include "sockets/socket_helpers.h"

#include <ws2spi.h>

#include <cstdlib>

#include "common/log.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kBindTries = 200;
constexpr int kExcludedTries = 20;
constexpr u32 kFirstPort = 1025;
constexpr u32 kPortCount = 64506;  // 1025 to 65530

// From the secure generator. The runtime's own belongs to the host: it need not be seeded, and
// drawing from it would change the numbers that the game gets.
u16 DrawPort() noexcept {
  unsigned int drawn = 0;
  rand_s(&drawn);
  return static_cast<u16>(drawn % kPortCount + kFirstPort);
}

// Through the next provider if there is one, else plainly. Where false, the Winsock error.
bool BindTo(const WSPPROC_TABLE* next, SOCKET s, const sockaddr_in& address, int* error) noexcept {
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  if (next != nullptr) return next->lpWSPBind(s, name, sizeof address, error) != SOCKET_ERROR;
  if (bind(s, name, sizeof address) != SOCKET_ERROR) return true;
  *error = WSAGetLastError();
  return false;
}

// The value that was set before.
int ReplaceBufferSize(SOCKET s, int option, u32 size) noexcept {
  int previous = 0;
  int previous_size = sizeof previous;
  getsockopt(s, SOL_SOCKET, option, reinterpret_cast<char*>(&previous), &previous_size);
  setsockopt(s, SOL_SOCKET, option, reinterpret_cast<const char*>(&size), sizeof size);
  return previous;
}

// On a random port of 127.0.0.1, which *port gets, or with a null `port` not bound.
bool CreateTcpSocket(SOCKET* out, u16* port) noexcept {
  const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    LSP_LOG(5,
            port != nullptr ? "[TCP] CreateTcpSocketAndBind socket error=%d"
                            : "[TCP] CreateNonBlockTcpSocket socket error=%d",
            error);
    return false;
  }
  if (port != nullptr && !BindLoopbackPort(s, port)) return false;  // Kept: the socket stays open
  if (const int error = MakeNonBlocking(s); error != 0) {
    LSP_LOG(5,
            port != nullptr ? "[TCP]CreateTcpSocketAndBind ioctlsocket, err = %u"
                            : "[TCP]CreateNonBlockTcpSocket ioctlsocket, err = %u",
            static_cast<u32>(error));
    closesocket(s);
    return false;
  }
  // Guard: both ends of a relayed connection decide on their own sockets whether small pieces may
  // be held back. If they were held back here, the last piece would wait up to 200 ms for the peer
  // to acknowledge the one before. Sockets that a listener accepts have the option from the
  // listener. A provider below that does not know the option costs no connection.
  const int on = 1;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  if (out != nullptr) *out = s;
  return true;
}

}  // namespace

int MakeNonBlocking(SOCKET s) noexcept {
  u_long on = 1;
  const int result = ioctlsocket(s, static_cast<long>(FIONBIO), &on);
  return result != SOCKET_ERROR ? 0 : WSAGetLastError();
}

bool BindRandomPort(SOCKET s, bool through_next_provider, u16* port, bool loopback) noexcept {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(loopback ? INADDR_LOOPBACK : INADDR_ANY);
  const WSPPROC_TABLE* next = nullptr;
  if (through_next_provider) {
    next = GetSocketMap().GetNextProcTable(s, nullptr, nullptr);
    if (next == nullptr || next->lpWSPBind == nullptr) return false;
  }
  for (int i = 0; i < kBindTries; ++i) {
    const u16 drawn = DrawPort();
    address.sin_port = htons(drawn);
    int error = 0;
    if (BindTo(next, s, address, &error)) {
      if (port != nullptr) *port = address.sin_port;
      if (next != nullptr) LSP_LOG(5, "BindRandomPort bind, port=%u, socket=%Id", drawn, s);
      return true;
    }
    if (error == WSAEADDRINUSE) continue;
    if (next != nullptr) {
      LSP_LOG(5, "BindRandomPort bind, err=%d, socket=%Id", error, s);
    } else {
      LSP_LOG(5, "BindRandomPort bind , err=%u, socket=%Id", static_cast<u32>(error), s);
    }
    return false;
  }
  return false;
}

void KeepPortToItself(SOCKET s) noexcept {
  const int on = 1;
  setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof on);
}

bool BindLoopbackPort(SOCKET s, u16* port) noexcept {
  KeepPortToItself(s);
  for (int i = 0; i < kExcludedTries; ++i) {
    if (BindRandomPort(s, false, port, true)) return true;
    if (WSAGetLastError() != WSAEACCES) return false;
  }
  return false;
}

void CloseRelaySocket(SOCKET s) noexcept {
  if (closesocket(s) != SOCKET_ERROR || WSAGetLastError() != WSANOTINITIALISED) return;
  const SocketRecord record = GetSocketMap().Get(s);
  if (record.next_proc_table == nullptr) return;
  GetSocketMap().Remove(s);
  INT error = 0;
  record.next_proc_table->lpWSPCloseSocket(s, &error);
}

void CloseWorkerSockets() noexcept {
  const SocketMap& sockets = GetSocketMap();
  for (SOCKET s = sockets.NextOfWorker(0); s != INVALID_SOCKET; s = sockets.NextOfWorker(s)) {
    CloseRelaySocket(s);
  }
}

bool CreateTcpSocketAndBind(SOCKET* out, u16* port) noexcept {
  u16 bound = 0;
  if (!CreateTcpSocket(out, &bound)) return false;
  if (port != nullptr) *port = bound;
  return true;
}

bool CreateNonBlockTcpSocket(SOCKET* out) noexcept { return CreateTcpSocket(out, nullptr); }

void AdjustSocketBuff(SOCKET socket, u32 send_size, u32 recv_size) noexcept {
  if (send_size == 0 || recv_size == 0) return;
  // Kept: the tag says UDP for stream sockets too.
  const int send_before = ReplaceBufferSize(socket, SO_SNDBUF, send_size);
  LSP_LOG(5, "[UDP] AdjustSocketBuff, previous send_buf=%d, new send_buf=%d, socket=%Id",
          send_before, static_cast<int>(send_size), socket);
  const int recv_before = ReplaceBufferSize(socket, SO_RCVBUF, recv_size);
  LSP_LOG(5, "[UDP] AdjustSocketBuff, previous recv_buf=%d, new recv_buf=%d, socket=%Id",
          recv_before, static_cast<int>(recv_size), socket);
}

void ResetAtClose(SOCKET socket) noexcept {
  const linger at_once = {1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once),
             sizeof at_once);
}

}  // namespace moru_vyr::lsp
