#include "startup.h"

#include <atomic>

#include "dispatch.h"
#include "owners.h"
#include "providers.h"

namespace winsock_host {
namespace {

struct StartupState {
  StartupState() { InitializeCriticalSection(&lock); }

  CRITICAL_SECTION lock;         // taken before any other of the host's
  std::atomic<long> starts = 0;  // of the program and its modules, less its cleanups
  bool cleanup_after_end = false;
};
StartupState& TheStartupState() {
  static StartupState& state =
      *new StartupState;  // never destroyed: threads outlive static destructors
  return state;
}

class StartupLock {
 public:
  StartupLock() { EnterCriticalSection(&TheStartupState().lock); }
  ~StartupLock() { LeaveCriticalSection(&TheStartupState().lock); }
  StartupLock(const StartupLock&) = delete;
  StartupLock& operator=(const StartupLock&) = delete;
};

// From here on every call that needs a started Winsock fails, including the providers' own.
void End() {
  TheStartupState().starts = 0;
  DisownAll();
}

// Which of the two comes first is not documented.
void EndWithProviders() {
  if (TheStartupState().cleanup_after_end) {
    End();
    CleanUpProviders();
  } else {
    CleanUpProviders();
    End();
  }
}

}  // namespace

void PrepareStartup(const HostConfig& config) {
  StartupState& state = TheStartupState();
  state.cleanup_after_end = config.cleanup_after_end != 0;
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
  if (s == INVALID_SOCKET) return;
  closesocket(s);
  state.starts = 1;
}

bool IsStarted() { return TheStartupState().starts != 0; }

int WSAAPI Startup(WORD version, LPWSADATA data) {
  const StartupLock lock;
  const int result = WSAStartup(version, data);
  if (result == 0) ++TheStartupState().starts;
  return result;
}

int WSAAPI Cleanup() {
  const StartupLock lock;
  StartupState& state = TheStartupState();
  if (state.starts == 0) {
    WSASetLastError(WSANOTINITIALISED);
    return SOCKET_ERROR;
  }
  if (state.starts == 1) {
    EndWithProviders();
  } else {
    --state.starts;
  }
  return WSACleanup();
}

// Winsock keeps this text in a place of the thread's own, and a thread gets its place under the
// start-up lock: a provider's thread that calls this waits until a running cleanup has ended.
char* WSAAPI AddressText(in_addr address) {
  const StartupLock lock;
  return inet_ntoa(address);
}

}  // namespace winsock_host
