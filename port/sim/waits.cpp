// Events, mutexes and the wait for one object.
#include <map>
#include <utility>

#include "port/shared/faults.h"
#include "port/sim/faults.h"
#include "port/sim/threads.h"

namespace sim {
namespace {

std::string Called(const char* kind, const std::string& name) {
  return name.empty() ? std::string("an unnamed ") + kind : std::string(kind) + " \"" + name + "\"";
}

class Event : public Waitable {
 public:
  Event(bool manual_reset, bool set) : manual_reset_(manual_reset), set_(set) {}
  const char* kind() const override { return "event"; }
  bool Ready(const Thread&) const override { return set_; }
  DWORD Take(Thread&) override {
    if (!manual_reset_) set_ = false;
    return WAIT_OBJECT_0;
  }
  std::string Describe() const override { return Called("event", name()); }
  void Change(bool set) { set_ = set; }

 private:
  const bool manual_reset_;
  bool set_;
};

class Mutex;
std::map<const Thread*, std::vector<std::shared_ptr<Mutex>>>& Owned() {
  static auto& owned = *new std::map<const Thread*, std::vector<std::shared_ptr<Mutex>>>;
  return owned;
}

class Mutex : public Waitable, public std::enable_shared_from_this<Mutex> {
 public:
  const char* kind() const override { return "mutex"; }
  bool Ready(const Thread& thread) const override { return !owner_ || owner_ == &thread; }

  DWORD Take(Thread& thread) override {
    if (owner_ == &thread) {
      ++depth_;
      return WAIT_OBJECT_0;
    }
    owner_ = &thread;
    depth_ = 1;
    Owned()[&thread].push_back(shared_from_this());
    return std::exchange(abandoned_, false) ? WAIT_ABANDONED : WAIT_OBJECT_0;
  }

  std::string Describe() const override {
    return Called("mutex", name()) + (owner_ ? ", held by " + owner_->name() : "");
  }

  // False if the thread does not own it.
  bool Release(Thread& thread) {
    if (owner_ != &thread) return false;
    if (--depth_ > 0) return true;
    owner_ = nullptr;
    std::erase_if(Owned()[&thread], [this](const auto& one) { return one.get() == this; });
    return true;
  }

  void Abandon() {
    owner_ = nullptr;
    depth_ = 0;
    abandoned_ = true;
  }

 private:
  const Thread* owner_ = nullptr;
  int depth_ = 0;
  bool abandoned_ = false;
};

void KillIfAsked(Thread& self, const Waitable& object) {
  auto& wanted = TheWorld().faults().kill_when_it_holds;
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (wanted[i].first != self.process() || wanted[i].second != object.name()) continue;
    wanted.erase(wanted.begin() + static_cast<std::ptrdiff_t>(i));
    TheWorld().Kill(*self.process());
  }
}

DWORD WaitFor(Waitable& object, DWORD timeout_ms) {
  Thread& self = Self();
  if (!object.Ready(self)) {
    if (timeout_ms == 0) return WAIT_TIMEOUT;
    Wait wait;
    wait.ready = [&] { return object.Ready(self); };
    wait.says = [&object] { return object.Describe(); };
    Scheduler& scheduler = TheWorld().scheduler();
    if (timeout_ms != INFINITE) wait.deadline = scheduler.DeadlineIn(Micros{timeout_ms} * 1000);
    if (!scheduler.Block(wait)) return WAIT_TIMEOUT;
  }
  const DWORD result = object.Take(self);
  KillIfAsked(self, object);
  return result;
}

}  // namespace

void AbandonMutexesOf(Thread& thread) {
  const auto at = Owned().find(&thread);
  if (at == Owned().end()) return;
  for (const auto& mutex : at->second) mutex->Abandon();
  Owned().erase(at);
}

}  // namespace sim

namespace port {

std::shared_ptr<Object> NewEvent(bool manual_reset, bool set) {
  return std::make_shared<sim::Event>(manual_reset, set);
}

std::shared_ptr<Object> NewMutex(bool owned) {
  auto mutex = std::make_shared<sim::Mutex>();
  if (owned) mutex->Take(sim::Self());
  return mutex;
}

BOOL ChangeEvent(HANDLE handle, bool set) {
  auto event = LookupAs<sim::Event>(handle);
  if (!event) return FALSE;
  if (set && sim::TheWorld().faults().lost_set_event.Hit()) {
    sim::TheWorld().Trace(sim::Self().name() + " SetEvent is lost on demand: " + event->Describe());
    return TRUE;
  }
  event->Change(set);
  sim::Step();
  return TRUE;
}

}  // namespace port

BOOL WINAPI ReleaseMutex(HANDLE handle) {
  if (port::Fails("ReleaseMutex")) return FALSE;
  auto mutex = port::LookupAs<sim::Mutex>(handle);
  if (!mutex) return FALSE;
  if (mutex->Release(sim::Self())) {
    sim::Step();
    return TRUE;
  }
  SetLastError(ERROR_NOT_OWNER);
  return FALSE;
}

DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD timeout_ms) {
  if (port::Fails("WaitForSingleObject")) return WAIT_FAILED;
  if (handle == GetCurrentThread()) {
    Sleep(timeout_ms);
    return WAIT_TIMEOUT;
  }
  auto object = port::LookupAs<sim::Waitable>(handle);
  if (!object) return WAIT_FAILED;
  return sim::WaitFor(*object, timeout_ms);
}
