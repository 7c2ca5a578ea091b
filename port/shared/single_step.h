// Stops a thread after each of its instructions: how a test sees memory as another process may see
// it, or ends a process, between any two writes of one copy.
//
// `look` says whether the steps go on. It runs in a signal handler on the thread itself, which may
// be inside an allocation or hold a lock, so `look` must neither allocate nor lock unless it knows
// that the thread does not. On machines other than x86 it is never called.
#pragma once
#include <functional>

namespace port {

bool CanStep();

// The calling thread, until EndSteps. *look outlives the steps.
void BeginSteps(const std::function<bool()>* look);
void EndSteps();

}  // namespace port
