// What the host has observed, in memory that it shares with the launcher. The memory outlives the
// program, however that ends, so nothing has to be written at process exit, when killed threads may
// still hold locks.
#pragma once

#include <windows.h>
#include <winsock2.h>

#include <cstddef>
#include <cstdint>

namespace winsock_host {

// One per entry of the provider call table, in the table's order.
enum Call : uint32_t {
  kAccept,
  kAddressToString,
  kAsyncSelect,
  kBind,
  kCancelBlockingCall,
  kCleanup,
  kCloseSocket,
  kConnect,
  kDuplicateSocket,
  kEnumNetworkEvents,
  kEventSelect,
  kGetOverlappedResult,
  kGetPeerName,
  kGetSockName,
  kGetSockOpt,
  kGetQosByName,
  kIoctl,
  kJoinLeaf,
  kListen,
  kRecv,
  kRecvDisconnect,
  kRecvFrom,
  kSelect,
  kSend,
  kSendDisconnect,
  kSendTo,
  kSetSockOpt,
  kShutdown,
  kSocket,
  kStringToAddress,
  kCallCount
};
static_assert(kCallCount == 30);

constexpr const char* kCallNames[kCallCount] = {"WSPAccept",
                                                "WSPAddressToString",
                                                "WSPAsyncSelect",
                                                "WSPBind",
                                                "WSPCancelBlockingCall",
                                                "WSPCleanup",
                                                "WSPCloseSocket",
                                                "WSPConnect",
                                                "WSPDuplicateSocket",
                                                "WSPEnumNetworkEvents",
                                                "WSPEventSelect",
                                                "WSPGetOverlappedResult",
                                                "WSPGetPeerName",
                                                "WSPGetSockName",
                                                "WSPGetSockOpt",
                                                "WSPGetQOSByName",
                                                "WSPIoctl",
                                                "WSPJoinLeaf",
                                                "WSPListen",
                                                "WSPRecv",
                                                "WSPRecvDisconnect",
                                                "WSPRecvFrom",
                                                "WSPSelect",
                                                "WSPSend",
                                                "WSPSendDisconnect",
                                                "WSPSendTo",
                                                "WSPSetSockOpt",
                                                "WSPShutdown",
                                                "WSPSocket",
                                                "WSPStringToAddress"};

constexpr uint32_t kMaxStarts = 1024;
constexpr uint32_t kMaxCleanups = kMaxStarts;
constexpr uint32_t kDebugBytes = 256 * 1024;

// All counters are added to with interlocked operations; `bytes` counts what moved in calls that
// completed at once, a call that went pending shows in `pending` only.
struct CallCounter {
  int64_t bytes;
  int32_t count;
  int32_t failed;
  int32_t pending;
  int32_t unused;
};
static_assert(sizeof(CallCounter) == 24);
static_assert(offsetof(CallCounter, bytes) == 0 && offsetof(CallCounter, count) == 8);
static_assert(offsetof(CallCounter, failed) == 12 && offsetof(CallCounter, pending) == 16);
static_assert(offsetof(CallCounter, unused) == 20);

// One start of a catalogue entry. `replaced_entries`: how many entries of the returned call table
// lie in the library's own module.
struct StartRecord {
  uint32_t catalog_id;
  int32_t protocol;
  int32_t result;
  uint32_t replaced_entries;
};
static_assert(sizeof(StartRecord) == 16);
static_assert(offsetof(StartRecord, catalog_id) == 0 && offsetof(StartRecord, protocol) == 4);
static_assert(offsetof(StartRecord, result) == 8);
static_assert(offsetof(StartRecord, replaced_entries) == 12);

// One WSPCleanup of a started entry. `unloaded`: the module was gone from memory right after it.
struct CleanupRecord {
  uint32_t catalog_id;
  int32_t result;
  uint32_t elapsed_ms;
  uint32_t unloaded;
};
static_assert(sizeof(CleanupRecord) == 16);
static_assert(offsetof(CleanupRecord, catalog_id) == 0 && offsetof(CleanupRecord, result) == 4);
static_assert(offsetof(CleanupRecord, elapsed_ms) == 8);
static_assert(offsetof(CleanupRecord, unloaded) == 12);

struct HostReport {
  uint32_t version;
  volatile LONG start_count;  // starts seen; records beyond kMaxStarts are lost
  StartRecord starts[kMaxStarts];
  volatile LONG cleanup_count;  // as above
  uint32_t unused_after_cleanup_count;
  CleanupRecord cleanups[kMaxCleanups];
  CallCounter through_library[kCallCount];
  CallCounter through_base[kCallCount];  // all that did not enter the library's module
  volatile LONG debug_used;              // may exceed kDebugBytes: what did not fit is lost
  uint32_t unused;
  char debug[kDebugBytes];  // debugger output, each text ended by NUL
};
static_assert(offsetof(HostReport, version) == 0 && offsetof(HostReport, start_count) == 4);
static_assert(offsetof(HostReport, starts) == 8);
constexpr size_t kAfterStarts = 8 + 16 * kMaxStarts;
static_assert(offsetof(HostReport, cleanup_count) == kAfterStarts);
static_assert(offsetof(HostReport, unused_after_cleanup_count) == kAfterStarts + 4);
static_assert(offsetof(HostReport, cleanups) == kAfterStarts + 8);
constexpr size_t kAfterCleanups = kAfterStarts + 8 + 16 * kMaxCleanups;
static_assert(offsetof(HostReport, through_library) == kAfterCleanups);
static_assert(offsetof(HostReport, through_base) == kAfterCleanups + 24 * kCallCount);
static_assert(offsetof(HostReport, debug_used) == kAfterCleanups + 48 * kCallCount);
static_assert(offsetof(HostReport, unused) == kAfterCleanups + 48 * kCallCount + 4);
static_assert(offsetof(HostReport, debug) == kAfterCleanups + 48 * kCallCount + 8);
static_assert(sizeof(HostReport) == kAfterCleanups + 48 * kCallCount + 8 + kDebugBytes);

// Maps the report for the life of the process. False: the handle is not such a mapping.
bool OpenReport(HANDLE mapping);

// The rest may be called from any thread, any time after; they change no last error.
void CountCall(bool through_library, Call call, bool failed, int error, DWORD bytes);
void RecordStart(const StartRecord& start);
void RecordCleanup(const CleanupRecord& cleanup);
void RecordDebugText(const char* text);

}  // namespace winsock_host
