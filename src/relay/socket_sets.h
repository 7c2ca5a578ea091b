// The sockets that the worker polls, their delegates, and the events of one pass.
//
// Worker thread only unless stated, without a lock. Nothing throws. Delegates are not owned.
#pragma once
#include <winsock2.h>

#include <atomic>
#include <map>

#include "common/types.h"
#include "relay/relay_interfaces.h"

namespace moru_vyr::lsp {

class SocketSets {
 public:
  SocketSets() noexcept { read_.fd_count = write_.fd_count = 0; }
  SocketSets(const SocketSets&) = delete;
  SocketSets& operator=(const SocketSets&) = delete;

  // As in IRelaySocketMgr. Kept: the 129th socket is known and never polled.
  u32 Add(SOCKET socket, IRelaySocketDelegate* delegate) noexcept;
  // With `enable` false the event is no longer waited for, and the result is 0.
  u32 EnableWrite(SOCKET socket, bool enable) noexcept;
  void StopReading(SOCKET socket) noexcept;
  void ResumeReading(SOCKET socket) noexcept;
  IRelaySocketDelegate* Remove(SOCKET socket) noexcept;

  // How many more sockets there are places for. Any thread.
  u32 FreePlaces() const noexcept { return free_places_.load(std::memory_order_relaxed); }

  // One pass: waits for readiness up to `timeout`, then gives it to the delegates: all reads in
  // the order in which the sockets were added, then all writes, then all exceptions. Delegates
  // may add and remove sockets meanwhile. The result of select, and its error where that is -1.
  int Poll(const timeval& timeout, int* error) noexcept;

 private:
  struct Entry {
    IRelaySocketDelegate* delegate;
    u32 added_in;  // the pass
  };

  // The delegate for an event of this pass. None for a socket that was removed since. Guard: nor
  // for one that was added since: that is another socket with the same value.
  IRelaySocketDelegate* Find(SOCKET socket) const noexcept;
  void CountPlaces() noexcept;

  fd_set read_;   // watched for exceptions as well: a failed connect shows nowhere else
  fd_set write_;  // one event each
  std::map<SOCKET, Entry> sockets_;
  u32 pass_ = 0;
  std::atomic<u32> free_places_{FD_SETSIZE};
};

}  // namespace moru_vyr::lsp
