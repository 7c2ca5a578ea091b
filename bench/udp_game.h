// A game of datagrams, with the library in it or without, whose flows a server echoes, and which
// measures what it is told to. Its socket calls are Winsock's, the same in every way of running it.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/game_library.h"
#include "bench/game_process.h"

namespace bench {

enum class DatagramTask : std::uint32_t {
  kReply,   // one flow, one datagram at a time
  kStream,  // all flows at once, each with `window` datagrams on their way
  kPaced,   // `hertz` datagrams a second on each flow, in turn, one at a time
};

struct DatagramOrder {
  DatagramTask task;
  std::uint32_t flows;
  std::uint64_t round_trips;  // of each flow
  std::uint32_t window;
  std::uint32_t hertz;
  bool settle;  // before it begins, so that only what datagrams cost is left to be seen
  bool operator==(const DatagramOrder&) const = default;
};

struct DatagramOutcome {
  bool worked;
  double seconds;
  double median_us;  // of one round trip
  double p99_us;
  std::uint64_t round_trips;  // that came to their end
  std::uint64_t lost;
  double game_cpu_s;          // used by the game's own threads, the library's hooks among it
  double library_cpu_s;       // by the other threads of its process
  double forwarder_cpu_s;     // by the forwarders
  std::uint64_t allocations;  // of all threads of the game's process
};

struct DatagramGameOptions {
  std::string address;  // what its flows go to, as it thinks
  std::uint16_t port = 0;
  bool with_library = false;
  LibrarySetup library;
  std::vector<pid_t> forwarders;  // process groups whose processor time counts
};

using DatagramGame = GameProcess<DatagramOrder, DatagramOutcome>;
std::unique_ptr<DatagramGame> StartGame(const DatagramGameOptions& options);

}  // namespace bench
