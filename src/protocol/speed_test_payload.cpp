#include "protocol/speed_test_payload.h"

#include <algorithm>
#include <cstring>

namespace moru_vyr::lsp {

bool ReadSpeedTestReply(void* datagram, u32 length, UdpAcclHeader* header,
                        SpeedTestPayload* payload) noexcept {
  const int head_len = header->Unpack(datagram, length);
  if (head_len <= 0 || (header->flags & kUdpAcclSpeedTest) == 0) return false;
  if (length != static_cast<u32>(head_len) + sizeof *payload) return false;
  std::memcpy(static_cast<void*>(payload), static_cast<const u8*>(datagram) + head_len,
              sizeof *payload);
  return payload->magic == kSpeedTestMagic;
}

u32 SpeedTestDelay(u64 now, u64 send_time) noexcept {
  const auto delay = static_cast<std::int64_t>(now - send_time);
  return static_cast<u32>(std::clamp<std::int64_t>(delay, 1, kMaxSpeedTestDelay));
}

}  // namespace moru_vyr::lsp
