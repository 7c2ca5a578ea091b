#include "port/sim/scheduler.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "port/sim/trace.h"

namespace sim {

namespace {
constexpr Micros kSpinTick = 1000;

std::string Seconds(Micros at) {
  return Format("%lld.%06lld s", static_cast<long long>(at / 1000000),
                static_cast<long long>(at % 1000000));
}

thread_local const Scheduler* of_this_thread = nullptr;
}  // namespace

const Scheduler* Scheduler::OfThisThread() { return of_this_thread; }

Scheduler::Scheduler(const Options& options, Hooks hooks)
    : options_(options), hooks_(std::move(hooks)), dice_(options.seed) {}

ThreadRef Scheduler::Find(uint32_t id) const {
  for (const auto& thread : threads_)
    if (thread->id_ == id) return thread;
  return nullptr;
}

ThreadRef Scheduler::Adopt(const std::string& name, Process* process) {
  auto thread = std::make_shared<Thread>();
  thread->id_ = next_id_ += 4;
  thread->name_ = name;
  thread->process_ = process;
  thread->fiber_ = std::make_unique<Fiber>();
  threads_.push_back(thread);
  current_ = thread.get();
  of_this_thread = this;
  return thread;
}

ThreadRef Scheduler::Start(const std::string& name, Process* process,
                           std::function<uint32_t()> body) {
  auto thread = std::make_shared<Thread>();
  thread->id_ = next_id_ += 4;
  thread->name_ = name;
  thread->process_ = process;
  Thread& self = *thread;
  thread->fiber_ = std::make_unique<Fiber>([this, &self, run = std::move(body)]() mutable {
    Arrive();
    const uint32_t code = run();
    MarkEnded(self, code);
    run = nullptr;
    over_ = std::move(self.fiber_);
    PassOn();
  });
  if (!thread->fiber_->exists()) return nullptr;
  threads_.push_back(thread);
  return thread;
}

void Scheduler::Step() {
  CountStep();
  MeetCall();
  RunEventsUntil(now_);
  if (current_->state_ == Thread::State::kEnded) Leave();  // killed by an event
  const bool stalled = current_->stalled_until_ > now_;
  if (stalled || dice_.Below(100) < static_cast<uint64_t>(options_.preempt_percent)) Yield();
}

void Scheduler::Yield() {
  current_->state_ = Thread::State::kReady;
  Thread* next = PickNext();
  SwitchTo(*next);
}

bool Scheduler::Block(const Wait& wait) {
  CountStep();
  MeetCall();
  Thread& self = *current_;
  self.wait_ = &wait;
  self.state_ = Thread::State::kWaiting;
  SwitchTo(*PickNext());
  self.wait_ = nullptr;
  self.state_ = Thread::State::kReady;
  return wait.ready && wait.ready();
}

void Scheduler::Kill(Thread& thread, uint32_t exit_code) {
  if (thread.state_ == Thread::State::kEnded) return;
  MarkEnded(thread, exit_code);
  if (&thread == current_) Leave();
}

void Scheduler::Kill(const std::vector<ThreadRef>& threads, uint32_t exit_code) {
  bool self = false;
  for (const auto& thread : threads) {
    if (thread->state_ == Thread::State::kEnded) continue;
    self |= thread.get() == current_;
    MarkEnded(*thread, exit_code);
  }
  if (self) Leave();
}

void Scheduler::Stall(Thread& thread, Micros duration) { thread.stalled_until_ = now_ + duration; }

void Scheduler::AtCall(Thread& thread, unsigned nth, std::function<void()> action) {
  thread.calls_to_action_ = nth;
  thread.action_ = std::move(action);
}

void Scheduler::MeetCall() {
  Thread& self = *current_;
  if (self.calls_to_action_ == 0 || --self.calls_to_action_ > 0) return;
  const std::function<void()> action = std::move(self.action_);
  action();
  if (self.state_ == Thread::State::kEnded) Leave();
}

bool Scheduler::Later(const Event& a, const Event& b) {
  return a.when != b.when ? a.when > b.when : a.order > b.order;
}

void Scheduler::At(Micros when, std::function<void()> event, bool traffic) {
  events_.push_back({std::max(when, now_), event_order_++, traffic, std::move(event)});
  std::push_heap(events_.begin(), events_.end(), Later);
  traffic_ += traffic;
}

void Scheduler::CountStep() {
  if (++steps_ > options_.max_steps)
    hooks_.fail(Format("more than %llu steps: does a thread spin without end?",
                       static_cast<unsigned long long>(options_.max_steps)));
  if (++steps_here_ < options_.spin_steps) return;
  steps_here_ = 0;
  RunEventsUntil(now_ + kSpinTick);
}

void Scheduler::RunEventsUntil(Micros until) {
  while (!events_.empty() && events_.front().when <= until) {
    std::pop_heap(events_.begin(), events_.end(), Later);
    Event event = std::move(events_.back());
    events_.pop_back();
    now_ = std::max(now_, event.when);
    traffic_ -= event.traffic;
    event.run();
  }
  now_ = std::max(now_, until);
}

bool Scheduler::CanRun(const Thread& thread) const {
  if (thread.state_ == Thread::State::kEnded || thread.stalled_until_ > now_) return false;
  if (thread.state_ == Thread::State::kReady) return true;
  const Wait& wait = *thread.wait_;
  return wait.deadline <= now_ || (wait.ready && wait.ready());
}

Thread* Scheduler::PickReady() {
  ready_.clear();
  Thread* idle = nullptr;
  for (const auto& thread : threads_) {
    if (!CanRun(*thread)) continue;
    if (thread->wait_ && thread->wait_->when_idle)
      idle = idle ? idle : thread.get();
    else
      ready_.push_back(thread.get());
  }
  if (ready_.empty()) return idle;
  return ready_.size() == 1 ? ready_[0] : ready_[dice_.Below(ready_.size())];
}

// Never null: if no thread can run, the world fails with a report.
Thread* Scheduler::PickNext() {
  RunEventsUntil(now_);
  while (true) {
    DropEnded();
    if (Thread* next = PickReady()) return next;
    if (!AdvanceTime()) hooks_.fail("deadlock: every thread waits for ever");
    if (now_ > options_.max_time)
      hooks_.fail("the world is older than its limit of " + Seconds(options_.max_time));
  }
}

bool Scheduler::AdvanceTime() {
  Micros next = events_.empty() ? kForever : events_.front().when;
  for (const auto& thread : threads_) {
    if (thread->state_ == Thread::State::kEnded) continue;
    if (thread->stalled_until_ > now_) {
      next = std::min(next, thread->stalled_until_);
    } else if (thread->wait_) {
      next = std::min(next, thread->wait_->deadline);
    }
  }
  if (next == kForever) return false;
  steps_here_ = 0;
  RunEventsUntil(next);
  return true;
}

void Scheduler::SwitchTo(Thread& next) {
  Thread& self = *current_;
  if (&self == &next) return;
  current_ = &next;
  Fiber::Switch(*self.fiber_, *next.fiber_);
  Arrive();
}

// The first thing that a thread does which has been given the baton.
void Scheduler::Arrive() { over_.reset(); }

// Passes the baton on from a thread that will never run again.
void Scheduler::PassOn() {
  Fiber& last = over_ ? *over_ : *current_->fiber_;
  Thread* next = PickNext();
  current_ = next;
  Fiber::Switch(last, *next->fiber_);
}

// A killed thread's stack must stay intact: other threads may have pointers into it.
void Scheduler::Leave() {
  PassOn();
  std::abort();
}

void Scheduler::MarkEnded(Thread& thread, uint32_t exit_code) {
  thread.state_ = Thread::State::kEnded;
  has_ended_ = true;
  thread.exit_code = exit_code;
  hooks_.ended(thread);
}

void Scheduler::DropEnded() {
  if (!std::exchange(has_ended_, false)) return;
  for (size_t i = 0; i < threads_.size();) {
    if (!threads_[i]->ended()) {
      ++i;
      continue;
    }
    ended_.push_back(threads_[i]);
    threads_.erase(threads_.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

std::string Scheduler::Report() const {
  std::string out = Format("at %s, after %llu steps:\n", Seconds(now_).c_str(),
                           static_cast<unsigned long long>(steps_));
  for (const auto& thread : threads_) {
    if (thread->ended()) continue;
    std::string line = "  " + thread->Label() + ": ";
    if (thread->stalled_until_ > now_) {
      line += "stalled until " + Seconds(thread->stalled_until_);
    } else if (!thread->wait_) {
      line += thread.get() == current_ ? "running" : "ready to run";
    } else {
      const Wait& wait = *thread->wait_;
      line += "waits for " + (wait.says ? wait.says() : wait.what);
      line += thread->wait_->deadline == kForever ? ", for ever"
                                                  : ", until " + Seconds(thread->wait_->deadline);
    }
    out += line + "\n";
  }
  return out;
}

}  // namespace sim
