#include <sched.h>

#include <cerrno>
#include <chrono>

#include "port/posix/threads.h"

namespace {

constexpr int64_t kUnixEpoch = 116'444'736'000'000'000;  // in 100 ns since 1 January 1601

timespec Now(clockid_t clock) {
  timespec now;
  ::clock_gettime(clock, &now);
  return now;
}

}  // namespace

DWORD WINAPI GetTickCount() {
  const timespec now = Now(CLOCK_MONOTONIC);
  return static_cast<DWORD>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                            static_cast<uint64_t>(now.tv_nsec) / 1'000'000);
}

void WINAPI GetLocalTime(LPSYSTEMTIME out) {
  const timespec now = Now(CLOCK_REALTIME);
  struct tm fields = {};
  ::localtime_r(&now.tv_sec, &fields);
  out->wYear = static_cast<WORD>(fields.tm_year + 1900);
  out->wMonth = static_cast<WORD>(fields.tm_mon + 1);
  out->wDayOfWeek = static_cast<WORD>(fields.tm_wday);
  out->wDay = static_cast<WORD>(fields.tm_mday);
  out->wHour = static_cast<WORD>(fields.tm_hour);
  out->wMinute = static_cast<WORD>(fields.tm_min);
  out->wSecond = static_cast<WORD>(fields.tm_sec);
  out->wMilliseconds = static_cast<WORD>(now.tv_nsec / 1'000'000);
}

void WINAPI GetSystemTimeAsFileTime(LPFILETIME out) {
  const timespec now = Now(CLOCK_REALTIME);
  const int64_t ticks = kUnixEpoch + now.tv_sec * 10'000'000 + now.tv_nsec / 100;
  out->dwLowDateTime = static_cast<DWORD>(ticks);
  out->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
}

void WINAPI Sleep(DWORD ms) {
  port::EndIfTold();
  if (ms == 0) {
    ::sched_yield();
    return;
  }
  port::Thread& thread = port::Self();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  {
    std::unique_lock hold(port::KernelLock());
    thread.waits_for = &thread;
    const auto told = [&] { return thread.told_to_end.load(); };
    if (ms == INFINITE) {
      thread.changed.wait(hold, told);
    } else {
      thread.changed.wait_until(hold, deadline, told);
    }
    thread.waits_for = nullptr;
  }
  port::EndIfTold();
}

time_t vyr_port_time(time_t* out) {
  const time_t now = Now(CLOCK_REALTIME).tv_sec;
  if (out) *out = now;
  return now;
}

int vyr_port_localtime_s(struct tm* out, const time_t* when) {
  if (!out || !when || *when < 0 || !::localtime_r(when, out)) return EINVAL;
  return 0;
}
