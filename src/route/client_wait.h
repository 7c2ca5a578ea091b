// Bounds the wait for a mutex of the client program's, for a game that asks for that: a client that
// hangs with a mutex in its hands must not keep a game from starting, nor the worker from relaying.
//
// Mutexes are recursive, so whoever holds one here takes it again below without a wait. Any thread.
#pragma once
#include "common/handle.h"

namespace moru_vyr::lsp {

class ClientWait {
 public:
  // Takes the mutex. A thread of the host waits at most 500 ms (for ten seconds behind a wait in
  // vain it only tries), the worker no longer than one of its passes takes. Does nothing where
  // nothing is asked for.
  explicit ClientWait(const char* mutex_name) noexcept;
  ~ClientWait();
  ClientWait(const ClientWait&) = delete;
  ClientWait& operator=(const ClientWait&) = delete;

  // False: the mutex was not free in time, and the region counts as absent. The log says so.
  bool may_read() const noexcept { return may_read_; }

 private:
  common::UniqueHandle held_;  // empty: nothing is held
  bool may_read_ = true;
};

// At the beginning of a start: its waits have the whole 500 ms again.
void RenewClientWaits() noexcept;

}  // namespace moru_vyr::lsp
