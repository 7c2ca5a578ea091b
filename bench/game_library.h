// Puts the library into this process, as the machine's Winsock would: listed as a game, with the
// tables that its client would serve, above the base provider.
#pragma once
#include <cstdint>
#include <string>

namespace bench {

// How much the library does for a flow of datagrams besides carrying it.
enum class Care : std::uint8_t {
  kAll,        // as for a game whose links are watched: probes, losses, statistics
  kNoProbes,   // the same, but no probe is ever due
  kNoMeasure,  // the same, and losses are not counted either
};

struct LibrarySetup {
  std::string server;  // the game server; everything else stays direct
  std::string node;    // empty: its connections are relayed, but to no node
  std::uint16_t node_port = 0;
  std::string folder;  // C: of this process
  Care care = Care::kAll;
};

// Call before the first socket, from the only thread. It cannot be undone.
void InstallLibrary(const LibrarySetup& setup);

}  // namespace bench
