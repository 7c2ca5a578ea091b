// How the relay makes its own sockets, and the random bind that game sockets get too.
//
// Any thread. Nothing throws. The outcome is the result and a log line.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

// Binds to a random port of 127.0.0.1, or of all addresses. A game socket binds through its own
// next provider, a relay socket plainly. *port, which may be null, gets the port in network
// order. False where the socket has no next provider, where the bind fails for another reason
// than a port in use, and after 200 ports in use.
bool BindRandomPort(SOCKET s, bool through_next_provider, u16* port, bool loopback) noexcept;

// A non-blocking stream socket on a random port of 127.0.0.1, to listen on; the port in network
// order. What it accepts holds no small piece back. Both pointers may be null, and are untouched on
// failure.
bool CreateTcpSocketAndBind(SOCKET* out, u16* port) noexcept;

// A non-blocking stream socket that is not bound and holds no small piece back.
bool CreateNonBlockTcpSocket(SOCKET* out) noexcept;

// Sets the socket's buffers, in bytes, as far as the system agrees. Nothing if either is 0.
void AdjustSocketBuff(SOCKET socket, u32 send_size, u32 recv_size) noexcept;

}  // namespace moru_vyr::lsp
