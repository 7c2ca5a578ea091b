// A critical section and its guard. (std::mutex does not exist in the runtime we build with.)
// Recursive. Construction and destruction never block, so a Mutex may stand in a global object.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

namespace common {

class Mutex {
 public:
  Mutex() noexcept { InitializeCriticalSection(&section_); }
  ~Mutex() { DeleteCriticalSection(&section_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() noexcept { EnterCriticalSection(&section_); }
  bool try_lock() noexcept { return TryEnterCriticalSection(&section_) != FALSE; }
  void unlock() noexcept { LeaveCriticalSection(&section_); }

 private:
  CRITICAL_SECTION section_;
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
