// The calendar clock.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace common {

inline constexpr u64 kUnixTicksPerMs = 10000;

// Since 1 January 1970, in units of 100 ns: the system's clock counts them from 1601. The user may
// set the clock back.
inline u64 UnixTicks() noexcept {
  constexpr u64 kUnixEpoch = 116444736000000000;
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return ((u64{now.dwHighDateTime} << 32) | now.dwLowDateTime) - kUnixEpoch;
}

inline u64 UnixTimeMs() noexcept { return UnixTicks() / kUnixTicksPerMs; }

}  // namespace common
