// Stops a thread after each of its instructions. With this a test sees memory as another process
// may see it between any two writes of one copy, or ends the process there.
//
// `look` returns whether to continue stepping. It runs in a signal handler on the thread itself,
// which may be inside an allocation or hold a lock, so `look` must neither allocate nor lock unless
// it knows that the thread does not. On machines other than x86 it is never called.
#pragma once
#include <functional>

namespace port {

bool CanStep();

// Steps the calling thread until EndSteps. *look must live until then.
void BeginSteps(const std::function<bool()>* look);
void EndSteps();

// The same as EndSteps for now. Returns what BeginSteps needs to go on, or null if the calling
// thread was not stepped.
const std::function<bool()>* PauseSteps();

}  // namespace port
