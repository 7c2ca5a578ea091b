// The trace: lines of text in a ring buffer that survives a crash.
//
// The ring is in memory that a parent process may share, so the last lines can be printed even if a
// signal killed the simulated process. The hash covers every line of the run, including those that
// the ring has overwritten: two runs with the same hash were the same run. Lines therefore never
// contain a pointer, a real time or a real process id.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct TraceRing {
  static constexpr uint32_t kLines = 2048;
  static constexpr uint32_t kLineBytes = 192;

  uint64_t hash;
  uint64_t count;  // lines ever written
  char lines[kLines][kLineBytes];
};

// Zeroed memory shared between a forked child, which writes it, and its parent. Never freed.
TraceRing* NewSharedTraceRing();

void AddTraceLine(TraceRing& ring, const std::string& line);

// The newest lines, oldest first.
std::vector<std::string> NewestLines(const TraceRing& ring, size_t most);

// Prints them to stderr.
void PrintTrace(const TraceRing& ring, size_t most);

// printf into a string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sim
