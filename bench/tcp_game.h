// A game that uses connections and carries out measurements, with or without the library in its
// process. It makes the same Winsock calls in every way of running it.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/game_process.h"

namespace bench {

enum class Task : std::uint32_t {
  kDownload,  // over one connection: `amount` bytes, after some that are not counted
  kUpload,
  kReply,    // over one connection: `amount` round trips of `message` bytes
  kConnect,  // `amount` connections, one after the other, each up to its first reply, of `message`
             // bytes or of one
  kBulk,     // over `connections` at once: `amount` bytes down each
  kBulkUp,   // the same up
  kEvents,   // over `connections` at once: `amount` round trips of `message` bytes each
};

struct Order {
  Task task;
  std::uint32_t connections;
  std::uint64_t amount;
  std::uint32_t message;      // of kMessage bytes where it has pieces
  std::uint32_t pieces = 1;   // in which a message is sent
  bool split_answer = false;  // true: the server sends its answer in two pieces
  bool operator==(const Order&) const = default;
};

struct Outcome {
  bool worked;
  double seconds;
  double median_us;        // of one round trip or connect
  double p99_us;           //
  double library_cpu_s;    // used in the game's process by threads other than the game's own
  double forwarder_cpu_s;  // used by the forwarder meanwhile
};

struct GameOptions {
  std::string server;  // the address that it connects to
  std::uint16_t port = 0;
  bool with_library = false;
  std::string node;  // where the library's node listens; empty: relayed without a node
  std::uint16_t node_port = 0;
  std::vector<pid_t> forwarders;  // the process groups whose processor time counts
  std::string folder;             // for the files that the library writes
  std::uint32_t mended = 0;       // bits of what is mended for the game
};

using Game = GameProcess<Order, Outcome>;
std::unique_ptr<Game> StartGame(const GameOptions& options);

}  // namespace bench
