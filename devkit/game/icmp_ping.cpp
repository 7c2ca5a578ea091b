#include "game/icmp_ping.h"

#include <cstddef>
#include <cstring>
#include <random>
#include <utility>

namespace game {
namespace {

constexpr uint8_t kEchoRequest = 8;
constexpr uint8_t kEchoReply = 0;

#pragma pack(push, 1)
struct Echo {
  uint8_t type = kEchoRequest;
  uint8_t code = 0;
  uint16_t checksum = 0;
  uint16_t identifier = 0;
  uint16_t sequence = 0;  // network byte order
  uint8_t payload[32] = {};
};
#pragma pack(pop)
static_assert(sizeof(Echo) == 40);
static_assert(offsetof(Echo, type) == 0);
static_assert(offsetof(Echo, code) == 1);
static_assert(offsetof(Echo, checksum) == 2);
static_assert(offsetof(Echo, identifier) == 4);
static_assert(offsetof(Echo, sequence) == 6);
static_assert(offsetof(Echo, payload) == 8);

}  // namespace

uint16_t InternetChecksum(const void* bytes, size_t size) {
  const auto* const from = static_cast<const uint8_t*>(bytes);
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < size; i += 2) {
    uint16_t word = 0;
    std::memcpy(&word, from + i, sizeof word);
    sum += word;
  }
  if (size % 2 != 0) sum += from[size - 1];
  while (sum > 0xffff) sum = (sum >> 16) + (sum & 0xffff);
  return static_cast<uint16_t>(~sum);
}

std::string IcmpPing::Open() {
  Socket s(SOCK_RAW, IPPROTO_ICMP);
  if (!s.is_open()) return "no raw socket: " + ErrorText(WSAGetLastError());
  if (!s.SetNonBlocking() ||
      connect(s.get(), reinterpret_cast<const sockaddr*>(&server_), sizeof server_) != 0) {
    return "cannot ping " + std::string(inet_ntoa(server_.sin_addr)) + ": " +
           ErrorText(WSAGetLastError());
  }
  socket_ = std::move(s);
  identifier_ = static_cast<uint16_t>(std::random_device()());
  return "";
}

void IcmpPing::Send() {
  Echo echo;
  echo.identifier = identifier_;
  echo.sequence = htons(static_cast<u_short>(sent_us_.size()));
  echo.checksum = InternetChecksum(&echo, sizeof echo);
  sent_us_.push_back(NowUs());
  send(socket_.get(), reinterpret_cast<const char*>(&echo), sizeof echo, 0);
}

void IcmpPing::Receive() {
  char packet[512];
  for (int got = 0; (got = recv(socket_.get(), packet, sizeof packet, 0)) > 0;) {
    const size_t header = static_cast<size_t>(packet[0] & 0x0f) * 4;
    if (static_cast<size_t>(got) < header + 8) continue;
    Echo reply;
    std::memcpy(static_cast<void*>(&reply), packet + header, 8);
    const size_t sequence = ntohs(reply.sequence);
    if (reply.type != kEchoReply || reply.identifier != identifier_ ||
        sequence >= sent_us_.size() || sent_us_[sequence] == 0) {
      continue;
    }
    const uint64_t sent = std::exchange(sent_us_[sequence], 0);
    latest_us_ = static_cast<uint32_t>(NowUs() - sent);
    round_trips_us_.push_back(latest_us_);
  }
}

}  // namespace game
