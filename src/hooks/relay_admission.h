// Whether a socket may use the relay at all, and whether a destination may.
#pragma once
#include <winsock2.h>

#include "common/types.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// A question about the socket, not about a destination. Every intercepting call that could
// relay asks it anew, on its own copy of the record. Any thread. The first question starts the
// relay, whatever becomes of it, and can take up to three seconds. For streams and
// datagrams it is false once the relay's worker has ended, however it came to that.
bool IsAllowedRelay(const SocketRecord& record) noexcept;

// Whether the route policy would have a connection there relayed. A null address may.
bool IsAllowConnect(int type, const sockaddr_in* addr, SOCKET s, u32 token) noexcept;

}  // namespace moru_vyr::lsp
