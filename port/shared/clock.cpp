// Calendar time; the backend supplies the time and the time zone.
#include <windows.h>

#include <cerrno>

#include "port/shared/backend.h"

namespace {

constexpr int64_t kUnixEpoch = 116'444'736'000'000'000;  // in 100 ns since 1 January 1601
constexpr int64_t kTicksPerSecond = 10'000'000;

}  // namespace

void WINAPI GetLocalTime(LPSYSTEMTIME out) {
  const int64_t now = port::UnixTicks();
  struct tm fields = {};
  port::BreakDown(now / kTicksPerSecond, &fields);
  out->wYear = static_cast<WORD>(fields.tm_year + 1900);
  out->wMonth = static_cast<WORD>(fields.tm_mon + 1);
  out->wDayOfWeek = static_cast<WORD>(fields.tm_wday);
  out->wDay = static_cast<WORD>(fields.tm_mday);
  out->wHour = static_cast<WORD>(fields.tm_hour);
  out->wMinute = static_cast<WORD>(fields.tm_min);
  out->wSecond = static_cast<WORD>(fields.tm_sec);
  out->wMilliseconds = static_cast<WORD>(now / 10'000 % 1000);
}

void WINAPI GetSystemTimeAsFileTime(LPFILETIME out) {
  const int64_t ticks = kUnixEpoch + port::UnixTicks();
  out->dwLowDateTime = static_cast<DWORD>(ticks);
  out->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
}

time_t vyr_port_time(time_t* out) {
  const time_t now = port::UnixTicks() / kTicksPerSecond;
  if (out) *out = now;
  return now;
}

int vyr_port_localtime_s(struct tm* out, const time_t* when) {
  return out && when && *when >= 0 && port::BreakDown(*when, out) ? 0 : EINVAL;
}
