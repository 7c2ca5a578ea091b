#include "node/clock.h"

#include <windows.h>

namespace node {
namespace {

u64 Counter() {
  LARGE_INTEGER count;
  QueryPerformanceCounter(&count);
  return static_cast<u64>(count.QuadPart);
}

u64 CountsPerSecond() {
  LARGE_INTEGER per_second;
  QueryPerformanceFrequency(&per_second);
  return static_cast<u64>(per_second.QuadPart);
}

}  // namespace

Clock::Clock() : per_second_(CountsPerSecond()), start_(Counter()) {}

// In two parts, for the product of a long time and a thousand may not fit.
u64 Clock::Passed(u64 more) const {
  const u64 counts = Counter() - start_;
  return counts / per_second_ * 1000 + (counts % per_second_ * 1000 + more) / per_second_;
}

}  // namespace node
