// Inspects memory after each instruction of a piece of code, as another process could between any
// two of its writes. This tests the machine code, not its source.
//
// `look` may run anywhere, even in an allocation or under a lock, so it may only compare and copy
// bytes. One at a time.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <functional>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

#ifndef _WIN32
#include "port/shared/single_step.h"
#endif

namespace test {

// False if single steps are not possible; the thread sanitizer intercepts their signals.
inline bool CanStep() {
#if defined(_WIN32)
  return true;
#elif defined(__SANITIZE_THREAD__)
  return false;
#else
  return port::CanStep();
#endif
}

#ifdef _WIN32
namespace internal {
inline constexpr unsigned kTrapFlag = 0x100;
inline const std::function<void()>* look = nullptr;

inline LONG CALLBACK OnStep(EXCEPTION_POINTERS* at) {
  if (at->ExceptionRecord->ExceptionCode != EXCEPTION_SINGLE_STEP) return EXCEPTION_CONTINUE_SEARCH;
  if (look == nullptr) return EXCEPTION_CONTINUE_EXECUTION;
  (*look)();
  at->ContextRecord->EFlags |= kTrapFlag;
  return EXCEPTION_CONTINUE_EXECUTION;
}
}  // namespace internal
#endif

inline void StepThrough(const std::function<void()>& body, const std::function<void()>& look) {
#ifdef _WIN32
  void* const handler = AddVectoredExceptionHandler(1, internal::OnStep);
  internal::look = &look;
  __writeeflags(__readeflags() | internal::kTrapFlag);
  body();
  internal::look = nullptr;  // the last step finds no callback, and does not request another
  RemoveVectoredExceptionHandler(handler);
#else
  const std::function<bool()> go_on = [&look] { return look(), true; };
  port::BeginSteps(&go_on);
  body();
  port::EndSteps();
#endif
}

}  // namespace test
