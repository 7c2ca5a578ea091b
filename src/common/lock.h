// A recursive lock between threads, and its guard. (The runtime that we build with has no
// std::mutex.) Construction and destruction never block, so a Mutex may be part of a global object.
//
// A critical section stays locked forever if its holder is terminated, and then every call of the
// game that needs it hangs. This lock passes to a waiting thread once its holder is gone
// (own_thread.h). Waiters poll, so it must be held only briefly; docs/lifetime.md says what may be
// waited for under each lock.
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
  // Also takes the lock from a holder that has ended, if that was one of our own threads.
  bool inherit_lock() noexcept { return Take(true); }
  void unlock() noexcept;

 private:
  bool Take(bool inherits) noexcept;
  void AwaitLock() noexcept;

  std::atomic<u32> holder_{0};  // 0: free
  u32 depth_ = 0;               // how often the holder has taken it
};

struct AdoptLock {};  // says that the caller already holds the mutex

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
