#include "port/sim/trace.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim {

TraceRing* NewSharedTraceRing() {
  void* memory =
      mmap(nullptr, sizeof(TraceRing), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::perror("sim: no memory for the trace");
    std::abort();
  }
  return static_cast<TraceRing*>(memory);
}

void AddTraceLine(TraceRing& ring, const std::string& line) {
  for (const char c : line)
    ring.hash = (ring.hash ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
  ring.hash = (ring.hash ^ '\n') * 0x100000001b3u;
  char* slot = ring.lines[ring.count++ % TraceRing::kLines];
  const size_t size = std::min<size_t>(line.size(), TraceRing::kLineBytes - 1);
  std::memcpy(slot, line.data(), size);
  slot[size] = 0;
}

std::vector<std::string> NewestLines(const TraceRing& ring, size_t most) {
  const uint64_t kept = std::min<uint64_t>({ring.count, TraceRing::kLines, most});
  std::vector<std::string> out;
  for (uint64_t i = ring.count - kept; i < ring.count; ++i) {
    const char* slot = ring.lines[i % TraceRing::kLines];
    out.emplace_back(slot, strnlen(slot, TraceRing::kLineBytes));
  }
  return out;
}

void PrintTrace(const TraceRing& ring, size_t most) {
  const auto lines = NewestLines(ring, most);
  std::fprintf(stderr, "sim: the last %zu of %llu trace lines:\n", lines.size(),
               static_cast<unsigned long long>(ring.count));
  for (const auto& line : lines) std::fprintf(stderr, "  %s\n", line.c_str());
}

std::string Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

}  // namespace sim
