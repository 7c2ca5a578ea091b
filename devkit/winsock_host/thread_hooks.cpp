#include "thread_hooks.h"

#include <windows.h>

#include <initializer_list>

#include "owners.h"
#include "patch.h"

namespace winsock_host {
namespace {

constexpr DWORD kFailed = static_cast<DWORD>(-1);

// Suspends a thread in a place where it may be ended. True if it is suspended, and has to be ended
// or resumed.
bool Halt(HANDLE thread) {
  const OwnersLock not_inside_the_host;
  if (SuspendThread(thread) == kFailed) return false;
  CONTEXT context = {};
  context.ContextFlags = CONTEXT_CONTROL;
  GetThreadContext(thread, &context);  // returns once the thread is suspended
  return true;
}

// Windows ends a thread only outside of the kernel. Wine 8 ends it wherever it is, even while it
// holds the lock under which handles are closed: the process then hangs at the next handle that it
// closes, mostly at its own end. But Wine suspends a thread outside of such places only.
BOOL WINAPI HookedTerminateThread(HANDLE thread, DWORD code) {
  const bool is_own = GetThreadId(thread) == GetCurrentThreadId();
  const bool halted = !is_own && Halt(thread);
  const BOOL ended = TerminateThread(thread, code);
  if (halted && !ended) ResumeThread(thread);
  return ended;
}

}  // namespace

void AddThreadReplacements() {
  if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr) return;
  for (const wchar_t* name : {L"kernel32.dll", L"kernelbase.dll"}) {
    AddReplacement(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(name), "TerminateThread")),
        reinterpret_cast<void*>(HookedTerminateThread));
  }
}

}  // namespace winsock_host
