// The game's server: answers beats and keeps the lobby, at one address over both protocols.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "game/counts.h"
#include "game/sockets.h"

namespace game {

struct ServerOptions {
  sockaddr_in listen = {};
  uint32_t delay_ms = 0;      // before each answer
  uint32_t jitter_ms = 0;     // on top, at random up to this; answers may overtake one another
  uint32_t loss_percent = 0;  // answers that are not sent
  uint32_t seed = 1;
};

struct PlayerFigures {
  Counts beats;
  uint32_t answered = 0;
  uint32_t withheld = 0;
  std::string last_address;
  uint32_t address_changes = 0;  // beats from a different address than the one before
};

class Server {
 public:
  explicit Server(const ServerOptions& options) : options_(options), random_(options.seed) {}

  // Empty, or why it cannot listen.
  std::string Open();

  // Serves for at most this long.
  void Step(unsigned wait_ms);

  // By session and number of the server.
  using Players = std::map<std::pair<uint32_t, uint16_t>, PlayerFigures>;
  const Players& players() const { return players_; }
  uint32_t strangers() const { return strangers_; }
  uint32_t guests() const { return guests_; }  // of the lobby, so far
  uint32_t words() const { return words_; }    // messages that the lobby has answered

 private:
  struct Answer {
    sockaddr_in to;
    std::string datagram;
  };
  struct Guest {
    Socket socket;
    std::string name;
    std::string pending;
    unsigned words = 0;
    bool left = false;
  };

  void ReceiveBeats();
  void TakeBeat(std::string datagram, const sockaddr_in& from);
  void SendDue();
  void Accept();
  void Serve(Guest* guest);
  void TakeLine(Guest* guest, const std::string& line);

  const ServerOptions options_;
  std::mt19937 random_;
  Socket datagrams_, listener_;
  Players players_;
  std::multimap<uint64_t, Answer> due_;  // by the time when it is
  std::list<Guest> lobby_;
  uint32_t strangers_ = 0;
  uint32_t guests_ = 0;
  uint32_t words_ = 0;
};

}  // namespace game
