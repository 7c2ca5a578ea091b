#include "http/thread.h"

#include <windows.h>

#include <utility>

namespace http {
namespace {

DWORD WINAPI RunFunction(LPVOID function) {
  (*static_cast<std::function<void()>*>(function))();
  return 0;
}

}  // namespace

Thread::~Thread() {
  if (handle_ == nullptr) return;
  WaitForSingleObject(handle_, INFINITE);
  CloseHandle(handle_);
}

bool Thread::Start(std::function<void()> run) {
  run_ = std::move(run);
  handle_ = CreateThread(nullptr, 0, RunFunction, &run_, 0, nullptr);
  return handle_ != nullptr;
}

}  // namespace http
