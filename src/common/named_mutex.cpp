#include "common/named_mutex.h"

namespace common {

NamedMutex::NamedMutex(const std::string& name) noexcept
    : handle_(CreateMutexA(nullptr, FALSE, name.c_str())) {}

void NamedMutex::lock() noexcept { WaitForSingleObject(handle_.get(), INFINITE); }

bool NamedMutex::try_lock() noexcept {
  const DWORD result = WaitForSingleObject(handle_.get(), 0);
  // A mutex that a dead process left behind is refused, but the wait has taken it. Guard: it is
  // given back; otherwise no other thread could take it while this one lives.
  if (result == WAIT_ABANDONED) unlock();
  return result == WAIT_OBJECT_0;
}

void NamedMutex::unlock() noexcept { ReleaseMutex(handle_.get()); }

NamedMutexGuard::NamedMutexGuard(NamedMutex* mutex, bool try_only) noexcept : mutex_(mutex) {
  if (try_only) {
    owns_ = mutex_->try_lock();
  } else {
    mutex_->lock();
    owns_ = true;
  }
}

NamedMutexGuard::~NamedMutexGuard() {
  if (owns_) mutex_->unlock();
}

}  // namespace common
