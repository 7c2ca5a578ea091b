// How every dispatched call ends.
#pragma once

#include <winsock2.h>

#include "providers.h"
#include "report.h"

namespace winsock_host {

// Counts the call and, if it failed, makes the provider's error the thread's last error. Success
// does not change the last error, as in Winsock.
template <typename Result>
Result Finish(const Provider& provider, Call call, Result result, Result failure, int error,
              DWORD bytes = 0) {
  const bool failed = result == failure;
  CountCall(SeenByLibrary(provider, call), call, failed, error, bytes);
  if (failed) WSASetLastError(error);
  return result;
}
inline int Finish(const Provider& provider, Call call, int result, int error, DWORD bytes = 0) {
  return Finish(provider, call, result, SOCKET_ERROR, error, bytes);
}

// Identifies the calling thread for a completion routine. The handle is a pseudo handle, because
// the routine runs in the calling thread itself.
struct CallingThread {
  WSATHREADID id = {GetCurrentThread(), 0};
};

}  // namespace winsock_host
