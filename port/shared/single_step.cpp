#include "port/shared/single_step.h"

#include <signal.h>
#include <ucontext.h>

#include <cerrno>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define VYR_CAN_STEP 1
#else
#define VYR_CAN_STEP 0
#endif

namespace port {
namespace {

thread_local const std::function<bool()>* look_of_this_thread = nullptr;

constexpr unsigned kTrapFlag = 0x100;

void OnTrap(int, siginfo_t*, void* context) {
  const int error = errno;
  if (look_of_this_thread != nullptr && !(*look_of_this_thread)()) look_of_this_thread = nullptr;
#if VYR_CAN_STEP
  auto& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
  if (look_of_this_thread == nullptr) flags &= ~static_cast<greg_t>(kTrapFlag);
#else
  (void)context;
#endif
  errno = error;
}

void CatchTraps() {
  struct sigaction action = {};
  action.sa_sigaction = OnTrap;
  // Not blocked meanwhile: a thread that `look` ends never returns from here, and others of the
  // same thread of the host go on.
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_NODEFER;
  ::sigaction(SIGTRAP, &action, nullptr);
}

void SetTrapFlag(bool on) {
#if VYR_CAN_STEP
  const auto flags = __readeflags();
  __writeeflags(on ? flags | kTrapFlag : flags & ~decltype(flags){kTrapFlag});
#else
  (void)on;
#endif
}

}  // namespace

bool CanStep() { return VYR_CAN_STEP != 0; }

void BeginSteps(const std::function<bool()>* look) {
  static const bool caught = (CatchTraps(), true);
  (void)caught;
  look_of_this_thread = look;
  SetTrapFlag(true);
}

void EndSteps() {
  SetTrapFlag(false);
  look_of_this_thread = nullptr;
}

const std::function<bool()>* PauseSteps() {
  const auto* const look = look_of_this_thread;
  if (look != nullptr) EndSteps();
  return look;
}

}  // namespace port
