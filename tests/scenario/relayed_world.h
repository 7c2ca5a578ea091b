// A game in a process where this provider is installed, two acceleration nodes and a game server,
// each on a host of its own. The game's socket calls go through the provider.
//
// The director is the game: it makes ordinary socket calls. GameThread gives it more threads.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <functional>
#include <memory>
#include <string>

#include "abi/ip_table_formats.h"
#include "node/sim_node.h"
#include "tests/scenario/game_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/route_fixture.h"

namespace relayed_test {

inline constexpr char kGame[] = "192.0.2.1";
inline constexpr char kNodeA[] = "198.51.100.20";
inline constexpr char kNodeB[] = "198.51.100.21";

// One game server with several addresses, each with its own decision in the tables.
inline constexpr char kServer[] = "198.51.100.10";  // through A, else B
inline constexpr char kDirect[] = "198.51.100.11";  // relayed, but through no node
inline constexpr char kForced[] = "198.51.100.12";  // through A for every internet provider
inline constexpr int kPort = 27015;

}  // namespace relayed_test
