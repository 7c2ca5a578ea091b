// Threads of the posix backend, as the waits and the sockets see them.
#pragma once
#include <atomic>
#include <vector>

#include "port/shared/backend.h"
#include "port/shared/objects.h"

namespace port {

// What WaitForSingleObject can wait for. All of it is guarded by KernelLock().
class Waitable : public Object {
 public:
  // Takes the object for the thread if it is signalled. The result is WAIT_OBJECT_0,
  // WAIT_ABANDONED, or WAIT_TIMEOUT for "not now".
  virtual DWORD TryTake(class Thread& thread) = 0;

  std::condition_variable changed;
};

// A mutex's side of a thread's end.
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

  // Readable after Wake(): a thread that waits for sockets adds it to its poll.
  int WakeFd();
  void Wake();
  void DrainWakes();

  const DWORD id;
  ThreadState state;
  std::atomic<bool> told_to_end{false};

  // Under KernelLock().
  bool ended = false;
  DWORD exit_code = STILL_ACTIVE;
  DWORD final_code = 0;                             // what TerminateThread asked for
  Waitable* waits_for = nullptr;                    // itself while it sleeps
  std::vector<std::shared_ptr<Abandonable>> owned;  // mutexes

 private:
  std::mutex wake_lock_;
  int wake_fd_ = -1;
};

// One lock for every waitable object: waits are rare, and a wait looks at one object's state
// and its owner's together. A leaf.
std::mutex& KernelLock();

// The calling thread.
Thread& Self();

// A thread that was told to end stops here: it is marked as ended, its mutexes are abandoned, and
// it never returns. Its stack is not unwound, as on Windows: locks that it held stay held.
void EndIfTold();

}  // namespace port
