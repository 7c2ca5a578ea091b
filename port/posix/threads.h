// Threads of the posix backend, for the wait functions and the sockets.
#pragma once
#include <atomic>
#include <vector>

#include "port/shared/backend.h"
#include "port/shared/objects.h"

namespace port {

// What WaitForSingleObject can wait for. Guarded by KernelLock().
class Waitable : public Object {
 public:
  // Takes the object for the thread if it is signalled. Returns WAIT_OBJECT_0 or WAIT_ABANDONED, or
  // WAIT_TIMEOUT if it is not signalled.
  virtual DWORD TryTake(class Thread& thread) = 0;

  std::condition_variable changed;
};

// A mutex, for the end of the thread that owns it.
class Abandonable {
 public:
  virtual ~Abandonable() = default;
  virtual void Abandon() = 0;  // under KernelLock()
};

class Thread : public Waitable {
 public:
  explicit Thread(DWORD number) : id(number) {}
  ~Thread() override;
  const char* kind() const override { return "thread"; }
  DWORD TryTake(Thread&) override { return ended ? WAIT_OBJECT_0 : WAIT_TIMEOUT; }

  // Readable after Wake(). A thread that waits for sockets includes it in its poll.
  int WakeFd();
  void Wake();
  void DrainWakes();

  const DWORD id;
  ThreadState state;
  std::atomic<bool> told_to_end{false};

  // Under KernelLock().
  bool ended = false;
  DWORD exit_code = STILL_ACTIVE;
  DWORD final_code = 0;                             // the exit code given to TerminateThread
  Waitable* waits_for = nullptr;                    // the thread itself while it sleeps
  std::vector<std::shared_ptr<Abandonable>> owned;  // mutexes

 private:
  std::mutex wake_lock_;
  int wake_fd_ = -1;
};

// One lock for all waitable objects: waits are rare, and a wait needs the state of an object and of
// its owner at the same moment. A leaf.
std::mutex& KernelLock();

// The calling thread.
Thread& Self();

// Does not return in a thread that has been terminated: marks it as ended and abandons its mutexes.
// Its stack is not unwound, as on Windows, so its locks stay locked.
void EndIfTold();

}  // namespace port
