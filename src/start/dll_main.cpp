// The module's entry point.
#include <winsock2.h>

#include "common/process_info.h"

// Nothing else may happen here: the loader's lock is held.
extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) common::GetProcessInfo().module_handle = module;
  return TRUE;
}
