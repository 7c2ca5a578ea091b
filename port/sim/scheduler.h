// One thread at a time, in an order that a seed decides, on a clock that a test owns.
//
// Each simulated thread is a real thread of the machine, so the debugger, the sanitizers and
// thread_local work as ever; a baton makes sure that exactly one of them runs. The baton can
// change hands only inside Step, Yield and Block, which every simulated call goes through. Code
// between two calls is therefore atomic, and whatever belongs to the simulation needs no lock.
//
// Virtual time stands still while anyone can run. When all wait it jumps to the next deadline
// or event. One exception keeps programs that poll in a loop alive, as a real machine would:
// after `spin_steps` steps without a wait the clock moves by one millisecond.
//
// A thread that is killed is never scheduled again: its stack stays as it was, no destructor
// runs and what it had locked stays locked, which is what Windows does.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "port/sim/random.h"

namespace sim {

using Micros = int64_t;  // since the world began
constexpr Micros kForever = INT64_MAX;

class Process;

// What a thread waits for. `ready` is asked often and must change nothing.
struct Wait {
  std::function<bool()> ready;  // null: nothing but the deadline ends the wait
  Micros deadline = kForever;
  std::string what;        // for the report: "mutex \"vyr_route_named_mutex\", held by game/main"
  bool when_idle = false;  // resumes only when no other thread can run: the test's own verbs
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

 private:
  friend class Scheduler;
  enum class State { kReady, kWaiting, kEnded };

  void AwaitBaton();
  void TakeBaton();

  uint32_t id_ = 0;
  std::string name_;
  Process* process_ = nullptr;
  State state_ = State::kReady;
  const Wait* wait_ = nullptr;
  Micros stalled_until_ = 0;
  unsigned calls_to_action_ = 0;  // 0: none waits
  std::function<void()> action_;

  std::mutex mutex_;
  std::condition_variable wake_;
  bool baton_ = false;
};
using ThreadRef = std::shared_ptr<Thread>;

class Scheduler {
 public:
  struct Options {
    uint64_t seed = 1;
    int preempt_percent = 20;  // chance that a step hands the baton on
    Micros max_time = 0;
    uint64_t max_steps = 0;
    uint64_t spin_steps = 0;
  };
  // `fail` gets the reason why the world ends (deadlock, a bound passed) and does not return.
  // `ended` runs on the baton when a thread has ended or been killed, before it is reported.
  struct Hooks {
    std::function<void(const std::string&)> fail;
    std::function<void(Thread&)> ended;
  };
  Scheduler(const Options& options, Hooks hooks);

  Micros now() const { return now_; }
  uint64_t steps() const { return steps_; }
  Thread& current() const { return *current_; }
  const std::vector<ThreadRef>& threads() const { return threads_; }
  ThreadRef Find(uint32_t id) const;

  // The scheduler that the calling thread of the machine belongs to, if any.
  static const Scheduler* OfThisThread();

  // The calling thread of the machine becomes a simulated one and holds the baton.
  ThreadRef Adopt(const std::string& name, Process* process);
  // A new thread, ready to run. Null when the machine has no more threads to give.
  ThreadRef Start(const std::string& name, Process* process, std::function<uint32_t()> body);

  // A preemption point. Every simulated call begins with one.
  void Step();
  // Counts like a step without passing the baton on: for reading the clock.
  void Look() { CountStep(); }
  // Lets any runnable thread go first, at random.
  void Yield();
  // True when `ready` held, false when the deadline passed. Does not return if killed.
  bool Block(const Wait& wait);

  // Takes effect at once, since every other thread is inside a call; does not return when the
  // thread is the caller's own.
  void Kill(Thread& thread, uint32_t exit_code);
  // Ends several at once: the whole set is marked before anything else can run.
  void Kill(const std::vector<ThreadRef>& threads, uint32_t exit_code);
  void Stall(Thread& thread, Micros duration);
  // Runs `action` on the baton when the thread begins its n-th step or wait from now on. It must
  // not block, and may end the thread.
  void AtCall(Thread& thread, unsigned nth, std::function<void()> action);

  // Runs `event` at that time, on the baton, in the order of time and then of these calls. It
  // must not block. Traffic counts as not idle.
  void At(Micros when, std::function<void()> event, bool traffic = false);
  size_t traffic_in_flight() const { return traffic_; }

  // What each thread waits for, one line a thread.
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
  void PassOn();
  [[noreturn]] void Leave();
  void MarkEnded(Thread& thread, uint32_t exit_code);
  void DropEnded();

  Options options_;
  Hooks hooks_;
  Random dice_;
  Micros now_ = 0;
  uint64_t steps_ = 0;
  uint64_t steps_here_ = 0;  // since a thread last waited for time to pass
  uint64_t event_order_ = 0;
  size_t traffic_ = 0;
  uint32_t next_id_ = 100;
  Thread* current_ = nullptr;
  std::vector<ThreadRef> threads_;
  std::vector<ThreadRef> ended_;  // parked for good; their stacks may still refer to these
  std::vector<Event> events_;     // a heap, the earliest first
};

}  // namespace sim
