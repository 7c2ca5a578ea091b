#include "node/datagram.h"

#include <algorithm>
#include <cstring>

namespace node {

using namespace moru_vyr::lsp;

const char* ReadDatagram(const char* bytes, std::size_t size, ClientDatagram* datagram) {
  UdpAcclHeader header;
  if (size < sizeof header) return "shorter than a header";
  const int head_len = header.Unpack({reinterpret_cast<const u8*>(bytes), size});
  if (head_len < 0) return "its header is too short";
  if (static_cast<std::size_t>(head_len) > size) return "its header ends beyond it";
  if (header.flags != kUdpAcclData && header.flags != kUdpAcclEnd &&
      header.flags != kUdpAcclSpeedTest)
    return "unknown flags";
  datagram->header = header;
  datagram->payload = bytes + head_len;
  datagram->payload_size = size - static_cast<std::size_t>(head_len);
  return nullptr;
}

std::size_t WriteDatagram(const Behaviour& behaviour, UdpAcclHeader header, const char* payload,
                          std::size_t payload_size, char* out) {
  constexpr u8 kNoVersion = 9, kTooShort = 19, kFarEnd = 255;
  constexpr std::size_t kCutAt = 10;
  constexpr int kFiller = 0xEE;
  const auto head_len = static_cast<std::size_t>(behaviour.head_len);
  const auto overwrite = [out](std::size_t offset, u8 value) {
    out[offset] = static_cast<char>(value);
  };
  if (behaviour.data_token >= 0) header.accl_token = static_cast<u32>(behaviour.data_token);
  if (payload_size != 0) std::memmove(out + head_len, payload, payload_size);
  header.Pack({reinterpret_cast<u8*>(out), sizeof header});
  std::memset(out + sizeof header, kFiller, head_len - sizeof header);
  overwrite(offsetof(UdpAcclHeader, head_len), static_cast<u8>(head_len));
  const std::size_t size = head_len + payload_size;
  switch (behaviour.header) {
    case Behaviour::kShortHeader:
      overwrite(offsetof(UdpAcclHeader, head_len), kTooShort);
      return size;
    case Behaviour::kPastEnd:
      overwrite(offsetof(UdpAcclHeader, head_len), kFarEnd);
      return std::min<std::size_t>(size, kFarEnd - 1);
    case Behaviour::kCut:
      return kCutAt;
    case Behaviour::kEmpty:
      return 0;
    case Behaviour::kVersion:
      overwrite(offsetof(UdpAcclHeader, version), kNoVersion);
      return size;
    default:
      return size;
  }
}

}  // namespace node
