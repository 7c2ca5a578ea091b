#include "tests/unit/wire_decoder.h"

#include <cstddef>

namespace wire {
namespace {

// Takes integers off the front, most significant byte first. Behind the end there are zeros.
class Cursor {
 public:
  explicit Cursor(const Datagram& bytes, std::size_t at = 0) : bytes_(bytes), at_(at) {}

  std::uint64_t Take(int count) {
    std::uint64_t value = 0;
    while (count-- > 0) value = value * 256 + Next();
    return value;
  }
  std::uint64_t TakeLittle(int count) {
    std::uint64_t value = 0;
    for (int i = 0; i < count; ++i) value += std::uint64_t{Next()} << (8 * i);
    return value;
  }
  std::uint8_t Byte() { return Next(); }
  std::uint16_t Word() { return static_cast<std::uint16_t>(Take(2)); }
  std::uint32_t Long() { return static_cast<std::uint32_t>(Take(4)); }
  std::string Address() {
    std::string text;
    for (int i = 0; i < 4; ++i) text += (i == 0 ? "" : ".") + std::to_string(Next());
    return text;
  }
  // Upper-case digits, a dash after the bytes 4, 6, 8 and 10.
  std::string Guid() {
    std::string text;
    for (int i = 0; i < 16; ++i) {
      if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
      const std::uint8_t byte = Next();
      text += "0123456789ABCDEF"[byte / 16];
      text += "0123456789ABCDEF"[byte % 16];
    }
    return text;
  }
  LastNode Node() {
    LastNode node;
    node.node_id = Word();
    node.port = Word();
    node.ip = Address();
    node.token = Long();
    return node;
  }

 private:
  std::uint8_t Next() { return at_ < bytes_.size() ? bytes_[at_++] : std::uint8_t{0}; }

  const Datagram& bytes_;
  std::size_t at_;
};

struct Head {
  std::uint16_t length = 0;
  std::uint16_t version = 0;
};

// `sizes` by version; `compared` is the length that pkg_len must not exceed.
int CheckHead(const Datagram& bytes, std::size_t compared, const std::array<std::size_t, 3>& sizes,
              Head* head) {
  if (bytes.size() < 10) return -3;
  Cursor cursor(bytes);
  if (cursor.Long() != 0x78DB3964) return -6;
  head->length = cursor.Word();
  head->version = cursor.Word();
  if (head->version < 1 || head->version > 3) head->version = 3;
  if (compared < head->length) return -5;
  return bytes.size() < sizes[head->version - 1u] ? -3 : 0;
}

}  // namespace

int Decode(const Datagram& bytes, Request* out) {
  Head head;
  const int error = CheckHead(bytes, bytes.size(), {49, 65, 73}, &head);
  if (error != 0) return error;
  Cursor cursor(bytes, 10);
  out->length = head.length;
  out->version = head.version;
  out->moves_flow = (cursor.Long() & 2) != 0;
  out->retry = cursor.Byte();
  out->user = cursor.Take(8);
  out->game_low = cursor.Long();
  out->game_ip = cursor.Address();
  out->game_port = cursor.Word();
  out->guid = cursor.Guid();
  if (head.version >= 2) {
    out->last_node = cursor.Node();
    out->game_idc = cursor.Long();
  }
  if (head.version >= 3) out->game = cursor.Take(8);
  return 0;
}

int Decode(const Datagram& bytes, Response* out) {
  Head head;
  const int error = CheckHead(bytes, bytes.size() % 65536, {29, 41, 41}, &head);
  if (error != 0) return error;
  Cursor cursor(bytes, 10);
  out->length = head.length;
  out->version = head.version;
  out->result = cursor.Byte();
  out->token = cursor.Long();
  out->client_isp = cursor.Long();
  out->client_ip = cursor.Address();
  out->data_ip = cursor.Address();
  out->data_port = cursor.Word();
  if (head.version >= 2) out->last_node = cursor.Node();
  return 0;
}

int Decode(const Datagram& bytes, Wrapped* out) {
  if (bytes.size() < 4) return -3;
  if (bytes[1] < 20) return -5;
  if (bytes.size() < 20) return -3;
  Cursor cursor(bytes, 2);
  out->version = 1;
  out->payload_at = bytes[1];
  out->flags = cursor.Byte();
  out->relay = cursor.Byte();
  out->seq = cursor.Long();
  out->token = cursor.Long();
  out->game_ip = cursor.Address();
  out->game_port = cursor.Word();
  cursor.Byte();
  out->lost = cursor.Byte();
  return 0;
}

bool Decode(const Datagram& bytes, Wrapped* header, Probe* out) {
  if (Decode(bytes, header) != 0 || (header->flags & 8) == 0) return false;
  if (bytes.size() != header->payload_at + 16u) return false;
  Cursor cursor(bytes, header->payload_at);
  if (cursor.TakeLittle(4) != 0x253ABD8F) return false;
  out->seq = static_cast<std::uint32_t>(cursor.TakeLittle(4));
  out->sent_ms = cursor.TakeLittle(8);
  return true;
}

}  // namespace wire
