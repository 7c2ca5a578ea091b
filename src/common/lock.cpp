#include "common/lock.h"

#include "common/last_error.h"
#include "common/own_thread.h"

namespace common {
namespace {

// First some attempts that only yield the processor, then attempts that wait for a millisecond
// each: a holder that was preempted is usually running again by then.
constexpr u32 kYields = 64;
constexpr u32 kTriesPerLook = 16;  // at whether the holder is still there

}  // namespace

bool Mutex::Take(bool inherits) noexcept {
  const u32 self = BeginLock();
  u32 holder = holder_.load(std::memory_order_relaxed);
  if (holder == self) {
    ++depth_;
    return true;
  }
  const bool is_free = holder == 0 || (inherits && IsOwnName(holder) && HasEnded(holder));
  if (is_free && holder_.compare_exchange_strong(holder, self, std::memory_order_acquire)) {
    depth_ = 1;
    return true;
  }
  EndLock(self);
  return false;
}

// When a process ends, Windows ends all its threads but one, wherever they are. The destructors of
// other modules, which the remaining thread runs, may need any of our locks, and waiting for a
// thread of the host that is gone would keep the process from ending. What the lock guards may be
// half changed by then, but a process that never ends is worse.
void Mutex::AwaitLock() noexcept {
  const KeepLastError keep_last_error;
  for (u32 tries = 1;; ++tries) {
    const bool looks = tries % kTriesPerLook == 0;
    if (Take(looks)) return;
    u32 holder = looks ? holder_.load(std::memory_order_relaxed) : 0;
    if (HasEnded(holder)) {
      const u32 self = BeginLock();
      if (holder_.compare_exchange_strong(holder, self, std::memory_order_acquire)) {
        depth_ = 1;
        return;
      }
      EndLock(self);
    }
    Sleep(tries < kYields ? 0 : 1);
  }
}

void Mutex::unlock() noexcept {
  const u32 holder = holder_.load(std::memory_order_relaxed);
  if (--depth_ == 0) holder_.store(0, std::memory_order_release);
  EndLock(holder);
}

}  // namespace common
