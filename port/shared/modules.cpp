#include "port/shared/modules.h"

#include <list>

#include "port/shared/backend.h"
#include "port/shared/base_startup.h"
#include "port/shared/faults.h"
#include "port/shared/process.h"
#include "port/shared/text.h"

namespace port {
namespace {

struct Module {
  std::wstring path;
  std::map<std::string, FARPROC> exports;
  int loaded = 0;
  int loads_ever = 0;
  bool pinned = false;
};

std::mutex modules_lock;

// A list, because a module's address is its handle.
std::list<Module>& Modules() {
  static auto& modules = *new std::list<Module>{
      {Expand(kBaseProviderPath),
       {{"WSPStartup", reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&BaseStartup))}}}};
  return modules;
}

std::wstring BaseName(const std::wstring& path) {
  return path.substr(path.find_last_of(L"\\/") + 1);
}

Module* FindByPath(const std::wstring& path) {
  const std::wstring expanded = Expand(path);
  for (Module& module : Modules())
    if (SameName(module.path, expanded)) return &module;
  return nullptr;
}

Module* FindForLoad(std::wstring path) {
  if (BaseName(path).find(L'.') == std::wstring::npos) path += L".dll";
  const bool bare = path.find_first_of(L"\\/") == std::wstring::npos;
  for (Module& module : Modules())
    if (SameName(bare ? BaseName(module.path) : module.path, path)) return &module;
  return nullptr;
}

// The module of that handle, if it is registered and loaded; otherwise null.
Module* FromHandle(HMODULE handle) {
  for (Module& module : Modules())
    if (reinterpret_cast<HMODULE>(&module) == handle && module.loaded > 0) return &module;
  return nullptr;
}

Module* FindByAddress(FARPROC address) {
  for (Module& module : Modules()) {
    for (const auto& [name, exported] : module.exports)
      if (exported == address) return &module;
  }
  return nullptr;
}

// Stands for the module of the program itself.
HMODULE TheProgram() {
  static Module program;
  return reinterpret_cast<HMODULE>(&program);
}

HMODULE Load(const std::wstring& path) {
  std::lock_guard hold(modules_lock);
  Module* module = FindForLoad(path);
  if (!module) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  ++module->loaded;
  ++module->loads_ever;
  return reinterpret_cast<HMODULE>(module);
}

}  // namespace

void RegisterModule(const std::wstring& path, const std::map<std::string, FARPROC>& exports) {
  UnregisterModule(path);
  std::lock_guard hold(modules_lock);
  Modules().push_back({Expand(path), exports});
}

void UnregisterModule(const std::wstring& path) {
  std::lock_guard hold(modules_lock);
  const std::wstring expanded = Expand(path);
  Modules().remove_if([&](const Module& module) { return SameName(module.path, expanded); });
}

int LoadCount(const std::wstring& path) {
  std::lock_guard hold(modules_lock);
  const Module* module = FindByPath(path);
  return module ? module->loaded : 0;
}

int LoadsEver(const std::wstring& path) {
  std::lock_guard hold(modules_lock);
  const Module* module = FindByPath(path);
  return module ? module->loads_ever : 0;
}

}  // namespace port

HMODULE WINAPI LoadLibraryW(LPCWSTR path) {
  if (port::Fails("LoadLibraryW")) return nullptr;
  if (path && *path) return port::Load(path);
  SetLastError(ERROR_INVALID_PARAMETER);
  return nullptr;
}

HMODULE WINAPI LoadLibraryA(LPCSTR path) {
  if (port::Fails("LoadLibraryA")) return nullptr;
  if (path && *path) return port::Load(port::WideFromAnsi(path));
  SetLastError(ERROR_INVALID_PARAMETER);
  return nullptr;
}

FARPROC WINAPI GetProcAddress(HMODULE handle, LPCSTR name) {
  if (port::Fails("GetProcAddress")) return nullptr;
  std::lock_guard hold(port::modules_lock);
  const port::Module* module = port::FromHandle(handle);
  if (module) {
    if (auto at = module->exports.find(name); at != module->exports.end()) return at->second;
  }
  SetLastError(module ? ERROR_PROC_NOT_FOUND : ERROR_MOD_NOT_FOUND);
  return nullptr;
}

BOOL WINAPI FreeLibrary(HMODULE handle) {
  if (port::Fails("FreeLibrary")) return FALSE;
  std::lock_guard hold(port::modules_lock);
  port::Module* module = port::FromHandle(handle);
  if (!module) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return FALSE;
  }
  if (module->loaded > 1 || !module->pinned) --module->loaded;
  return TRUE;
}

BOOL WINAPI GetModuleHandleExW(DWORD flags, LPCWSTR address, HMODULE* out) {
  if (port::Fails("GetModuleHandleExW")) return FALSE;
  constexpr DWORD kKnown = GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
  if (!out || flags != kKnown) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::lock_guard hold(port::modules_lock);
  const auto function = reinterpret_cast<FARPROC>(const_cast<wchar_t*>(address));
  port::Module* const module = port::FindByAddress(function);
  if (!module) {
    *out = port::TheProgram();
    return TRUE;
  }
  module->pinned = true;
  module->loaded = std::max(module->loaded, 1);
  *out = reinterpret_cast<HMODULE>(module);
  return TRUE;
}

DWORD WINAPI GetModuleFileNameW(HMODULE handle, LPWSTR out, DWORD size) {
  if (port::Fails("GetModuleFileNameW")) return 0;
  std::wstring path;
  {
    std::lock_guard hold(port::modules_lock);
    const port::Module* module = handle ? port::FromHandle(handle) : nullptr;
    if (handle && !module) {
      SetLastError(ERROR_MOD_NOT_FOUND);
      return 0;
    }
    path = module ? module->path : port::CurrentProcess().path;
  }
  const bool fits = path.size() < size;
  SetLastError(fits ? 0 : ERROR_INSUFFICIENT_BUFFER);
  if (size == 0) return 0;
  const size_t length = fits ? path.size() : size - 1;
  std::copy_n(path.begin(), length, out);
  out[length] = L'\0';
  return fits ? static_cast<DWORD>(length) : size;  // a truncated path fills the whole buffer
}
