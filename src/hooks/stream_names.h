// The names of a relayed stream's two ends as its application would see them without us: its own
// address towards the server in place of the loopback interface's, and no peer before there is a
// connection.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

namespace moru_vyr::lsp {

// Puts the entries for both names into the table, in place of those that are there.
void HookStreamNames(LPWSPPROC_TABLE table) noexcept;

}  // namespace moru_vyr::lsp
