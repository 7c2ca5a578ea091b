// Gives a game's socket a known local port, by which the relay recognises its connection.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

// The port that the socket is bound to, in network order; an unbound socket is bound to a random
// port of 127.0.0.1. The answer is stored in the socket's record. Kept: a provider that says 0 is
// believed, and asked again the next time. `port` may be null. False for a socket without a record
// and if it cannot get a port. Any thread.
bool CheckAndBind(SOCKET s, u16* port) noexcept;

}  // namespace moru_vyr::lsp
