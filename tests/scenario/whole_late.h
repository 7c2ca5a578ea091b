// Calls of a game that the simulated base provider refuses: overlapped sends and receives, and
// events for a socket (WSAEventSelect). While a LateCalls exists, a provider between the library
// and the base provider carries them out, in threads of its own, by the base provider's plain
// calls.
//
// The results are those of Windows, with one exception: an event for data is set again after each
// look (WSAEnumNetworkEvents) while there is data, not only after a receive.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <ws2spi.h>

namespace whole_test {

inline constexpr int kNotYet = 996;     // WSA_IO_INCOMPLETE
inline constexpr int kCancelled = 995;  // WSA_OPERATION_ABORTED

inline constexpr long kReadEvent = 1;
inline constexpr long kWriteEvent = 2;
inline constexpr long kConnectEvent = 16;
inline constexpr long kCloseEvent = 32;

// The call table that serves this socket of the calling thread's process: what Winsock calls.
const WSPPROC_TABLE& TableOf(SOCKET s);

// These have no plain socket call in the port. Each returns 0 or the error.
int SelectEvents(SOCKET s, HANDLE event, long events);
// Clears the event and returns what has happened since the last call.
long TakeEvents(SOCKET s, HANDLE event);
int ResultOf(SOCKET s, WSAOVERLAPPED* overlapped, DWORD* bytes);

// How often what carries out a call, or watches a socket, looks at it although nothing happens.
void PollLateCallsEvery(int ms);

class LateCalls {
 public:
  LateCalls();  // once the library has been started, for streams and for datagrams
  ~LateCalls();
  LateCalls(const LateCalls&) = delete;
  LateCalls& operator=(const LateCalls&) = delete;
};

}  // namespace whole_test
