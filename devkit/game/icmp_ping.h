// A game's own ping: one ICMP echo per second on a raw socket that is connected to the server.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "game/sockets.h"

namespace game {

class IcmpPing {
 public:
  explicit IcmpPing(const sockaddr_in& server) : server_(server) {}

  // Empty, or why it cannot be created: most systems require a privilege.
  std::string Open();

  void Send();
  // Call it often, because a wait for readable sockets may miss an answer. Does not wait.
  void Receive();

  const sockaddr_in& server() const { return server_; }
  bool is_open() const { return socket_.is_open(); }
  unsigned sent() const { return static_cast<unsigned>(sent_us_.size()); }
  const std::vector<uint32_t>& round_trips_us() const { return round_trips_us_; }
  // The latest answer since the previous call; 0 if there was none.
  uint32_t TakeLatestUs() { return std::exchange(latest_us_, 0); }

 private:
  const sockaddr_in server_;
  Socket socket_;
  uint16_t identifier_ = 0;
  std::vector<uint64_t> sent_us_;  // by sequence number; 0 once answered
  std::vector<uint32_t> round_trips_us_;
  uint32_t latest_us_ = 0;
};

// The Internet checksum of that many bytes, ready to be copied into them.
uint16_t InternetChecksum(const void* bytes, size_t size);

}  // namespace game
