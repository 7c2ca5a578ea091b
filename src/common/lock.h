// A lock between threads, and its guard. (std::mutex does not exist in the runtime we build with.)
// Recursive. Construction and destruction never block, so a Mutex may be part of a global object.
//
// It is not a critical section, because one whose holder was terminated stays locked for ever, and
// the next call of the game that needs it never returns. This one goes to a thread that waits for
// it, once its holder is gone (own_thread.h). Waiters poll, so it is for locks that are held
// briefly; docs/lifetime.md says for each lock what may be waited for while it is held.
#pragma once
#include <atomic>

#include "common/types.h"

namespace common {

class Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() noexcept {
    if (!try_lock()) AwaitLock();
  }
  bool try_lock() noexcept { return Take(false); }
  // Takes the lock also from a holder that has ended, if that was a thread of ours.
  bool inherit_lock() noexcept { return Take(true); }
  void unlock() noexcept;

 private:
  bool Take(bool inherits) noexcept;
  void AwaitLock() noexcept;

  std::atomic<u32> holder_{0};  // 0: free
  u32 depth_ = 0;               // the holder's
};

struct AdoptLock {};  // says that the caller holds the mutex already

class Lock {
 public:
  explicit Lock(Mutex& mutex) noexcept : mutex_(mutex) { mutex_.lock(); }
  Lock(Mutex& mutex, AdoptLock) noexcept : mutex_(mutex) {}
  ~Lock() { mutex_.unlock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace common
