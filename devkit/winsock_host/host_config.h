// What the launcher passes to the host inside the program that it starts: one record, written into
// the program's memory and given to HostStart as the argument of a remote thread. It is the same in
// 32-bit and 64-bit programs. Both sides are builds of one tree; kHostVersion keeps a stale copy of
// either from being used.
#pragma once

#include <windows.h>
#include <winsock2.h>

#include <cstddef>
#include <cstdint>

namespace winsock_host {

constexpr uint32_t kHostVersion = 3;
constexpr size_t kConfigPathChars = 520;

// What HostStart returns, as the exit code of its thread.
enum HostStartResult : uint32_t {
  kHostStarted = 0,
  kHostWrongVersion = 1,
  kHostNoReport = 2,
  kHostNoBaseProvider = 3,
  kHostNoCatalogue = 4,
};

#pragma pack(push, 1)
struct HostConfig {
  uint32_t version;
  uint32_t bare;                        // not 0: base provider alone, no library
  uint32_t report_mapping;              // handle in the program, of a mapping of a HostReport
  uint32_t one_guid;                    // not 0: one provider GUID for all layered entries
  uint32_t start_each_entry;            // not 0: a start per catalogue entry, else one per GUID
  uint32_t cleanup_after_end;           // not 0: WSPCleanup comes when Winsock has ended already
  uint32_t keep_loaded;                 // not 0: the last WSACleanup unloads no provider
  wchar_t library[kConfigPathChars];    // the layer; full path
  wchar_t base[kConfigPathChars];       // the base provider; full path
  wchar_t next[kConfigPathChars];       // what the catalogue names as the base; any text
  wchar_t catalogue[kConfigPathChars];  // a file with the catalogue; empty: the host's own
};
#pragma pack(pop)
static_assert(sizeof(HostConfig) == 28 + 4 * kConfigPathChars * sizeof(wchar_t));
static_assert(offsetof(HostConfig, version) == 0);
static_assert(offsetof(HostConfig, bare) == 4);
static_assert(offsetof(HostConfig, report_mapping) == 8);
static_assert(offsetof(HostConfig, one_guid) == 12);
static_assert(offsetof(HostConfig, start_each_entry) == 16);
static_assert(offsetof(HostConfig, cleanup_after_end) == 20);
static_assert(offsetof(HostConfig, keep_loaded) == 24);
static_assert(offsetof(HostConfig, library) == 28);
static_assert(offsetof(HostConfig, base) == 28 + kConfigPathChars * sizeof(wchar_t));
static_assert(offsetof(HostConfig, next) == 28 + 2 * kConfigPathChars * sizeof(wchar_t));
static_assert(offsetof(HostConfig, catalogue) == 28 + 3 * kConfigPathChars * sizeof(wchar_t));

// No handle has more than 32 bits, whichever kind of program it is in.
inline uint32_t HandleValue(HANDLE handle) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
}
inline HANDLE HandleOf(uint32_t value) {
  return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(value));
}

using HostStartFunction = DWORD(WINAPI*)(void* config);

}  // namespace winsock_host
