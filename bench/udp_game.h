// A game that sends datagrams to an echo server and carries out measurements, with or without the
// library in its process. It makes the same Winsock calls in every way of running it.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/game_library.h"
#include "bench/game_process.h"
#include "bench/histogram.h"

namespace bench {

enum class DatagramTask : std::uint32_t {
  kReply,   // one flow, one datagram at a time
  kStream,  // all flows at once, each with `window` datagrams in flight
  kPaced,   // all flows at once, each with `hertz` datagrams a second, one at a time
};

struct DatagramOrder {
  DatagramTask task = DatagramTask::kReply;
  std::uint32_t flows = 1;
  std::uint64_t round_trips = 0;  // of each flow
  std::uint32_t window = 1;
  std::uint32_t hertz = 0;
  std::uint32_t bytes = 100;  // a game's usual datagram
  bool busy = false;          // the game keeps every processor busy meanwhile
  bool settle = false;        // wait before it begins, so that only the datagrams are measured
  bool brief = false;         // uses less than the clocks can tell: only has to get through
  bool operator==(const DatagramOrder&) const = default;
};

struct DatagramOutcome {
  bool worked;
  double seconds;
  double median_us;  // of one round trip
  double p99_us;
  double jitter_us;           // the mean difference between a flow's round trip and its next
  std::uint64_t round_trips;  // completed
  std::uint64_t lost;
  double game_cpu_s;          // used by the game's own threads, including the library's hooks
  double library_cpu_s;       // by the other threads of its process
  double forwarder_cpu_s;     // by the forwarders
  std::uint64_t allocations;  // of all threads of the game's process
  Histogram times;            // of all round trips, in nanoseconds
};

struct DatagramGameOptions {
  std::string address;  // the address that its flows go to
  std::uint16_t port = 0;
  bool with_library = false;
  LibrarySetup library;
  std::vector<pid_t> forwarders;  // the process groups whose processor time counts
};

using DatagramGame = GameProcess<DatagramOrder, DatagramOutcome>;
std::unique_ptr<DatagramGame> StartGame(const DatagramGameOptions& options);

}  // namespace bench
