// A recursive mutex that processes share by name, and its guard.
//
// If the mutex cannot be created (out of handles, or the name belongs to another kind of object),
// every call fails at once and the caller runs unguarded: an unguarded copy of a table is better
// than a game that hangs.
#pragma once
#include <string>

#include "common/handle.h"

namespace common {

class NamedMutex {
 public:
  explicit NamedMutex(const std::string& name) noexcept;
  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;

  // Waits without limit. A mutex whose owner died counts as taken: the platform hands it over.
  void lock() noexcept;
  bool try_lock() noexcept;
  void unlock() noexcept;

  bool exists() const noexcept { return static_cast<bool>(handle_); }

 private:
  UniqueHandle handle_;
};

class NamedMutexGuard {
 public:
  // Takes the mutex, or only tries to.
  NamedMutexGuard(NamedMutex* mutex, bool try_only) noexcept;
  ~NamedMutexGuard();
  NamedMutexGuard(const NamedMutexGuard&) = delete;
  NamedMutexGuard& operator=(const NamedMutexGuard&) = delete;

  bool owns() const noexcept { return owns_; }

 private:
  NamedMutex* const mutex_;
  bool owns_ = false;
};

}  // namespace common
