// Messages from a node and to a node: any bytes with any length. A record is refused with a known
// error, or read within its bytes and packed again to the same bytes.
#include <cstring>
#include <vector>

#include "check.h"
#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "protocol/speed_test_payload.h"
#include "protocol/udp_accl_header.h"

namespace {

using namespace moru_vyr::lsp;
using fuzz::Require;

using Bytes = std::vector<unsigned char>;

template <class Message>
void ReadMessage(const Bytes& bytes) {
  Message message;
  const int size = message.Unpack(bytes);
  if (size < 0) {
    Require(size == kUnpackTooShort || size == kBadLength || size == kBadMagic, "a known error");
    return;
  }
  Require(bytes.size() >= static_cast<std::size_t>(size), "no more than there is");
  const u16 reserved = message.header.reserved;
  Bytes again(sizeof message);
  Require(message.Pack(again) == size, "packed again, as long as before");
  Require(message.header.reserved == reserved, "packing changes no reserved bytes");
  // The magic is kept; length and version are overwritten.
  Require(std::memcmp(again.data(), bytes.data(), 4) == 0, "the magic");
  Require(std::memcmp(again.data() + 8, bytes.data() + 8, static_cast<std::size_t>(size) - 8) == 0,
          "and the same bytes behind it");
}

void ReadDatagram(const Bytes& bytes) {
  UdpAcclHeader header;
  const int head_len = header.Unpack(bytes);
  if (head_len < 0) {
    Require(head_len == kUnpackTooShort || head_len == kBadLength, "a known error");
  } else {
    Require(head_len >= 20 && head_len <= 255 && bytes.size() >= 20 && header.version == 1,
            "a header within the datagram");
  }

  SpeedTestPayload payload;
  if (ReadSpeedTestReply(bytes, &header, &payload)) {
    Require(head_len > 0 && bytes.size() == static_cast<std::size_t>(head_len) + 16,
            "a probe is exactly as long");
    const u32 delay = SpeedTestDelay(1'700'000'000'000, payload.send_time);
    Require(delay >= 1 && delay <= kMaxSpeedTestDelay, "a delay is in its range");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const Bytes bytes(data, data + size);
  ReadMessage<NegoRequest>(bytes);
  ReadMessage<NegoResponse>(bytes);
  ReadDatagram(bytes);
  return 0;
}
