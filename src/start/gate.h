// Decides whether this copy of the library hooks this process.
#pragma once
#include <memory>

#include "common/handle.h"
#include "common/named_mutex.h"

namespace moru_vyr::lsp {

// Owns the gate's mutex, if no other copy of the library in this process does.
//
// The test and the creation happen under a second named lock, so two copies cannot both find the
// mutex missing. Both names contain the process id: the gate never compares two processes.
class SingleInstanceLock {
 public:
  SingleInstanceLock() = default;
  SingleInstanceLock(const char* mutex_name, const char* lock_name);
  SingleInstanceLock(SingleInstanceLock&&) noexcept = default;
  SingleInstanceLock& operator=(SingleInstanceLock&&) noexcept = default;

  bool owns() const noexcept { return static_cast<bool>(mutex_); }

 private:
  common::UniqueHandle mutex_;
  std::shared_ptr<common::NamedMutex> guard_;
};

// The gate. False for a process that does not want to be hooked, and then nothing is remembered;
// the first start that wants it decides for good. Start-up only, under its lock.
bool CheckCanHook(bool want) noexcept;

}  // namespace moru_vyr::lsp
