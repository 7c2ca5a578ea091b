// The UDP side of the game: beats to each server at a steady rate, and the answers.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "game/beat.h"
#include "game/counts.h"
#include "game/sockets.h"

namespace game {

struct ServerFigures {
  sockaddr_in address = {};
  uint32_t sent = 0;
  uint32_t send_errors = 0;
  uint32_t arrived = 0;  // as the server counts, by its latest answer
  Counts answers;
  uint32_t source_mismatches = 0;  // answers of this server that came from another address
  uint32_t damaged = 0;            // answers whose content differs from what was sent
  std::vector<uint32_t> round_trips_us;
  uint16_t port_at_begin = 0;
  uint16_t port_at_end = 0;

  uint32_t lost() const { return sent - answers.received(); }
};

class Heartbeat {
 public:
  // One socket for all servers, or a connected one for each. `size` is the size of each datagram.
  Heartbeat(const std::vector<sockaddr_in>& servers, bool connected, size_t size);

  // Empty, or why the sockets cannot be created.
  std::string Open();

  void SendAll();
  void Receive();    // receives all that have arrived, without waiting
  void NotePorts();  // at the end

  const std::vector<SOCKET>& sockets() const { return handles_; }
  const std::vector<ServerFigures>& servers() const { return servers_; }
  uint32_t strangers() const { return strangers_; }
  uint32_t receive_errors() const { return receive_errors_; }
  int last_error() const { return last_error_; }

  // The beats of the last second, over all servers, for the line that is shown while it plays.
  uint32_t TakeLatestUs() { return std::exchange(latest_us_, 0); }

 private:
  SOCKET SocketFor(size_t server) const { return handles_[connected_ ? server : 0]; }
  void ReceiveOn(size_t index);
  void Take(const char* datagram, size_t size, const sockaddr_in& from, size_t socket_index);
  bool IsWhole(const char* datagram, size_t size, uint8_t fill) const;

  std::vector<ServerFigures> servers_;
  const bool connected_;
  const size_t size_;
  uint32_t session_ = 0;
  std::vector<Socket> owned_;
  std::vector<SOCKET> handles_;
  uint32_t strangers_ = 0;
  uint32_t receive_errors_ = 0;
  int last_error_ = 0;
  uint32_t latest_us_ = 0;
};

}  // namespace game
