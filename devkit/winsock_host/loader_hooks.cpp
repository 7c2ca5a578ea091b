#include "loader_hooks.h"

#include <windows.h>

#include <winternl.h>

#include "patch.h"
#include "report.h"

namespace winsock_host {
namespace {

using LoadDll = NTSTATUS(NTAPI*)(LPCWSTR, DWORD*, const UNICODE_STRING*, HMODULE*);
using GetProcedure = NTSTATUS(NTAPI*)(HMODULE, const ANSI_STRING*, ULONG, void**);
using NotificationFunction = void(NTAPI*)(ULONG reason, const void* data, void* context);
using RegisterNotification = NTSTATUS(NTAPI*)(ULONG, NotificationFunction, void*, void**);

LoadDll g_load_dll;
GetProcedure g_get_procedure;

// What the loader reports about a module that was loaded; the fields are the platform's.
struct LoadNotice {
  ULONG flags;
  const UNICODE_STRING* full_name;
  const UNICODE_STRING* base_name;
  HMODULE base;
  ULONG size;
};
constexpr ULONG kModuleLoaded = 1;

template <typename Result>
Result AfterLoad(Result result) {
  if (result) PatchNewModules();  // keeps the last error
  return result;
}

HMODULE WINAPI HookedLoadLibraryA(LPCSTR name) { return AfterLoad(LoadLibraryA(name)); }
HMODULE WINAPI HookedLoadLibraryW(LPCWSTR name) { return AfterLoad(LoadLibraryW(name)); }
HMODULE WINAPI HookedLoadLibraryExA(LPCSTR name, HANDLE file, DWORD flags) {
  return AfterLoad(LoadLibraryExA(name, file, flags));
}
HMODULE WINAPI HookedLoadLibraryExW(LPCWSTR name, HANDLE file, DWORD flags) {
  return AfterLoad(LoadLibraryExW(name, file, flags));
}
NTSTATUS NTAPI HookedLdrLoadDll(LPCWSTR path, DWORD* flags, const UNICODE_STRING* name,
                                HMODULE* module) {
  const NTSTATUS status = g_load_dll(path, flags, name, module);
  if (status >= 0) PatchNewModules();
  return status;
}

FARPROC WINAPI HookedGetProcAddress(HMODULE module, LPCSTR name) {
  void* function = reinterpret_cast<void*>(GetProcAddress(module, name));
  return reinterpret_cast<FARPROC>(ReplacementFor(function));
}
NTSTATUS NTAPI HookedLdrGetProcedureAddress(HMODULE module, const ANSI_STRING* name, ULONG ordinal,
                                            void** function) {
  const NTSTATUS status = g_get_procedure(module, name, ordinal, function);
  if (status >= 0 && function != nullptr) *function = ReplacementFor(*function);
  return status;
}

void WINAPI HookedOutputDebugStringA(LPCSTR text) {
  if (text != nullptr) RecordDebugText(text);
  OutputDebugStringA(text);
}

void NTAPI OnModuleNotice(ULONG reason, const void* data, void*) {
  if (reason != kModuleLoaded) return;
  const DWORD last_error = GetLastError();
  PatchModule(static_cast<const LoadNotice*>(data)->base);
  SetLastError(last_error);
}

void* Find(const wchar_t* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(module), name));
}

// One function may have an address in each of the two modules that export it.
void AddKernelReplacement(const char* name, void* replacement) {
  AddReplacement(Find(L"kernel32.dll", name), replacement);
  AddReplacement(Find(L"kernelbase.dll", name), replacement);
}

template <typename Function>
void* AddressOf(Function* function) {
  return reinterpret_cast<void*>(function);
}

}  // namespace

void AddLoaderReplacements() {
  g_load_dll = reinterpret_cast<LoadDll>(Find(L"ntdll.dll", "LdrLoadDll"));
  g_get_procedure = reinterpret_cast<GetProcedure>(Find(L"ntdll.dll", "LdrGetProcedureAddress"));
  AddKernelReplacement("LoadLibraryA", AddressOf(HookedLoadLibraryA));
  AddKernelReplacement("LoadLibraryW", AddressOf(HookedLoadLibraryW));
  AddKernelReplacement("LoadLibraryExA", AddressOf(HookedLoadLibraryExA));
  AddKernelReplacement("LoadLibraryExW", AddressOf(HookedLoadLibraryExW));
  AddKernelReplacement("GetProcAddress", AddressOf(HookedGetProcAddress));
  AddKernelReplacement("OutputDebugStringA", AddressOf(HookedOutputDebugStringA));
  AddReplacement(AddressOf(g_load_dll), AddressOf(HookedLdrLoadDll));
  AddReplacement(AddressOf(g_get_procedure), AddressOf(HookedLdrGetProcedureAddress));
}

void FollowModuleLoads() {
  const auto register_notification =
      reinterpret_cast<RegisterNotification>(Find(L"ntdll.dll", "LdrRegisterDllNotification"));
  if (register_notification == nullptr) return;
  void* cookie = nullptr;
  register_notification(0, OnModuleNotice, nullptr, &cookie);
}

}  // namespace winsock_host
