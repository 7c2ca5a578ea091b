// The simulated world of a fuzz target, made before its first input. There is one for the whole
// run, because a world keeps its memory; and it has no end, since a search takes days of its time.
#include <winsock2.h>

#include <limits>

#include "check.h"
#include "port/sim/sim.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  sim::Options options;
  options.preempt_percent = 0;
  options.max_steps = std::numeric_limits<std::uint64_t>::max();
  options.max_time = sim::Duration(std::numeric_limits<std::int64_t>::max() / 4);
  new sim::World(options);  // never freed, like the one that a program gets by itself
  WSADATA data;
  fuzz::Require(WSAStartup(MAKEWORD(2, 2), &data) == 0);
  return 0;
}
