// Runs one thread at a time, in an order that the seed decides, on a virtual clock.
//
// Each simulated thread has a stack of its own (fiber.h), and all of them share one thread of the
// host. The baton says which of them runs. It is passed on only inside Step, Yield and Block, and
// every simulated call goes through one of these. Code between two calls is therefore atomic, and
// the simulation's own data needs no lock.
//
// Virtual time stands still while any thread can run. When all threads wait, it jumps to the next
// deadline or event. There is one exception, for programs that poll in a loop: after `spin_steps`
// steps without a wait, the clock advances by one millisecond.
//
// A killed thread is never scheduled again. Its stack stays as it was, no destructor runs, and its
// locks stay locked, as on Windows.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "port/sim/fiber.h"
#include "port/sim/random.h"

namespace sim {

using Micros = int64_t;  // microseconds since the world began
constexpr Micros kForever = INT64_MAX;

class Process;

// What a thread waits for. `ready` is called often and must not change anything.
struct Wait {
  std::function<bool()> ready;  // null: only the deadline ends the wait
  Micros deadline = kForever;
  std::string what;                   // for the report: "time to pass (Sleep)"
  std::function<std::string()> says;  // instead, where the text takes time and is seldom needed
  bool when_idle = false;  // resumes only when no other thread can run; for the test's own waits
};

class Thread {
 public:
  uint32_t id() const { return id_; }
  const std::string& name() const { return name_; }
  Process* process() const { return process_; }
  bool ended() const { return state_ == State::kEnded; }
  std::string Label() const { return name_; }  // "game/main", as in the trace

  void SetProcess(Process* process) { process_ = process; }

  uint32_t exit_code = 0;
  const void* watched_view = nullptr;  // for which the thread is stepped (views.cpp); one at a time
  std::function<bool()> look;          // and what is asked after each step

 private:
  friend class Scheduler;
  enum class State { kReady, kWaiting, kEnded };

  uint32_t id_ = 0;
  std::string name_;
  Process* process_ = nullptr;
  State state_ = State::kReady;
  const Wait* wait_ = nullptr;
  Micros stalled_until_ = 0;
  unsigned calls_to_action_ = 0;  // 0: no action is set
  std::function<void()> action_;
  std::unique_ptr<Fiber> fiber_;
};
using ThreadRef = std::shared_ptr<Thread>;

class Scheduler {
 public:
  struct Options {
    uint64_t seed = 1;
    int preempt_percent = 20;  // chance that a step passes the baton on
    Micros max_time = 0;
    uint64_t max_steps = 0;
    uint64_t spin_steps = 0;
  };
  // `fail` gets the reason why the world fails (a deadlock, a limit exceeded) and does not return.
  // `ended` runs on the baton when a thread has ended or has been killed, before the thread is
  // reported as ended.
  struct Hooks {
    std::function<void(const std::string&)> fail;
    std::function<void(Thread&)> ended;
  };
  Scheduler(const Options& options, Hooks hooks);

  Micros now() const { return now_; }
  // When a time-out that begins now is noticed.
  Micros DeadlineIn(Micros duration) const {
    return (now_ + duration + grain_ - 1) / grain_ * grain_;
  }
  // Time-outs that begin from now on end at multiples of this.
  void SetGrain(Micros grain) { grain_ = grain; }
  uint64_t steps() const { return steps_; }
  Thread& current() const { return *current_; }
  const std::vector<ThreadRef>& threads() const { return threads_; }
  ThreadRef Find(uint32_t id) const;

  // The scheduler that the calling thread of the host belongs to, if any.
  static const Scheduler* OfThisThread();

  // Makes the calling thread of the host a simulated one, which holds the baton. All others run on
  // the same thread of the host.
  ThreadRef Adopt(const std::string& name, Process* process);
  // Creates a thread that is ready to run. Null if the host cannot create one.
  ThreadRef Start(const std::string& name, Process* process, std::function<uint32_t()> body);

  // A preemption point. Every simulated call begins with one.
  void Step();
  // Counts as a step but never passes the baton on; for reading the clock.
  void Look() { CountStep(); }
  // Passes the baton to any runnable thread, at random.
  void Yield();
  // True when `ready` held, false when the deadline passed. Does not return if the thread is
  // killed.
  bool Block(const Wait& wait);

  // Takes effect at once, because every other thread is inside a call. Does not return if it is the
  // caller's own thread.
  void Kill(Thread& thread, uint32_t exit_code);
  // Ends several threads at once: all are marked before anything else can run.
  void Kill(const std::vector<ThreadRef>& threads, uint32_t exit_code);
  void Stall(Thread& thread, Micros duration);
  // Runs `action` on the baton when the thread begins its n-th step or wait from now on. The action
  // must not block; it may end the thread.
  void AtCall(Thread& thread, unsigned nth, std::function<void()> action);

  // Runs `event` on the baton at that time. Events of the same time run in the order of these
  // calls. An event must not block. While an event with `traffic` is pending, the world is not
  // idle.
  void At(Micros when, std::function<void()> event, bool traffic = false);
  size_t traffic_in_flight() const { return traffic_; }

  // What each thread waits for, one line for each.
  std::string Report() const;

 private:
  struct Event {
    Micros when;
    uint64_t order;
    bool traffic;
    std::function<void()> run;
  };
  static bool Later(const Event& a, const Event& b);

  void CountStep();
  void MeetCall();
  void RunEventsUntil(Micros until);
  bool CanRun(const Thread& thread) const;
  Thread* PickReady();
  Thread* PickNext();
  bool AdvanceTime();
  void SwitchTo(Thread& next);
  void Arrive();
  void PassOn();
  [[noreturn]] void Leave();
  void MarkEnded(Thread& thread, uint32_t exit_code);
  void DropEnded();

  Options options_;
  Hooks hooks_;
  Random dice_;
  Micros now_ = 0;
  Micros grain_ = 1;
  uint64_t steps_ = 0;
  uint64_t steps_here_ = 0;  // since a thread last waited for time to pass
  uint64_t event_order_ = 0;
  size_t traffic_ = 0;
  uint32_t next_id_ = 100;
  Thread* current_ = nullptr;
  std::unique_ptr<Fiber> over_;  // of the thread that has just ended
  std::vector<ThreadRef> threads_;
  bool has_ended_ = false;        // some of these
  std::vector<ThreadRef> ended_;  // never run again; their stacks may still refer to these records
  std::vector<Event> events_;     // a heap, the earliest first
  std::vector<Thread*> ready_;    // of PickReady, which keeps its memory
};

}  // namespace sim
