// Gives a game's socket a local port that is known, by which the relay recognises its connection.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

// The port that the socket is bound to, in network order; one that is not bound yet is bound to a
// random port of 127.0.0.1. The answer is kept in the socket's record; kept: a provider that says 0
// is believed, and asked again the next time. `port` may be null. False for a socket without a
// record and where no port can be had. Any thread.
bool CheckAndBind(SOCKET s, u16* port) noexcept;

}  // namespace moru_vyr::lsp
