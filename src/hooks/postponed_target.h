// The game's side of postponed connects (stream/postponed_connect.h): how its calls are answered
// until its socket is really connected.
//
// Any thread of the game. Nothing throws. Where connects are not postponed, none of this does
// anything.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "hooks/connect_target.h"

namespace moru_vyr::lsp {

// Whether an earlier connect of the socket decides the answer: it is under way, or the socket is
// connected. Then the relay is not asked; `target` holds the answer, or leaves it to the next
// provider.
bool IsConnectUnderWay(const SocketRecord& record, ConnectTarget* target) noexcept;

// The connect waits for the relay, if it can. Before the relay is asked.
void Postpone(const SocketRecord& record, ConnectTarget* target) noexcept;
// The relay has nothing to decide, or its decision is no longer needed.
void EndPostponed(const SocketRecord& record, ConnectTarget* target) noexcept;
// Whether to carry out the connect; the thread of a blocking socket waits here for that. If not,
// *error says why: would block, or the server's own error.
bool MayConnectNow(const SocketRecord& record, const ConnectTarget& target, LPINT error) noexcept;

// The socket is about to be closed.
void CancelPostponed(const SocketRecord& record) noexcept;

// Puts entries into the table that see whether a socket may block, where that matters.
void HookBlockingModes(LPWSPPROC_TABLE table) noexcept;

}  // namespace moru_vyr::lsp
