// What a datagram socket tells the relay's control port: that it wants to be relayed, and that it
// is done. The message is sent from that socket, through the next provider, so that the relay
// learns the address at which the socket receives.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// Asks for a relay and waits for the answer, half a second at most. True: `out_addr` is where the
// socket's datagrams go from now on; the queues are the session's, to be used through
// RelayMgr::UseQueue alone. A null `to` is refused. `thread_id` is the caller's, unchanged.
bool RequestUdpRelay(const SocketRecord& record, const sockaddr_in* to, LPWSATHREADID thread_id,
                     sockaddr_in* out_addr, UdpPackageQueue** out_send_queue,
                     UdpPackageQueue** out_recv_queue) noexcept;

// Tells the relay that a socket that it relays is about to be closed; returns whether that
// succeeded. Does not wait or retry: see RelayMgr::NoteUntoldEnd.
bool CloseUdpRelay(const SocketRecord& record) noexcept;

}  // namespace moru_vyr::lsp
