// Creation of the relay's own sockets, and the random bind that game sockets use too.
//
// Any thread. Nothing throws. Failures show in the result and a log line.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

// Binds to a random port of 127.0.0.1, or of all addresses. A game socket binds through its own
// next provider, a relay socket through a plain call. *port, which may be null, gets the port in
// network order. False if the socket has no next provider, if the bind fails for any reason other
// than a port in use, and after 200 ports in use.
bool BindRandomPort(SOCKET s, bool through_next_provider, u16* port, bool loopback) noexcept;

// A non-blocking stream socket on a random port of 127.0.0.1, to listen on; the port in network
// order. Connections that it accepts have TCP_NODELAY. Both pointers may be null, and are untouched
// on failure.
bool CreateTcpSocketAndBind(SOCKET* out, u16* port) noexcept;

// A non-blocking stream socket with TCP_NODELAY that is not bound.
bool CreateNonBlockTcpSocket(SOCKET* out) noexcept;

// Binds one of the relay's own sockets to a random port of 127.0.0.1, as BindRandomPort does, and
// lets no other program share it.
// Guard: Windows keeps whole ranges of ports for others and answers 10013 for them, which ends
// BindRandomPort's attempts. One such draw would end relaying in this process, so it is repeated up
// to 20 times.
bool BindLoopbackPort(SOCKET s, u16* port) noexcept;

// For a socket that is not bound yet. Guard: the port that it gets is its own. Otherwise Windows
// lets another program bind a single address of the same port, or, if that program asks for it, the
// same address, and hands it what was sent to the relay. A provider that does not know the option
// costs nothing.
void KeepPortToItself(SOCKET s) noexcept;

// 0 or the Winsock error.
int MakeNonBlocking(SOCKET s) noexcept;

// Closes one of the relay's own sockets. If Winsock has already ended for this process and no
// longer closes anything, the next provider does it.
void CloseRelaySocket(SOCKET s) noexcept;

// Closes every socket left by a worker that did not finish.
void CloseWorkerSockets() noexcept;

// Sets the socket's buffer sizes, in bytes, as far as the system allows. Does nothing if either is
// 0.
void AdjustSocketBuff(SOCKET socket, u32 send_size, u32 recv_size) noexcept;

// The close of the socket will reset its connection.
void ResetAtClose(SOCKET socket) noexcept;

}  // namespace moru_vyr::lsp
