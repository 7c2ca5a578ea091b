#include "port/shared/debug_output.h"

#include <windows.h>

#include <cstdio>

#include "port/shared/backend.h"

namespace port {
namespace {

std::mutex debug_output_lock;

std::function<void(const char*)>& Sink() {
  static auto& sink = *new std::function<void(const char*)>;
  return sink;
}

}  // namespace

void SetDebugSink(std::function<void(const char*)> sink) {
  std::lock_guard hold(debug_output_lock);
  Sink() = std::move(sink);
}

}  // namespace port

void WINAPI OutputDebugStringA(LPCSTR text) {
  port::OnCall("OutputDebugStringA");
  if (!text) return;
  static const bool to_stderr = std::getenv("VYR_TRACE") != nullptr;
  std::lock_guard hold(port::debug_output_lock);
  if (port::Sink()) return port::Sink()(text);
  if (!to_stderr) return;
  const size_t size = std::strlen(text);
  const bool ends = size > 0 && text[size - 1] == '\n';
  std::fprintf(stderr, "%s%s", text, ends ? "" : "\n");
}
