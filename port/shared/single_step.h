// Stops a thread after each of its instructions: how a test sees memory as another process may see
// it, or ends a process, between any two writes of one copy.
//
// `look` says whether the steps go on. It runs in a signal handler on the thread itself, which may
// stand anywhere, in an allocation or under a lock: it does neither, unless it knows better. Where
// the machine cannot do it (it is no x86), nothing is ever looked at.
#pragma once
#include <functional>

namespace port {

bool CanStep();

// The calling thread, until EndSteps. *look outlives the steps.
void BeginSteps(const std::function<bool()>* look);
void EndSteps();

}  // namespace port
