// Datagram sockets that are connected to their relay, where the client asks for that to be mended:
// such a socket is connected to the port of the relay that stands for its peer, so that the system
// itself keeps other sources away from it, and only the names of both ends have to be put right
// (relayed_names.h).
//
// Any thread; nothing throws. Where it is not mended, no datagram socket's record is `handled`, and
// nothing here does anything.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

bool ConnectsDatagrams() noexcept;

// Before a connect: takes back the connection that the socket has. A loopback address of its own,
// or one on the network, would otherwise stay with it, and could not reach the new peer.
void LeavePeer(const SocketRecord& record) noexcept;

// After a connect that succeeded: whether the socket is connected to its relay, for which peer.
void NotePeer(const SocketRecord& record, const sockaddr* peer, int peer_size,
              bool relayed) noexcept;

// Connects a socket that is connected to its relay to its peer itself.
void ConnectDirectly(const SocketRecord& record) noexcept;

}  // namespace moru_vyr::lsp
