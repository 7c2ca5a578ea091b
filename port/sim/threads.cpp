#include "port/sim/threads.h"

#include <cstdio>

#include "port/shared/faults.h"
#include "port/shared/process.h"
#include "port/sim/faults.h"
#include "port/sim/fiber.h"

namespace sim {
namespace {

const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-2));

ThreadRef FindThread(HANDLE handle) {
  if (handle == kCurrentThread) return TheWorld().scheduler().Find(Self().id());
  auto object = port::LookupAs<ThreadObject>(handle);
  return object ? ThreadRef(object, &object->thread()) : nullptr;
}

}  // namespace

Thread& Self() {
  Scheduler& scheduler = TheWorld().scheduler();
  if (Scheduler::OfThisThread() != &scheduler) {
    std::fputs(
        "sim: a Windows call came from a thread that the world does not know; threads inside a "
        "world are made with CreateThread or Spawn\n",
        stderr);
    std::abort();
  }
  return scheduler.current();
}

void Step() {
  Self();
  TheWorld().scheduler().Step();
}

}  // namespace sim

namespace port {

ThreadState& CurrentThreadState() {
  static ThreadState state;
  static const bool kept = (KeepForEachThread(&state, sizeof state), true);
  (void)kept;
  return state;
}

void KeepForEachThread(void* memory, size_t size) { sim::Fiber::KeepForEach(memory, size); }

Process& CurrentProcess() { return sim::Self().process()->record(); }

void OnCall(const char*) { sim::Step(); }

uint32_t RandomBits() { return static_cast<uint32_t>(sim::TheWorld().secrets().Next()); }

}  // namespace port

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start,
                           LPVOID parameter, DWORD flags, LPDWORD id) {
  if (port::Fails("CreateThread")) return nullptr;
  sim::World& world = sim::TheWorld();
  if (world.faults().thread_start.Hit()) {
    world.Trace(sim::Self().name() + " CreateThread fails on demand");
    SetLastError(world.faults().thread_start_error);
    return nullptr;
  }
  if (!start || flags != 0) {  // a suspended thread could not be resumed here
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  sim::Thread& self = sim::Self();
  auto thread =
      world.StartThread(*self.process(), "", [start, parameter] { return start(parameter); });
  if (!thread) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  if (id) *id = thread->id();
  HANDLE handle = port::NewHandle(std::make_shared<sim::ThreadObject>(thread));
  sim::Step();
  return handle;
}

BOOL WINAPI TerminateThread(HANDLE handle, DWORD exit_code) {
  if (port::Fails("TerminateThread")) return FALSE;
  auto thread = sim::FindThread(handle);
  if (!thread) return FALSE;
  if (thread->ended()) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  sim::TheWorld().Trace(sim::Self().name() + " terminates " + thread->name());
  sim::TheWorld().scheduler().Kill(*thread, exit_code);
  return TRUE;
}

BOOL WINAPI GetExitCodeThread(HANDLE handle, LPDWORD exit_code) {
  if (port::Fails("GetExitCodeThread")) return FALSE;
  auto thread = sim::FindThread(handle);
  if (!thread) return FALSE;
  *exit_code = thread->ended() ? thread->exit_code : STILL_ACTIVE;
  return TRUE;
}

HANDLE WINAPI OpenThread(DWORD, BOOL, DWORD id) {
  if (port::Fails("OpenThread")) return nullptr;
  auto thread = sim::TheWorld().scheduler().Find(id);
  if (!thread || thread->ended()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return port::NewHandle(std::make_shared<sim::ThreadObject>(thread));
}

HANDLE WINAPI GetCurrentThread() { return sim::kCurrentThread; }

DWORD WINAPI GetCurrentThreadId() { return sim::Self().id(); }

// --- critical sections --------------------------------------------------------------------

namespace {

// Waiting threads hold a reference, too, so deleting a section during a wait leads to a report and
// not to a use of freed memory.
struct Section {
  sim::Thread* owner = nullptr;
  std::string owner_name;
  int depth = 0;
};
using SectionRef = std::shared_ptr<Section>;

Section* SectionOf(LPCRITICAL_SECTION section) {
  return static_cast<SectionRef*>(section->state)->get();
}

void Own(Section* section, sim::Thread& self) {
  section->owner = &self;
  section->owner_name = self.name();
  section->depth = 1;
}

}  // namespace

// Neither this nor the deletion makes a step: they may run in the constructor of a static object in
// a function, and another thread that reached the same object would wait outside the simulation.
void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section) {
  section->state = new SectionRef(std::make_shared<Section>());
}

void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section) {
  delete static_cast<SectionRef*>(section->state);
  section->state = nullptr;
}

void WINAPI EnterCriticalSection(LPCRITICAL_SECTION handle) {
  sim::Step();
  sim::Thread& self = sim::Self();
  const SectionRef section = *static_cast<SectionRef*>(handle->state);
  if (section->owner == &self) {
    ++section->depth;
    return;
  }
  if (section->owner) {
    sim::Wait wait;
    wait.ready = [&section] { return section->owner == nullptr; };
    wait.what = "a critical section, held by " + section->owner_name;
    sim::TheWorld().scheduler().Block(wait);
  }
  Own(section.get(), self);
}

BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION handle) {
  sim::Step();
  sim::Thread& self = sim::Self();
  Section* section = SectionOf(handle);
  if (section->owner == &self) {
    ++section->depth;
    return TRUE;
  }
  if (section->owner) return FALSE;
  Own(section, self);
  return TRUE;
}

void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION handle) {
  Section* section = SectionOf(handle);
  if (--section->depth > 0) return;
  section->owner = nullptr;
  sim::Step();
}
