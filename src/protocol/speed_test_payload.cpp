#include "protocol/speed_test_payload.h"

#include <algorithm>
#include <cstring>

namespace moru_vyr::lsp {

int SpeedTestPackage::Pack(std::span<u8> out) noexcept {
  if (out.size() < sizeof *this) return kPackTooShort;
  header.Pack(out);
  std::memcpy(out.data() + sizeof header, &payload, sizeof payload);
  return sizeof *this;
}

bool ReadSpeedTestReply(std::span<const u8> datagram, UdpAcclHeader* header,
                        SpeedTestPayload* payload) noexcept {
  const int head_len = header->Unpack(datagram);
  if (head_len <= 0 || (header->flags & kUdpAcclSpeedTest) == 0) return false;
  if (datagram.size() != static_cast<std::size_t>(head_len) + sizeof *payload) return false;
  std::memcpy(static_cast<void*>(payload), datagram.data() + head_len, sizeof *payload);
  return payload->magic == kSpeedTestMagic;
}

u32 SpeedTestDelay(u64 now, u64 send_time) noexcept {
  const auto delay = static_cast<std::int64_t>(now - send_time);
  return static_cast<u32>(std::clamp<std::int64_t>(delay, 1, kMaxSpeedTestDelay));
}

}  // namespace moru_vyr::lsp
