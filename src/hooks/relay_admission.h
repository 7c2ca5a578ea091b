// Whether a socket may use the relay at all, and whether a destination may.
#pragma once
#include <winsock2.h>

#include "common/types.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// Asks about the socket, not about a destination. Every intercepted call that could relay asks it
// again, with its own copy of the record. Any thread. Despite its name the first call acts: it
// starts the relay, with either answer, and may take up to three seconds. For streams and datagrams
// it is false once the relay's worker has ended for any reason.
bool IsAllowedRelay(const SocketRecord& record) noexcept;

// Whether the route policy wants a connection to that address relayed. A null address may be.
bool IsAllowConnect(int type, const sockaddr_in* addr, SOCKET s, u32 token) noexcept;

}  // namespace moru_vyr::lsp
