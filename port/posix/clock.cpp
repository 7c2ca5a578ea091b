#include <sched.h>

#include <chrono>

#include "port/posix/threads.h"

namespace {

timespec Now(clockid_t clock) {
  timespec now;
  ::clock_gettime(clock, &now);
  return now;
}

}  // namespace

namespace port {

int64_t UnixTicks() {
  const timespec now = Now(CLOCK_REALTIME);
  return now.tv_sec * 10'000'000 + now.tv_nsec / 100;
}

bool BreakDown(time_t moment, struct tm* out) { return ::localtime_r(&moment, out) != nullptr; }

}  // namespace port

DWORD WINAPI GetTickCount() {
  const timespec now = Now(CLOCK_MONOTONIC);
  return static_cast<DWORD>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                            static_cast<uint64_t>(now.tv_nsec) / 1'000'000);
}

BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* count) {
  const timespec now = Now(CLOCK_MONOTONIC);
  count->QuadPart = now.tv_sec * 1'000'000'000LL + now.tv_nsec;
  return TRUE;
}

BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* per_second) {
  per_second->QuadPart = 1'000'000'000;
  return TRUE;
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
