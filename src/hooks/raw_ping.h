// The calls of a raw ICMP socket that may be relayed, as far as pings are answered here.
#pragma once
#include <winsock2.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

constexpr int kProtocolIcmp = 1;

inline bool IsRawPing(const SocketRecord& record) noexcept {
  return record.type == kSocketTypeRaw && record.protocol == kProtocolIcmp;
}

// True: the first buffer held a ping that is kept back. It counts as sent, and the call is over.
bool HoldPing(SOCKET s, const WSABUF* buffers, DWORD count, LPDWORD sent) noexcept;

// True: the first buffer holds the reply to a ping that was kept back, and the call is over. The
// count is the reply's own length, also where the buffer was too short for it.
bool AnswerPing(SOCKET s, const WSABUF* buffers, DWORD count, LPDWORD received) noexcept;

}  // namespace moru_vyr::lsp
