// Where OutputDebugStringA goes: to a sink, or, without one, to stderr when VYR_TRACE is set.
#pragma once
#include <functional>

namespace port {

// The sink runs on the calling thread, under a lock of its own: it must make no Windows call.
// An empty function brings the default back.
void SetDebugSink(std::function<void(const char*)> sink);

}  // namespace port
