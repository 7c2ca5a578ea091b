// Events, mutexes and the wait for one object.
#include <chrono>
#include <utility>

#include "port/posix/threads.h"
#include "port/shared/faults.h"

namespace port {
namespace {

class Event : public Waitable {
 public:
  Event(bool manual_reset, bool set) : manual_reset_(manual_reset), set_(set) {}
  const char* kind() const override { return "event"; }
  DWORD TryTake(Thread&) override {
    if (!set_) return WAIT_TIMEOUT;
    if (!manual_reset_) set_ = false;
    return WAIT_OBJECT_0;
  }
  void Change(bool set) {  // under KernelLock()
    set_ = set;
    if (set) changed.notify_all();
  }

 private:
  const bool manual_reset_;
  bool set_;
};

class Mutex : public Waitable, public Abandonable, public std::enable_shared_from_this<Mutex> {
 public:
  const char* kind() const override { return "mutex"; }

  DWORD TryTake(Thread& thread) override {
    if (owner_ == &thread) {
      ++depth_;
      return WAIT_OBJECT_0;
    }
    if (owner_) return WAIT_TIMEOUT;
    owner_ = &thread;
    depth_ = 1;
    thread.owned.push_back(shared_from_this());
    return std::exchange(abandoned_, false) ? WAIT_ABANDONED : WAIT_OBJECT_0;
  }

  // False if the thread does not own it. Under KernelLock().
  bool Release(Thread& thread) {
    if (owner_ != &thread) return false;
    if (--depth_ > 0) return true;
    owner_ = nullptr;
    std::erase_if(thread.owned, [this](const auto& one) { return one.get() == this; });
    changed.notify_all();  // a single waiter might be a thread that is about to end
    return true;
  }

  void Abandon() override {
    owner_ = nullptr;
    depth_ = 0;
    abandoned_ = true;
    changed.notify_all();
  }

 private:
  Thread* owner_ = nullptr;
  int depth_ = 0;
  bool abandoned_ = false;
};

using Clock = std::chrono::steady_clock;

// Waits until the object can be taken, the time is over, or the thread has been terminated.
DWORD WaitFor(Waitable& object, Thread& thread, DWORD timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::unique_lock hold(KernelLock());
  thread.waits_for = &object;
  DWORD result = WAIT_TIMEOUT;
  while (!thread.told_to_end && (result = object.TryTake(thread)) == WAIT_TIMEOUT) {
    if (timeout_ms == INFINITE) {
      object.changed.wait(hold);
    } else if (timeout_ms == 0 ||
               object.changed.wait_until(hold, deadline) == std::cv_status::timeout) {
      result = thread.told_to_end ? WAIT_TIMEOUT : object.TryTake(thread);
      break;
    }
  }
  thread.waits_for = nullptr;
  hold.unlock();
  EndIfTold();
  return result;
}

}  // namespace

std::shared_ptr<Object> NewEvent(bool manual_reset, bool set) {
  return std::make_shared<Event>(manual_reset, set);
}

std::shared_ptr<Object> NewMutex(bool owned) {
  auto mutex = std::make_shared<Mutex>();
  if (owned) mutex->TryTake(Self());  // needs no KernelLock(): no other thread has the object yet
  return mutex;
}

BOOL ChangeEvent(HANDLE handle, bool set) {
  auto event = LookupAs<Event>(handle);
  if (!event) return FALSE;
  std::lock_guard hold(KernelLock());
  event->Change(set);
  return TRUE;
}

}  // namespace port

BOOL WINAPI ReleaseMutex(HANDLE handle) {
  if (port::Fails("ReleaseMutex")) return FALSE;
  auto mutex = port::LookupAs<port::Mutex>(handle);
  if (!mutex) return FALSE;
  std::lock_guard hold(port::KernelLock());
  if (mutex->Release(port::Self())) return TRUE;
  SetLastError(ERROR_NOT_OWNER);
  return FALSE;
}

DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD timeout_ms) {
  if (port::Fails("WaitForSingleObject")) return WAIT_FAILED;
  port::Thread& thread = port::Self();
  if (handle == GetCurrentThread()) return port::WaitFor(thread, thread, timeout_ms);
  auto object = port::LookupAs<port::Waitable>(handle);
  if (!object) return WAIT_FAILED;
  return port::WaitFor(*object, thread, timeout_ms);
}
