#include <cerrno>

#include "port/sim/threads.h"

namespace {

constexpr int64_t kUnixEpoch = 116'444'736'000'000'000;  // in 100 ns since 1 January 1601

// A look at a clock is no preemption point, but it counts: a loop that only watches the time
// must see it move in the end.
sim::Micros SinceStart() {
  sim::Self();
  sim::Scheduler& scheduler = sim::TheWorld().scheduler();
  scheduler.Look();
  return scheduler.now();
}

int64_t UnixMicros() { return sim::TheWorld().options().unix_start_ms * 1000 + SinceStart(); }

}  // namespace

DWORD WINAPI GetTickCount() {
  const auto passed = static_cast<uint64_t>(SinceStart()) / 1000;
  return sim::TheWorld().options().tick_start + static_cast<DWORD>(passed);
}

// The simulated machine's time zone is UTC.
void WINAPI GetLocalTime(LPSYSTEMTIME out) {
  const int64_t now = UnixMicros();
  const time_t seconds = now / 1'000'000;
  struct tm fields = {};
  ::gmtime_r(&seconds, &fields);
  out->wYear = static_cast<WORD>(fields.tm_year + 1900);
  out->wMonth = static_cast<WORD>(fields.tm_mon + 1);
  out->wDayOfWeek = static_cast<WORD>(fields.tm_wday);
  out->wDay = static_cast<WORD>(fields.tm_mday);
  out->wHour = static_cast<WORD>(fields.tm_hour);
  out->wMinute = static_cast<WORD>(fields.tm_min);
  out->wSecond = static_cast<WORD>(fields.tm_sec);
  out->wMilliseconds = static_cast<WORD>(now / 1000 % 1000);
}

void WINAPI GetSystemTimeAsFileTime(LPFILETIME out) {
  const int64_t ticks = kUnixEpoch + UnixMicros() * 10;
  out->dwLowDateTime = static_cast<DWORD>(ticks);
  out->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
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
  if (ms != INFINITE) wait.deadline = scheduler.now() + sim::Micros{ms} * 1000;
  scheduler.Block(wait);
}

time_t vyr_port_time(time_t* out) {
  const time_t now = UnixMicros() / 1'000'000;
  if (out) *out = now;
  return now;
}

int vyr_port_localtime_s(struct tm* out, const time_t* when) {
  if (!out || !when || *when < 0 || !::gmtime_r(when, out)) return EINVAL;
  return 0;
}
