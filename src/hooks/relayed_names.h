// The names of a relayed socket's two ends as its application would see them without us: its own
// address towards the server in place of the loopback interface's, and no peer before there is a
// connection. For streams and for connected datagram sockets, each where that is mended.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

namespace moru_vyr::lsp {

// Puts the entries for both names into the table, in place of those that are there, where they are
// needed.
void HookRelayedNames(LPWSPPROC_TABLE table) noexcept;

}  // namespace moru_vyr::lsp
