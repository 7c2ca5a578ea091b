#include "icmp/icmp_checksum.h"

#include <cstring>

namespace moru_vyr::lsp {

u16 IcmpChecksum(const u8* data, std::size_t size) noexcept {
  u32 sum = 0;
  std::size_t at = 0;
  for (; at + 1 < size; at += 2) {
    u16 word;
    std::memcpy(&word, data + at, sizeof word);
    sum += word;
  }
  if (at < size) sum += data[at];
  sum = (sum >> 16) + (sum & 0xffff);
  sum += sum >> 16;
  return static_cast<u16>(~sum);
}

u16 IpHeaderChecksum(const u8* data, std::size_t size) noexcept {
  if (size % 2 != 0) return 0;
  u32 sum = 0;
  for (std::size_t at = 0; at < size; at += 2) {
    sum += static_cast<u32>(data[at]) * 256 + data[at + 1];
  }
  while (sum > 0xffff) sum = (sum >> 16) + (sum & 0xffff);
  return static_cast<u16>(~sum);
}

}  // namespace moru_vyr::lsp
