// Datagram sockets that are connected to their relay, where the client asks for that to be mended.
// Such a socket is connected to the port of the relay that stands for its peer, so the system
// itself keeps out other sources, and only the names of both ends have to be corrected
// (relayed_names.h).
//
// Any thread; nothing throws. Where it is not mended, no record of a datagram socket is `handled`,
// and nothing here has any effect.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

bool ConnectsDatagrams() noexcept;

// Before a connect: disconnects the socket. It would otherwise keep its local address, on the
// loopback interface or on the network, from which it might not reach the new peer.
void LeavePeer(const SocketRecord& record) noexcept;

// After a connect that succeeded: whether the socket is connected to its relay, for which peer.
void NotePeer(const SocketRecord& record, const sockaddr* peer, int peer_size,
              bool relayed) noexcept;

// Connects a socket that is connected to its relay to its peer itself.
void ConnectDirectly(const SocketRecord& record) noexcept;

}  // namespace moru_vyr::lsp
