#include "thread_hooks.h"

#include <windows.h>

#include <initializer_list>

#include "patch.h"

namespace winsock_host {
namespace {

// Longer than the library lets its own threads wait for one another.
constexpr DWORD kGraceMs = 5000;

bool IsProvider(const void* caller) {
  HMODULE module = nullptr;
  constexpr DWORD kFlags =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  return GetModuleHandleExW(kFlags, static_cast<LPCWSTR>(caller), &module) &&
         GetProcAddress(module, "WSPStartup") != nullptr;
}

// Windows lets a thread out of the kernel before it ends it. Wine 8 ends it wherever it stands,
// also while it holds the lock under which handles are closed: the process then waits for ever at
// the next handle that it closes, mostly at its own end. A worker that is late because the machine
// is busy gets time to end by itself.
BOOL WINAPI HookedTerminateThread(HANDLE thread, DWORD code) {
  if (IsProvider(__builtin_return_address(0)) &&
      WaitForSingleObject(thread, kGraceMs) == WAIT_OBJECT_0) {
    return TRUE;
  }
  return TerminateThread(thread, code);
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
