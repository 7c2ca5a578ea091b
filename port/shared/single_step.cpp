#include "port/shared/single_step.h"

#include <signal.h>

#include <cerrno>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define VYR_CAN_STEP 1
#else
#define VYR_CAN_STEP 0
#endif

namespace port {
namespace {

thread_local const std::function<void()>* look_of_this_thread = nullptr;

void OnTrap(int, siginfo_t*, void*) {
  const int error = errno;
  if (look_of_this_thread != nullptr) (*look_of_this_thread)();
  errno = error;
}

void CatchTraps() {
  struct sigaction action = {};
  action.sa_sigaction = OnTrap;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  ::sigaction(SIGTRAP, &action, nullptr);
}

void SetTrapFlag(bool on) {
#if VYR_CAN_STEP
  constexpr unsigned kTrapFlag = 0x100;
  const auto flags = __readeflags();
  __writeeflags(on ? flags | kTrapFlag : flags & ~decltype(flags){kTrapFlag});
#else
  (void)on;
#endif
}

}  // namespace

bool CanStep() { return VYR_CAN_STEP != 0; }

void BeginSteps(const std::function<void()>* look) {
  static const bool caught = (CatchTraps(), true);
  (void)caught;
  look_of_this_thread = look;
  SetTrapFlag(true);
}

void EndSteps() {
  SetTrapFlag(false);
  look_of_this_thread = nullptr;
}

}  // namespace port
