#include "injector.h"

#include <tlhelp32.h>

#include <cwchar>

#include "files.h"
#include "text.h"

namespace vyr_run {
namespace {

// The host's entry lies at the same distance from its base in every process.
uintptr_t OffsetOfHostStart(const std::wstring& host_path) {
  const HMODULE module = LoadLibraryExW(host_path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
  if (module == nullptr) return 0;
  const auto function = reinterpret_cast<uintptr_t>(GetProcAddress(module, "HostStart"));
  const uintptr_t offset = function == 0 ? 0 : function - reinterpret_cast<uintptr_t>(module);
  FreeLibrary(module);
  return offset;
}

const wchar_t* Explain(DWORD host_start_result) {
  switch (host_start_result) {
    case winsock_host::kHostWrongVersion:
      return L"the host and its launcher are of different builds";
    case winsock_host::kHostNoReport:
      return L"the host could not map its report";
    case winsock_host::kHostNoBaseProvider:
      return L"the base provider could not be started in the program";
    case winsock_host::kHostNoCatalogue:
      return L"the file of --catalogue holds no catalogue for programs of this kind, or one too "
             L"long";
    default:
      return L"the host failed in the program";
  }
}

}  // namespace

bool Injector::Fail(const std::wstring& what, DWORD error) {
  problem_ = what + L": " + ErrorText(error);
  return false;
}

void* Injector::CopyIntoProgram(const void* data, size_t size) {
  void* copy = VirtualAllocEx(process_, nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
  SIZE_T written = 0;
  if (copy != nullptr && WriteProcessMemory(process_, copy, data, size, &written)) return copy;
  Fail(L"cannot write into the program", GetLastError());
  return nullptr;
}

bool Injector::CallInProgram(void* function, void* argument, DWORD* result) {
  constexpr DWORD kLongestWaitMs = 60'000;
  const HANDLE thread =
      CreateRemoteThread(process_, nullptr, 0, reinterpret_cast<LPTHREAD_START_ROUTINE>(function),
                         argument, 0, nullptr);
  if (thread == nullptr) return Fail(L"no thread in the program", GetLastError());
  const bool ended = WaitForSingleObject(thread, kLongestWaitMs) == WAIT_OBJECT_0 &&
                     GetExitCodeThread(thread, result);
  CloseHandle(thread);
  if (!ended) problem_ = L"a thread in the program did not come back in time";
  return ended;
}

// A module's handle is wider than the exit code of the thread that has loaded it.
uintptr_t Injector::BaseInProgram(const std::wstring& host_path) {
  const HANDLE modules = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, process_id_);
  if (modules == INVALID_HANDLE_VALUE) return 0;
  const std::wstring name = FileName(host_path);
  MODULEENTRY32W entry = {};
  entry.dwSize = sizeof(entry);
  uintptr_t base = 0;
  for (BOOL more = Module32FirstW(modules, &entry); more && base == 0;
       more = Module32NextW(modules, &entry)) {
    if (_wcsicmp(entry.szModule, name.c_str()) != 0) continue;
    base = reinterpret_cast<uintptr_t>(entry.modBaseAddr);
  }
  CloseHandle(modules);
  return base;
}

bool Injector::PlaceHost(const std::wstring& host_path, const winsock_host::HostConfig& config) {
  const uintptr_t offset = OffsetOfHostStart(host_path);
  if (offset == 0) {
    problem_ = host_path + L" has no HostStart";
    return false;
  }
  void* path = CopyIntoProgram(host_path.c_str(), (host_path.size() + 1) * sizeof(wchar_t));
  void* remote_config = CopyIntoProgram(&config, sizeof(config));
  if (path == nullptr || remote_config == nullptr) return false;

  // kernel32 has one address in all processes of a kind in a session.
  void* load_library =
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "LoadLibraryW"));
  DWORD loaded = 0;
  if (!CallInProgram(load_library, path, &loaded)) return false;
  const uintptr_t base = BaseInProgram(host_path);
  if (base == 0) {
    problem_ = host_path + L" could not be loaded in the program";
    return false;
  }
  DWORD result = 0;
  if (!CallInProgram(reinterpret_cast<void*>(base + offset), remote_config, &result)) return false;
  if (result != winsock_host::kHostStarted) problem_ = Explain(result);
  return result == winsock_host::kHostStarted;
}

}  // namespace vyr_run
