// The interface that each backend, port/posix and port/sim, implements for the shared code. The
// rest of a backend is the declared Windows calls themselves: threads.cpp (threads, critical
// sections), waits.cpp (events, mutexes, WaitForSingleObject), clock.cpp (GetTickCount and Sleep)
// and base_provider.cpp.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <ctime>
#include <memory>
#include <string>

namespace port {

class Object;
struct Process;

// The state that Windows keeps for each thread. Used by its own thread only.
struct ThreadState {
  DWORD last_error = 0;
  int bypass_layers = 0;      // > 0: sockets made by this thread skip the layered providers
  int dispatch_sections = 0;  // > 0: holds the lock that starts and cleanups take, or waits for it
  char inet_text[16] = {};
};

// The calling thread's record; created on first use for a thread that the backend did not start.
ThreadState& CurrentThreadState();

// Says that this memory, of plain bytes, is thread_local. A backend whose threads share one thread
// of the host keeps it apart for each of them. To be called on the main thread, before it has
// others.
void KeepForEachThread(void* memory, size_t size);

// The process that the calling thread belongs to. Lives as long as any of its threads.
Process& CurrentProcess();

// Thirty entries, none null; valid for the life of the program.
const WSPPROC_TABLE& BaseProviderTable();

// An event or a mutex without a handle. `owned` means by the calling thread.
std::shared_ptr<Object> NewEvent(bool manual_reset, bool set);
std::shared_ptr<Object> NewMutex(bool owned);
// SetEvent and ResetEvent.
BOOL ChangeEvent(HANDLE handle, bool set);

// Calendar time in units of 100 ns since 1970, and its conversion to local time.
int64_t UnixTicks();
bool BreakDown(time_t moment, struct tm* out);

// The random source behind rand_s and UuidCreate. The simulation draws it from its seed.
uint32_t RandomBits();

// Every shared call begins with this, before it takes any lock. A thread that has been terminated
// ends here, and the simulation may write a trace. Must not change the last error.
void OnCall(const char* name);

// Called without a lock when the calling thread has mapped a view of a mapping of that name (empty:
// unnamed), or is about to unmap one. The simulation may watch a thread while it has a view.
void OnViewMapped(const std::string& mapping, const void* view, size_t size);
void OnViewUnmapped(const void* view);

}  // namespace port
