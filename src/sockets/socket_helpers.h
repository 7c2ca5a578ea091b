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

// A random port of 127.0.0.1 for a socket of the relay's own, as BindRandomPort finds one.
// Guard: Windows keeps whole ranges of ports for others and answers 10013 for them, which ends
// BindRandomPort's tries. One such draw would end relaying in this process, so it is asked again,
// up to 20 times.
bool BindLoopbackPort(SOCKET s, u16* port) noexcept;

// Closes a socket of the relay's own. Where Winsock has already ended for this process and closes
// nothing any more, the next provider does.
void CloseRelaySocket(SOCKET s) noexcept;

// Closes every socket that a worker has left which did not come to its end.
void CloseWorkerSockets() noexcept;

// Sets the socket's buffers, in bytes, as far as the system agrees. Nothing if either is 0.
void AdjustSocketBuff(SOCKET socket, u32 send_size, u32 recv_size) noexcept;

}  // namespace moru_vyr::lsp
