// Entry points of winsock_host.dll. Nothing runs when the module is loaded: the launcher calls
// HostStart in a thread of its own, outside the loader's lock, before the program's first thread
// runs.

#include <windows.h>
#include <winsock2.h>

#include "catalogue.h"
#include "child_hooks.h"
#include "host_config.h"
#include "loader_hooks.h"
#include "patch.h"
#include "providers.h"
#include "report.h"
#include "startup.h"
#include "thread_hooks.h"
#include "winsock_hooks.h"

namespace winsock_host {
namespace {

HMODULE g_host_module;

void SpareSystemModules() {
  for (const wchar_t* name : {L"ntdll.dll", L"kernel32.dll", L"kernelbase.dll", L"ws2_32.dll"}) {
    NeverPatch(GetModuleHandleW(name));
  }
  NeverPatch(g_host_module);
}

}  // namespace

extern "C" DWORD WINAPI HostStart(void* argument) {
  const auto& config = *static_cast<const HostConfig*>(argument);
  if (config.version != kHostVersion) return kHostWrongVersion;
  if (!OpenReport(HandleOf(config.report_mapping))) return kHostNoReport;
  SpareSystemModules();
  AddWinsockReplacements();
  AddLoaderReplacements();
  AddThreadReplacements();
  AddChildReplacements(g_host_module, config);
  if (!BuildCatalogue(config)) return kHostNoCatalogue;
  PrepareStartup(config);
  if (!PrepareProviders(config)) return kHostNoBaseProvider;
  FollowModuleLoads();
  PatchNewModules();
  return kHostStarted;
}

}  // namespace winsock_host

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) winsock_host::g_host_module = module;
  return TRUE;
}
