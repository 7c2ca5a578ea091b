// The calls of a raw ICMP socket that may be relayed, as far as its pings are answered here.
#pragma once
#include <winsock2.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

constexpr int kProtocolIcmp = 1;

inline bool IsRawPing(const SocketRecord& record) noexcept {
  return record.type == kSocketTypeRaw && record.protocol == kProtocolIcmp;
}

// True: the first buffer held a ping, which is now held back. It counts as sent, and the call is
// done.
bool HoldPing(SOCKET s, const WSABUF* buffers, DWORD count, LPDWORD sent) noexcept;

// True: the first buffer holds the reply to a held ping, and the call is done. The count is the
// reply's own length, even if the buffer was too short for it.
bool AnswerPing(SOCKET s, const WSABUF* buffers, DWORD count, LPDWORD received) noexcept;

}  // namespace moru_vyr::lsp
