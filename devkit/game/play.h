// One run of the game: lobby, heartbeat and ping, and their results.
#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "game/sockets.h"

namespace game {

struct PlayOptions {
  std::vector<sockaddr_in> servers;
  std::optional<sockaddr_in> lobby;
  double rate = 30;           // beats a second to each server
  double seconds = 10;        // 0: until ended
  unsigned size = 64;         // bytes of each beat
  unsigned linger_ms = 1000;  // how long to wait for the last answers
  bool connected = false;
  bool ping = false;
  bool json = false;
};

// Prints a line each second, and the figures at the end. False if it could not play at all; effects
// of the network on a game are figures, not failures.
bool Play(const PlayOptions& options, const volatile std::sig_atomic_t* ended);

}  // namespace game
