#include "port/posix/native.h"
//
#include "port/posix/threads.h"

#include <linux/futex.h>
#include <sys/syscall.h>

#include <map>
#include <set>
#include <system_error>

#include "port/shared/faults.h"
#include "port/shared/process.h"

namespace port {
namespace {

const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-2));

std::atomic<DWORD> next_id{1};

// The threads that have not ended.
class RunningThreads {
 public:
  void Add(const std::shared_ptr<Thread>& thread) {
    std::lock_guard hold(lock_);
    by_id_[thread->id] = thread;
  }
  void Remove(DWORD id) {
    std::lock_guard hold(lock_);
    by_id_.erase(id);
  }
  std::shared_ptr<Thread> Find(DWORD id) {
    std::lock_guard hold(lock_);
    const auto at = by_id_.find(id);
    return at != by_id_.end() ? at->second.lock() : nullptr;
  }

 private:
  std::mutex lock_;  // a leaf
  std::map<DWORD, std::weak_ptr<Thread>> by_id_;
};
RunningThreads& Running() {
  static auto& running = *new RunningThreads;
  return running;
}

thread_local Thread* self = nullptr;

// Under KernelLock().
void MarkEnded(Thread& thread, DWORD code) {
  if (thread.ended) return;
  thread.ended = true;
  thread.exit_code = code;
  Running().Remove(thread.id);
  for (const auto& mutex : thread.owned) mutex->Abandon();
  thread.owned.clear();
  thread.changed.notify_all();
}

// Threads that the port did not start: the main thread, and those of a test framework. Never freed,
// because destructors may make the last calls of these threads.
struct Adopted {
  Adopted() : thread(std::make_shared<Thread>(next_id++)) {
    static std::mutex lock;
    static auto& all = *new std::set<std::shared_ptr<Thread>>;
    std::lock_guard hold(lock);
    all.insert(thread);
    Running().Add(thread);
  }
  ~Adopted() {
    std::lock_guard hold(KernelLock());
    MarkEnded(*thread, 0);
  }
  std::shared_ptr<Thread> thread;
};

[[noreturn]] void EndNow(Thread& thread) {
  {
    std::lock_guard hold(KernelLock());
    MarkEnded(thread, thread.final_code);
  }
  while (true) ::pause();
}

std::shared_ptr<Thread> FindThread(HANDLE handle) {
  if (handle != kCurrentThread) return LookupAs<Thread>(handle);
  return {&Self(), [](Thread*) {}};
}

}  // namespace

Thread::~Thread() {
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

int Thread::WakeFd() {
  std::lock_guard hold(wake_lock_);
  if (wake_fd_ < 0) wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  return wake_fd_;
}

void Thread::Wake() {
  std::lock_guard hold(wake_lock_);
  const uint64_t one = 1;
  if (wake_fd_ >= 0 && ::write(wake_fd_, &one, sizeof one) < 0) return;  // full: already awake
}

void Thread::DrainWakes() {
  uint64_t count = 0;
  while (::read(WakeFd(), &count, sizeof count) > 0) {
  }
}

std::mutex& KernelLock() {
  static auto& lock = *new std::mutex;
  return lock;
}

Thread& Self() {
  if (self) return *self;
  thread_local Adopted adopted;
  self = adopted.thread.get();
  return *self;
}

void EndIfTold() {
  Thread& thread = Self();
  if (thread.told_to_end.load(std::memory_order_relaxed)) EndNow(thread);
}

ThreadState& CurrentThreadState() { return Self().state; }

void KeepForEachThread(void*, size_t) {}  // the host does

Process& CurrentProcess() {
  static Process& process = *new Process;
  return process;
}

void OnCall(const char*) { EndIfTold(); }

uint32_t RandomBits() {
  uint32_t bits = 0;
  if (::getentropy(&bits, sizeof bits) != 0) std::abort();
  return bits;
}

}  // namespace port

using port::KernelLock;

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start,
                           LPVOID parameter, DWORD flags, LPDWORD id) {
  if (port::Fails("CreateThread")) return nullptr;
  if (!start || flags != 0) {  // a suspended thread could not be resumed here
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto thread = std::make_shared<port::Thread>(port::next_id++);
  port::Running().Add(thread);
  try {
    std::thread([thread, start, parameter] {
      port::self = thread.get();
      const DWORD code = start(parameter);
      std::lock_guard hold(KernelLock());
      port::MarkEnded(*thread, code);
      port::self = nullptr;
    }).detach();
  } catch (const std::system_error&) {
    port::Running().Remove(thread->id);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  if (id) *id = thread->id;
  return port::NewHandle(thread);
}

BOOL WINAPI TerminateThread(HANDLE handle, DWORD exit_code) {
  if (port::Fails("TerminateThread")) return FALSE;
  auto thread = port::FindThread(handle);
  if (!thread) return FALSE;
  {
    std::lock_guard hold(KernelLock());
    if (thread->ended) {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    }
    thread->final_code = exit_code;
    thread->told_to_end = true;
    if (thread->waits_for) thread->waits_for->changed.notify_all();
  }
  thread->Wake();
  port::EndIfTold();
  return TRUE;
}

BOOL WINAPI GetExitCodeThread(HANDLE handle, LPDWORD exit_code) {
  if (port::Fails("GetExitCodeThread")) return FALSE;
  auto thread = port::FindThread(handle);
  if (!thread) return FALSE;
  std::lock_guard hold(KernelLock());
  *exit_code = thread->exit_code;
  return TRUE;
}

HANDLE WINAPI OpenThread(DWORD, BOOL, DWORD id) {
  if (port::Fails("OpenThread")) return nullptr;
  const std::shared_ptr<port::Thread> thread = port::Running().Find(id);
  if (thread) return port::NewHandle(thread);
  SetLastError(ERROR_INVALID_PARAMETER);
  return nullptr;
}

HANDLE WINAPI GetCurrentThread() { return port::kCurrentThread; }

DWORD WINAPI GetCurrentThreadId() { return port::Self().id; }

// --- critical sections --------------------------------------------------------------------

namespace {

// 0: free, 1: held, 2: held and a thread may be waiting. A waiting thread wakes from time to time
// to check whether it has been terminated, because the owner may have ended without releasing the
// lock.
struct Section {
  std::atomic<uint32_t> word{0};
  std::atomic<DWORD> owner{0};
  int depth = 0;  // how often the owner has entered
};

constexpr long kLookAgainNs = 20'000'000;

void SleepWhileContended(std::atomic<uint32_t>* word) {
  const timespec limit = {0, kLookAgainNs};
  ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, 2, &limit, nullptr,
            0);
}

bool TryTake(Section* section) {
  uint32_t free = 0;
  return section->word.compare_exchange_strong(free, 1, std::memory_order_acquire);
}

Section* SectionOf(LPCRITICAL_SECTION section) { return static_cast<Section*>(section->state); }

void SetOwner(Section* section, DWORD id) {
  section->owner.store(id, std::memory_order_relaxed);
  section->depth = 1;
}

bool HeldBy(const Section* section, DWORD id) {
  return section->owner.load(std::memory_order_relaxed) == id;
}

}  // namespace

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section) { section->state = new Section; }

void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section) {
  delete SectionOf(section);
  section->state = nullptr;
}

void WINAPI EnterCriticalSection(LPCRITICAL_SECTION handle) {
  port::EndIfTold();
  Section* section = SectionOf(handle);
  const DWORD id = port::Self().id;
  if (HeldBy(section, id)) {
    ++section->depth;
    return;
  }
  if (!TryTake(section)) {
    while (section->word.exchange(2, std::memory_order_acquire) != 0) {
      SleepWhileContended(&section->word);
      port::EndIfTold();
    }
  }
  SetOwner(section, id);
}

BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION handle) {
  port::EndIfTold();
  Section* section = SectionOf(handle);
  const DWORD id = port::Self().id;
  if (HeldBy(section, id)) {
    ++section->depth;
    return TRUE;
  }
  if (!TryTake(section)) return FALSE;
  SetOwner(section, id);
  return TRUE;
}

void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION handle) {
  Section* section = SectionOf(handle);
  if (--section->depth > 0) return;
  section->owner.store(0, std::memory_order_relaxed);
  if (section->word.exchange(0, std::memory_order_release) == 2)
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&section->word), FUTEX_WAKE_PRIVATE, 1,
              nullptr, nullptr, 0);
}
