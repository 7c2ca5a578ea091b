#include "child_hooks.h"

#include <string>

#include "join.h"
#include "kinds.h"
#include "patch.h"

namespace winsock_host {
namespace {

constexpr DWORD kNoLauncher = 1;

struct ChildState {
  HostConfig config;
  std::wstring folder;
};
ChildState& TheChildState() {
  static ChildState& state =
      *new ChildState{};  // never destroyed: threads outlive static destructors
  return state;
}

// A debugger has to handle each new thread of its program, but it waits here: such a program runs
// without the library.
bool IsDebugged(DWORD flags) { return (flags & (DEBUG_PROCESS | DEBUG_ONLY_THIS_PROCESS)) != 0; }

// A program that cannot be hosted runs without the library. The last error stays as the start has
// left it.
void Host(DWORD wanted_flags, const PROCESS_INFORMATION& child) {
  const DWORD last_error = GetLastError();
  ChildState& state = TheChildState();
  HostConfig config = state.config;
  // Files of our own kind are of no use to the other, which has its own.
  if (KindOfProcess(child.hProcess) != kOwnKind) {
    config.library[0] = config.base[0] = config.next[0] = 0;
  }
  JoinProgram(state.folder, child, config, kNoLauncher);
  if ((wanted_flags & CREATE_SUSPENDED) == 0) ResumeThread(child.hThread);
  SetLastError(last_error);
}

// `create` starts the child with the flags passed to it.
template <class Create>
BOOL StartHosted(DWORD flags, const PROCESS_INFORMATION* child, const Create& create) {
  const DWORD suspended = IsDebugged(flags) ? 0 : CREATE_SUSPENDED;
  const BOOL started = create(flags | suspended);
  if (started && suspended != 0) Host(flags, *child);
  return started;
}

BOOL WINAPI HookedCreateProcessA(LPCSTR program, LPSTR line, LPSECURITY_ATTRIBUTES process,
                                 LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags,
                                 LPVOID environment, LPCSTR folder, LPSTARTUPINFOA startup,
                                 LPPROCESS_INFORMATION child) {
  return StartHosted(flags, child, [&](DWORD with) {
    return CreateProcessA(program, line, process, thread, inherit, with, environment, folder,
                          startup, child);
  });
}

BOOL WINAPI HookedCreateProcessW(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES process,
                                 LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags,
                                 LPVOID environment, LPCWSTR folder, LPSTARTUPINFOW startup,
                                 LPPROCESS_INFORMATION child) {
  return StartHosted(flags, child, [&](DWORD with) {
    return CreateProcessW(program, line, process, thread, inherit, with, environment, folder,
                          startup, child);
  });
}

}  // namespace

void AddChildReplacements(HMODULE host, const HostConfig& config) {
  TheChildState() = {config, FolderOf(host)};
  for (const wchar_t* name : {L"kernel32.dll", L"kernelbase.dll"}) {
    const HMODULE module = GetModuleHandleW(name);
    AddReplacement(reinterpret_cast<void*>(GetProcAddress(module, "CreateProcessA")),
                   reinterpret_cast<void*>(HookedCreateProcessA));
    AddReplacement(reinterpret_cast<void*>(GetProcAddress(module, "CreateProcessW")),
                   reinterpret_cast<void*>(HookedCreateProcessW));
  }
}

}  // namespace winsock_host
