// The reply that a held request is answered with: an IPv4 header and an ICMP echo reply.
#pragma once
#include "icmp/ping_request.h"

namespace moru_vyr::lsp {

inline constexpr u32 kMaxPingReplySize = kIpHeaderSize + kMaxIcmpSize;

// Writes the reply into `buffer`, which the application has `room` bytes of, at least 28. What
// does not fit is left out; nothing behind the reply or behind `room` is touched. The result is
// the length of the whole reply, whether it fitted or not.
//
// Kept, because games have read such replies for years: the payload stands eight bytes too far
// to the front, over the ICMP header; the checksum counts what the payload left in its own field
// and what stood in the buffer behind it; and the bytes of the IP header's checksum are swapped.
u32 ForgePingReply(const ping_request_t& request, u8* buffer, u32 room) noexcept;

}  // namespace moru_vyr::lsp
