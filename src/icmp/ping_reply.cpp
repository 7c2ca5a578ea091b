#include "icmp/ping_reply.h"

#include <winsock2.h>

#include <algorithm>
#include <cstring>

#include "icmp/icmp_checksum.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kIcmpHeaderSize = 8;
constexpr u32 kZeroedSize = kIpHeaderSize + kIcmpHeaderSize;

constexpr u8 kVersionAndHeaderLength = 0x45;
constexpr u8 kTimeToLive = 54;
constexpr u8 kProtocolIcmp = 1;
constexpr u8 kEchoReply = 0;

void PutWord(u8* at, u16 word) noexcept { std::memcpy(at, &word, sizeof word); }

// The payload comes first and the header over it; see ping_reply.h.
void ForgeIcmp(const ping_request_t& request, u8* icmp) noexcept {
  std::memcpy(icmp, request.data + kIcmpHeaderSize, request.size - kIcmpHeaderSize);
  icmp[0] = kEchoReply;
  icmp[1] = 0;
  std::memcpy(icmp + 4, request.data + 4, 4);  // identifier and sequence number
  PutWord(icmp + 2, IcmpChecksum(icmp, request.size));
}

void ForgeIpHeader(const ping_request_t& request, u8* header) noexcept {
  header[0] = kVersionAndHeaderLength;
  PutWord(header + 2, htons(static_cast<u16>(request.size + kIpHeaderSize)));
  header[8] = kTimeToLive;
  header[9] = kProtocolIcmp;
  std::memcpy(header + 12, &request.ip, sizeof request.ip);
  PutWord(header + 10, IpHeaderChecksum(header, kIpHeaderSize));
}

}  // namespace

u32 ForgePingReply(const ping_request_t& request, u8* buffer, u32 room) noexcept {
  // Guard: forged aside, since the application's buffer may be shorter than the reply. It is read
  // first because its old bytes are part of the checksum. The bytes after the reply are left alone:
  // some applications state a larger size than they have.
  u8 reply[kMaxPingReplySize] = {};
  const u32 size = request.size + kIpHeaderSize;
  const u32 shared = std::min(room, size);
  std::memcpy(reply, buffer, shared);
  std::memset(reply, 0, kZeroedSize);
  ForgeIcmp(request, reply + kIpHeaderSize);
  ForgeIpHeader(request, reply);
  std::memcpy(buffer, reply, shared);
  return size;
}

}  // namespace moru_vyr::lsp
