#include "client/bounded_lock.h"

#include <winsock2.h>
//
#include <windows.h>

namespace client {
namespace {

constexpr DWORD kRetryMs = 20;

bool LockWithin(common::NamedMutex* mutex, DWORD wait_ms) {
  const DWORD start = GetTickCount();
  while (!mutex->try_lock()) {
    if (GetTickCount() - start >= wait_ms) return false;
    Sleep(kRetryMs);
  }
  return true;
}

}  // namespace

BoundedLock::BoundedLock(const char* name, unsigned wait_ms) : mutex_(name) {
  owns_ = mutex_.exists() && LockWithin(&mutex_, wait_ms);
}

BoundedLock::~BoundedLock() {
  if (owns_) mutex_.unlock();
}

}  // namespace client
