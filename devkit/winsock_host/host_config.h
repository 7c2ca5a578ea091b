// What the launcher hands to the host inside the program it starts: one record, written into the
// program's memory and given to HostStart as the argument of a remote thread. It is the same in
// 32-bit and 64-bit programs. Both sides are builds of one tree; kHostVersion keeps a stale copy of
// either from being used.
#pragma once

#include <windows.h>
#include <winsock2.h>

#include <cstddef>
#include <cstdint>

namespace winsock_host {

constexpr uint32_t kHostVersion = 1;
constexpr size_t kConfigPathChars = 520;

// What HostStart returns, as the exit code of its thread.
enum HostStartResult : uint32_t {
  kHostStarted = 0,
  kHostWrongVersion = 1,
  kHostNoReport = 2,
  kHostNoBaseProvider = 3,
};

#pragma pack(push, 1)
struct HostConfig {
  uint32_t version;
  uint32_t bare;                      // not 0: base provider alone, no library
  uint32_t report_mapping;            // handle in the program, of a mapping of a HostReport
  wchar_t library[kConfigPathChars];  // the layer; full path
  wchar_t base[kConfigPathChars];     // the base provider; full path
  wchar_t next[kConfigPathChars];     // what the catalogue names as the base; any text
};
#pragma pack(pop)
static_assert(sizeof(HostConfig) == 12 + 3 * kConfigPathChars * sizeof(wchar_t));
static_assert(offsetof(HostConfig, version) == 0);
static_assert(offsetof(HostConfig, bare) == 4);
static_assert(offsetof(HostConfig, report_mapping) == 8);
static_assert(offsetof(HostConfig, library) == 12);
static_assert(offsetof(HostConfig, base) == 12 + kConfigPathChars * sizeof(wchar_t));
static_assert(offsetof(HostConfig, next) == 12 + 2 * kConfigPathChars * sizeof(wchar_t));

// No handle has more than 32 bits, whichever kind of program it is in.
inline uint32_t HandleValue(HANDLE handle) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
}
inline HANDLE HandleOf(uint32_t value) {
  return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(value));
}

using HostStartFunction = DWORD(WINAPI*)(void* config);

}  // namespace winsock_host
