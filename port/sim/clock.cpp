#include "port/sim/threads.h"

namespace {

// Reading a clock is not a preemption point, but counts as a step: a loop that only reads the time
// must eventually see it advance.
sim::Micros SinceStart() {
  sim::Self();
  sim::Scheduler& scheduler = sim::TheWorld().scheduler();
  scheduler.Look();
  return scheduler.now();
}

}  // namespace

namespace port {

int64_t UnixTicks() { return (sim::TheWorld().options().unix_start_ms * 1000 + SinceStart()) * 10; }

// The simulated machine's time zone is UTC.
bool BreakDown(time_t moment, struct tm* out) { return ::gmtime_r(&moment, out) != nullptr; }

}  // namespace port

DWORD WINAPI GetTickCount() {
  const auto passed = static_cast<uint64_t>(SinceStart()) / 1000;
  return sim::TheWorld().options().tick_start + static_cast<DWORD>(passed);
}

BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* count) {
  count->QuadPart = SinceStart();
  return TRUE;
}

BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* per_second) {
  per_second->QuadPart = 1'000'000;
  return TRUE;
}

void WINAPI Sleep(DWORD ms) {
  sim::Self();
  sim::Scheduler& scheduler = sim::TheWorld().scheduler();
  scheduler.Step();
  if (ms == 0) {
    scheduler.Yield();
    return;
  }
  sim::Wait wait;
  wait.what = "time to pass (Sleep)";
  if (ms != INFINITE) wait.deadline = scheduler.DeadlineIn(sim::Micros{ms} * 1000);
  scheduler.Block(wait);
}
