// The simulation's threads and waitable objects, for the wait functions and the world. All of this
// runs on the scheduler's baton.
#pragma once
#include "port/shared/backend.h"
#include "port/shared/objects.h"
#include "port/sim/scheduler.h"
#include "port/sim/sim.h"

namespace sim {

// What WaitForSingleObject can wait for.
class Waitable : public port::Object {
 public:
  virtual bool Ready(const Thread& thread) const = 0;
  // Called when Ready. Returns WAIT_OBJECT_0 or WAIT_ABANDONED.
  virtual DWORD Take(Thread& thread) = 0;
  virtual std::string Describe() const = 0;  // for the report of a deadlock
};

// The object behind a thread's handle.
class ThreadObject : public Waitable {
 public:
  explicit ThreadObject(ThreadRef thread) : thread_(std::move(thread)) {}
  const char* kind() const override { return "thread"; }
  bool Ready(const Thread&) const override { return thread_->ended(); }
  DWORD Take(Thread&) override { return WAIT_OBJECT_0; }
  std::string Describe() const override { return "the end of " + thread_->name(); }
  Thread& thread() { return *thread_; }

 private:
  ThreadRef thread_;
};

// The calling thread. Ends the program with a message if it is not a simulated thread.
Thread& Self();

// A preemption point without a name.
void Step();

// Abandons the mutexes of an ending thread.
void AbandonMutexesOf(Thread& thread);

}  // namespace sim
