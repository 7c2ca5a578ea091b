// One run of the game's server, and what it prints.
#pragma once

#include <csignal>
#include <string>

#include "game/server.h"

namespace game {

// Prints a line once it listens, under the name that the address has been given by, and the figures
// of each player at the end. False if it could not listen.
bool Serve(const ServerOptions& options, const std::string& address,
           const volatile std::sig_atomic_t* ended);

}  // namespace game
