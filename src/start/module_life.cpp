#include "start/module_life.h"

#include <winsock2.h>

#include "start/startup.h"

namespace moru_vyr::lsp {

bool KeepModule() noexcept {
  constexpr DWORD kFlags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN;
  HMODULE module = nullptr;
  // Any address in the module will do, and this function can be referred to by name.
  const auto here = reinterpret_cast<LPCWSTR>(reinterpret_cast<const void*>(&WSPStartup));
  return GetModuleHandleExW(kFlags, here, &module) != FALSE;
}

}  // namespace moru_vyr::lsp
