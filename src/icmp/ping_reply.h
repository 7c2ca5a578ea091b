// The reply to a held request: an IPv4 header and an ICMP echo reply.
#pragma once
#include "icmp/ping_request.h"

namespace moru_vyr::lsp {

inline constexpr u32 kMaxPingReplySize = kIpHeaderSize + kMaxIcmpSize;

// Writes the reply into `buffer`, of which the application has `room` bytes, at least 28. What does
// not fit is left out; nothing after the reply or beyond `room` is touched. Returns the length of
// the whole reply, whether it fitted or not.
//
// Kept: games have read such replies for years. The payload is placed eight bytes too early, over
// the ICMP header; the checksum includes what the payload left in its own field and what was in the
// buffer after it; and the bytes of the IP header's checksum are swapped.
u32 ForgePingReply(const ping_request_t& request, u8* buffer, u32 room) noexcept;

}  // namespace moru_vyr::lsp
