// OutputDebugStringA writes to a sink; without one, to stderr if VYR_TRACE is set.
#pragma once
#include <functional>

namespace port {

// The sink runs on the calling thread, under a lock, and must not make Windows calls. An empty
// function restores the default.
void SetDebugSink(std::function<void(const char*)> sink);

}  // namespace port
