// Loads the library into this process as the machine's Winsock would, above the base provider. The
// process is listed as a game and has the tables that a client program would serve.
#pragma once
#include <cstdint>
#include <string>

namespace bench {

// How much the library does for a flow of datagrams besides carrying it.
enum class Care : std::uint8_t {
  kAll,        // as for a game whose links are watched: probes, losses, statistics
  kNoProbes,   // no probes
  kNoMeasure,  // no probes, and losses are not counted
};

struct LibrarySetup {
  std::string server;  // the game server; all other traffic is direct
  std::string node;    // empty: its connections are relayed without a node
  std::uint16_t node_port = 0;
  std::string folder;  // drive C: of this process
  Care care = Care::kAll;
  unsigned log_level = 6;    // above the level of every line, as in production
  std::uint32_t mended = 0;  // bits of what is mended for the game
};

// Call before the first socket, from the only thread. It cannot be undone.
void InstallLibrary(const LibrarySetup& setup);

}  // namespace bench
