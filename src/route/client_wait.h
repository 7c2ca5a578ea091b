// Bounds the wait for a mutex of the client program, for a game that asks for that: a client that
// hangs while it holds a mutex must not keep a game from starting or the worker from relaying.
//
// Mutexes are recursive, so a thread that holds one here takes it again below without waiting. Any
// thread.
#pragma once
#include "common/handle.h"

namespace moru_vyr::lsp {

class ClientWait {
 public:
  // Takes the mutex. A thread of the host waits at most 500 ms, and for ten seconds after a wait in
  // vain it only tries; the worker waits no longer than one of its passes takes. Does nothing for a
  // game that does not ask for it.
  explicit ClientWait(const char* mutex_name) noexcept;
  // For a later look at what was not free: does not wait, whoever asks, and logs nothing.
  struct OnlyTry {};
  ClientWait(const char* mutex_name, OnlyTry) noexcept;
  ~ClientWait();
  ClientWait(const ClientWait&) = delete;
  ClientWait& operator=(const ClientWait&) = delete;

  // False: the mutex was not free in time, and the region counts as absent. The log says so.
  bool may_read() const noexcept { return may_read_; }

 private:
  // Whether the region may be read.
  bool Take(const char* mutex_name, DWORD limit_ms) noexcept;

  common::UniqueHandle held_;  // empty: nothing is held
  bool may_read_ = true;
};

// At the beginning of a start: its waits have the whole 500 ms again.
void RenewClientWaits() noexcept;

}  // namespace moru_vyr::lsp
