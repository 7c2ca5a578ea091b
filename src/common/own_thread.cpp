#include "common/own_thread.h"

#include <atomic>

#include "common/handle.h"
#include "common/last_error.h"

namespace common {
namespace {

constexpr u32 kNameBit = 0x80000000;  // no thread's id has it
constexpr u32 kClearing = kNameBit;   // not a thread's name: the slot is being freed
constexpr int kMostThreads = 4;       // two at a time, and those that follow them
constexpr DWORD kForceWaitMs = 100;
constexpr DWORD kParkMs = 10'000;

// Every lock reads all ids, so they have a cache line that hardly ever changes.
struct Ids {
  alignas(64) std::atomic<u32> thread_id[kMostThreads];  // 0: none
  std::atomic<u32> name[kMostThreads];                   // 0: free
};
struct alignas(64) Holding {
  std::atomic<u32> locks{0};
  std::atomic<bool> doomed{false};
};
constinit Ids ids{};
constinit Holding holding[kMostThreads];
constinit std::atomic<u32> last_name{0};

int FindThread(u32 thread_id) noexcept {
  for (int i = 0; i < kMostThreads; ++i) {
    if (ids.thread_id[i].load(std::memory_order_relaxed) == thread_id) return i;
  }
  return -1;
}

int FindName(u32 name) noexcept {
  for (int i = 0; i < kMostThreads; ++i) {
    if (ids.name[i].load(std::memory_order_acquire) == name) return i;
  }
  return -1;
}

// Several threads at once may forget the name of a thread that has ended: one of them clears the
// slot, and only then may a new thread have it.
void Forget(int slot, u32 name) noexcept {
  if (!ids.name[slot].compare_exchange_strong(name, kClearing, std::memory_order_acq_rel)) return;
  ids.thread_id[slot].store(0, std::memory_order_relaxed);
  ids.name[slot].store(0, std::memory_order_release);
}

// Opens a handle of its own, since the creator of the thread may close theirs at any time.
bool IsGone(u32 thread_id) noexcept {
  const KeepLastError keep_last_error;
  const UniqueHandle thread(OpenThread(SYNCHRONIZE, FALSE, thread_id));
  // Other errors say nothing about the thread.
  if (!thread) return GetLastError() == ERROR_INVALID_PARAMETER;
  return WaitForSingleObject(thread.get(), 0) == WAIT_OBJECT_0;
}

}  // namespace

OwnThread::OwnThread() noexcept {
  const u32 name = kNameBit | (last_name.fetch_add(1, std::memory_order_relaxed) + 1);
  for (int i = 0; i < kMostThreads; ++i) {
    u32 free = 0;
    if (!ids.name[i].compare_exchange_strong(free, name, std::memory_order_acquire)) continue;
    holding[i].locks.store(0, std::memory_order_relaxed);
    holding[i].doomed.store(false, std::memory_order_relaxed);
    ids.thread_id[i].store(GetCurrentThreadId(), std::memory_order_release);
    name_ = name;
    return;
  }
}

OwnThread::~OwnThread() {
  const int slot = name_ != 0 ? FindName(name_) : -1;
  if (slot >= 0) Forget(slot, name_);
}

u32 OwnThread::NameOfCaller() noexcept {
  const int slot = FindThread(GetCurrentThreadId());
  return slot >= 0 ? ids.name[slot].load(std::memory_order_relaxed) : 0;
}

bool HasEnded(u32 who) noexcept {
  if (who == 0) return false;
  if (!IsOwnName(who)) return IsGone(who);
  const int slot = FindName(who);
  if (slot < 0) return true;
  const u32 thread_id = ids.thread_id[slot].load(std::memory_order_acquire);
  if (thread_id == 0 || !IsGone(thread_id)) return false;  // 0: it is just taking the name
  Forget(slot, who);
  return true;
}

void EndByForce(HANDLE thread, u32 name) noexcept {
  const int slot = name != 0 ? FindName(name) : -1;
  if (slot >= 0) {
    holding[slot].doomed.store(true);
    // Measured by the clock, since a wait of 1 ms may take a whole tick of the system.
    const u32 start = GetTickCount();
    while (holding[slot].locks.load() != 0 && GetTickCount() - start < kForceWaitMs) {
      if (WaitForSingleObject(thread, 1) == WAIT_OBJECT_0) break;
    }
  }
  TerminateThread(thread, 0);
  // It runs on for a moment, and its locks must not pass on before it has ended.
  WaitForSingleObject(thread, kForceWaitMs);
  if (slot >= 0) HasEnded(name);
}

u32 BeginLock() noexcept {
  const u32 thread_id = GetCurrentThreadId();
  const int slot = FindThread(thread_id);
  if (slot < 0) return thread_id;
  Holding& own = holding[slot];
  // In this order, because a thread that dooms this one looks at the count afterwards. A thread
  // that already holds a lock goes on to release it.
  const bool holds_none = own.locks.fetch_add(1) == 0;
  if (holds_none && own.doomed.load()) {
    own.locks.fetch_sub(1);
    Sleep(kParkMs);  // is ended here; if it should not be, it goes on
    own.locks.fetch_add(1);
  }
  return ids.name[slot].load(std::memory_order_relaxed);
}

void EndLock(u32 who) noexcept {
  if (!IsOwnName(who)) return;
  const int slot = FindName(who);
  if (slot >= 0) holding[slot].locks.fetch_sub(1);
}

bool IsOwnName(u32 who) noexcept { return (who & kNameBit) != 0; }

}  // namespace common
