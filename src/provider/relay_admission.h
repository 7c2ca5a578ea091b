// Whether a socket may use the relay at all.
#pragma once
#include "provider/socket_map.h"

namespace moru_vyr::lsp {

// A question about the socket, not about a destination. Every intercepting call that could
// relay asks it anew, on its own copy of the record. Any thread.
bool IsAllowedRelay(const SocketRecord& record) noexcept;

}  // namespace moru_vyr::lsp
