#include "port/sim/icmp.h"

namespace sim {

namespace {

void Put16(std::string& out, size_t at, uint32_t value) {
  out[at] = static_cast<char>(value >> 8 & 0xff);
  out[at + 1] = static_cast<char>(value & 0xff);
}
void Put32(std::string& out, size_t at, uint32_t value) {
  Put16(out, at, value >> 16);
  Put16(out, at + 2, value & 0xffff);
}
uint8_t Byte(std::string_view in, size_t at) { return static_cast<uint8_t>(in[at]); }
uint16_t Get16(std::string_view in, size_t at) {
  return static_cast<uint16_t>(Byte(in, at) << 8 | Byte(in, at + 1));
}
uint32_t Get32(std::string_view in, size_t at) {
  return static_cast<uint32_t>(Get16(in, at)) << 16 | Get16(in, at + 2);
}

constexpr uint8_t kUdpNumber = 17;

}  // namespace

uint16_t Checksum(std::string_view bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) sum += Get16(bytes, i);
  if (bytes.size() % 2) sum += static_cast<uint32_t>(Byte(bytes, bytes.size() - 1)) << 8;
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

std::string IpHeader(uint8_t protocol, uint32_t from, uint32_t to, size_t payload, uint16_t id) {
  std::string header(kIpHeaderSize, '\0');
  header[0] = 0x45;  // version 4, five words
  Put16(header, 2, static_cast<uint32_t>(kIpHeaderSize + payload));
  Put16(header, 4, id);
  header[8] = 64;  // time to live
  header[9] = static_cast<char>(protocol);
  Put32(header, 12, from);
  Put32(header, 16, to);
  Put16(header, 10, Checksum(header));
  return header;
}

void SealIcmp(std::string& message) {
  Put16(message, 2, 0);
  Put16(message, 2, Checksum(message));
}

std::string PortUnreachable(const Packet& datagram) {
  std::string udp(8, '\0');
  Put16(udp, 0, datagram.from.port);
  Put16(udp, 2, datagram.to.port);
  Put16(udp, 4, static_cast<uint32_t>(8 + datagram.payload.size()));
  std::string message(kIcmpHeaderSize, '\0');
  message[0] = kIcmpUnreachable;
  message[1] = kIcmpPortUnreachable;
  message += IpHeader(kUdpNumber, datagram.from.ip, datagram.to.ip, 8 + datagram.payload.size(), 0);
  message += udp;
  SealIcmp(message);
  return message;
}

bool ReadPortUnreachable(std::string_view message, Address* from, Address* to) {
  constexpr size_t kQuote = kIcmpHeaderSize;
  if (message.size() < kQuote + kIpHeaderSize + 8) return false;
  if (Byte(message, 0) != kIcmpUnreachable || Byte(message, 1) != kIcmpPortUnreachable)
    return false;
  if (Byte(message, kQuote + 9) != kUdpNumber) return false;
  from->ip = Get32(message, kQuote + 12);
  to->ip = Get32(message, kQuote + 16);
  from->port = Get16(message, kQuote + kIpHeaderSize);
  to->port = Get16(message, kQuote + kIpHeaderSize + 2);
  return true;
}

}  // namespace sim
