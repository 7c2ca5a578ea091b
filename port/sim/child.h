// Runs a world in a process of its own: static objects start fresh, and a crash or a hang does not
// affect other tests.
#pragma once
#include <chrono>
#include <functional>
#include <string>

#include "port/sim/sim.h"

namespace sim {

struct ChildResult {
  bool passed = false;  // the body returned and `failed` said no
  bool skipped = false;
  int exit_code = -1;  // -1: it did not exit normally
  int signal = 0;      // the signal that ended it; 0: none
  bool timed_out = false;
  std::string output;  // its stdout and stderr
  uint64_t trace_hash = 0;
  uint64_t trace_lines = 0;
  std::string last_lines;  // of the trace

  // "was ended by signal 11 (Segmentation fault)", …
  std::string HowItEnded() const;
};

enum class Verdict { kPassed, kFailed, kSkipped };

// Runs `body` as the director of a new world in a forked process, and waits for it. `failed` is
// called when the body has returned. `wall_limit` is real time: it bounds a body that loops without
// making any call.
ChildResult RunInChild(const Options& options, const std::function<void(World&)>& body,
                       const std::function<Verdict()>& verdict,
                       std::chrono::seconds wall_limit = std::chrono::seconds(120));

// Reads the seed from VYR_SEED. False if it is not set.
bool SeedFromEnvironment(uint64_t* seed);

// The command that runs this test again with this seed.
std::string ReplayCommand(const std::string& test_name, uint64_t seed);

}  // namespace sim
