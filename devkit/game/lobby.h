// The TCP side of the game: a lobby that is joined before the game and left after it, with a
// message and an answer every second in between.
#pragma once

#include <string>

#include "game/sockets.h"

namespace game {

class Lobby {
 public:
  // Waits for the connection. Empty, or why it failed.
  std::string Join(const sockaddr_in& server);

  void Say();      // sends the next numbered message
  void Receive();  // receives all that have arrived, without waiting
  // Says goodbye, and waits at most that long for the answer.
  void Leave(unsigned wait_ms);

  bool is_joined() const { return socket_.is_open(); }
  SOCKET socket() const { return socket_.get(); }
  const std::string& welcome() const { return welcome_; }
  bool was_left_well() const { return goodbye_; }
  bool is_lost() const { return is_lost_; }
  unsigned said() const { return said_; }
  unsigned answered() const { return answered_; }
  unsigned wrong() const { return wrong_; }  // lines that are not valid answers
  uint32_t last_round_trip_us() const { return last_round_trip_us_; }

 private:
  void Send(const std::string& line);
  void TakeLine(const std::string& line);

  Socket socket_;
  std::string pending_;  // the beginning of a line
  std::string welcome_;
  unsigned said_ = 0;
  unsigned answered_ = 0;
  unsigned wrong_ = 0;
  bool goodbye_ = false;
  bool is_lost_ = false;
  uint64_t said_us_ = 0;
  uint32_t last_round_trip_us_ = 0;
};

}  // namespace game
