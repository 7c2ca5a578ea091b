// Threads and waitable objects of the simulation, as the waits and the world see them. All of it
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
  // Called when Ready: WAIT_OBJECT_0 or WAIT_ABANDONED.
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

// The calling thread; ends the program with a message if the world does not know it.
Thread& Self();

// A preemption point with no name of its own.
void Step();

// Abandons the mutexes of a thread that ends.
void AbandonMutexesOf(Thread& thread);

}  // namespace sim
