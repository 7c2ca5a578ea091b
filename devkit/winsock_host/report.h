// What the host observed, kept in memory shared with the launcher: it outlives the program
// however that ends, so nothing has to be written at process exit, when locks of killed threads
// are still held.
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

constexpr uint32_t kMaxStarts = 32;
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

struct HostReport {
  uint32_t version;
  volatile LONG start_count;  // starts seen; records beyond kMaxStarts are lost
  StartRecord starts[kMaxStarts];
  CallCounter through_library[kCallCount];
  CallCounter through_base[kCallCount];  // all that did not enter the library's module
  volatile LONG debug_used;              // may exceed kDebugBytes: what did not fit is lost
  uint32_t unused;
  char debug[kDebugBytes];  // debugger output, each text ended by NUL
};
static_assert(offsetof(HostReport, version) == 0 && offsetof(HostReport, start_count) == 4);
static_assert(offsetof(HostReport, starts) == 8);
static_assert(offsetof(HostReport, through_library) == 8 + 16 * kMaxStarts);
static_assert(offsetof(HostReport, through_base) == 8 + 16 * kMaxStarts + 24 * kCallCount);
static_assert(offsetof(HostReport, debug_used) == 8 + 16 * kMaxStarts + 48 * kCallCount);
static_assert(offsetof(HostReport, unused) == 12 + 16 * kMaxStarts + 48 * kCallCount);
static_assert(offsetof(HostReport, debug) == 16 + 16 * kMaxStarts + 48 * kCallCount);
static_assert(sizeof(HostReport) == 16 + 16 * kMaxStarts + 48 * kCallCount + kDebugBytes);

// Maps the report for the life of the process. False: the handle is not such a mapping.
bool OpenReport(HANDLE mapping);

// The rest may be called from any thread, any time after; they change no last error.
void CountCall(bool through_library, Call call, bool failed, int error, DWORD bytes);
void RecordStart(const StartRecord& start);
void RecordDebugText(const char* text);

}  // namespace winsock_host
