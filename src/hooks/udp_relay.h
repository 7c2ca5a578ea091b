// How the calls of a datagram socket are redirected to its relay and back.
//
// A relayed datagram goes to a loopback address of the relay instead of its destination; before it
// is sent, a copy and the destination are queued. For one from the relay, the address in the queue
// replaces the relay's. Where each address has a port of the relay's own, nothing is queued, and
// the port tells the address. `record` is the caller's copy throughout. Any thread; nothing throws.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// Whether a datagram to that destination is for the relay. The answer is stored with the socket for
// the first ten destinations. Kept: the eleventh counts as relayed without the route policy being
// asked. Without a destination the socket's own state counts.
bool IsAllowUdpRelayed(const SocketRecord& record, const sockaddr_in* to) noexcept;

// Prepares a datagram for the relay, and stores the relay's address; the socket's first datagram
// asks for the relay. False: it is to go directly. `thread_id` is the caller's, unchanged. `entry`,
// which may be null, gets the number under which the datagram was queued, if it was.
bool PrepareUdpRelaySend(const SocketRecord& record, LPWSABUF buffers, DWORD count,
                         const sockaddr_in* to, sockaddr_in* out_addr, LPWSATHREADID thread_id,
                         u64* entry = nullptr) noexcept;

// The same for a socket that was connected through the relay. Kept: its datagrams are queued with
// an address of zeros.
bool PrepareConnectedUdpSend(const SocketRecord& record, LPWSABUF buffers, DWORD count,
                             LPWSATHREADID thread_id, u64* entry = nullptr) noexcept;

// Takes back what was queued for a datagram that was not sent after all. Works on the socket's
// current record. The buffers of a datagram that is still pending may be gone; `entry` names it.
void CancelUdpSend(SOCKET s, LPWSABUF buffers, DWORD count, bool pending, u64 entry) noexcept;

// Replaces `from` with the true source of a datagram that came from the relay. False if it came
// from elsewhere or its source is not known.
bool RestoreUdpSource(const SocketRecord& record, LPWSABUF buffers, DWORD count, sockaddr_in* from,
                      const DWORD* received) noexcept;

// Kept: this never has an effect, and what is queued for a connected socket stays queued.
bool RestoreConnectedUdpSource(const SocketRecord& record, LPWSABUF buffers, DWORD count,
                               const DWORD* received) noexcept;

// Whether a datagram socket that connects to `addr` is to be connected to the relay, and where
// that is. Asks for the relay if the socket has none. Kept: the decision is not remembered.
bool HandleUdpConnect(const SocketRecord& record, const sockaddr_in* addr,
                      sockaddr_in* out_addr) noexcept;

}  // namespace moru_vyr::lsp
