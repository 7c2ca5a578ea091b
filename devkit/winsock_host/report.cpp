#include "report.h"

#include <cstring>

#include "host_config.h"

namespace winsock_host {
namespace {

// Takes the counts before the report is opened, or if there is no report.
HostReport g_nowhere;
HostReport* g_report = &g_nowhere;

void Increment(int32_t* counter) { InterlockedIncrement(reinterpret_cast<LONG*>(counter)); }

}  // namespace

bool OpenReport(HANDLE mapping) {
  void* view = MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(HostReport));
  if (view == nullptr) return false;
  g_report = static_cast<HostReport*>(view);
  return g_report->version == kHostVersion;
}

void CountCall(bool through_library, Call call, bool failed, int error, DWORD bytes) {
  CallCounter* counters = through_library ? g_report->through_library : g_report->through_base;
  CallCounter& counter = counters[call];
  Increment(&counter.count);
  if (failed) {
    Increment(error == WSA_IO_PENDING ? &counter.pending : &counter.failed);
  } else if (bytes != 0) {
    InterlockedExchangeAdd64(&counter.bytes, bytes);
  }
}

void RecordStart(const StartRecord& start) {
  const LONG index = InterlockedIncrement(&g_report->start_count) - 1;
  if (index < static_cast<LONG>(kMaxStarts)) g_report->starts[index] = start;
}

void RecordCleanup(const CleanupRecord& cleanup) {
  const LONG index = InterlockedIncrement(&g_report->cleanup_count) - 1;
  if (index < static_cast<LONG>(kMaxCleanups)) g_report->cleanups[index] = cleanup;
}

void RecordDebugText(const char* text) {
  const LONG size = static_cast<LONG>(std::strlen(text)) + 1;
  // Once the texts are full they stay full: the counter must not wrap in a talkative process.
  if (g_report->debug_used > static_cast<LONG>(kDebugBytes)) return;
  const LONG at = InterlockedExchangeAdd(&g_report->debug_used, size);
  if (at < 0 || at + size > static_cast<LONG>(kDebugBytes)) return;
  std::memcpy(g_report->debug + at, text, static_cast<size_t>(size));
}

}  // namespace winsock_host
