#include "injector.h"

#include <vector>

#include "text.h"

namespace vyr_run {
namespace {

using winsock_host::HostConfig;
using winsock_host::HostReport;

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
      return L"winsock_host.dll and vyr_run.exe are of different builds";
    case winsock_host::kHostNoReport:
      return L"the host could not map its report";
    case winsock_host::kHostNoBaseProvider:
      return L"winsock_base.dll could not be started in the program";
    default:
      return L"the host failed in the program";
  }
}

}  // namespace

HostedProgram::~HostedProgram() {
  if (process_.hProcess != nullptr) {
    if (!let_go_) TerminateProcess(process_.hProcess, 1);
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
  }
  if (report_ != nullptr) UnmapViewOfFile(report_);
  if (mapping_ != nullptr) CloseHandle(mapping_);
  if (job_ != nullptr) CloseHandle(job_);
}

bool HostedProgram::Fail(const std::wstring& what, DWORD error) {
  problem_ = what + L": " + ErrorText(error);
  return false;
}

bool HostedProgram::Start(const std::wstring& program, const std::wstring& command_line) {
  // Whoever ends us ends the program too, not only our half.
  job_ = CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags =
      JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK;
  SetInformationJobObject(job_, JobObjectExtendedLimitInformation, &limits, sizeof(limits));

  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  for (const HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError}) {
    SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  }
  std::vector<wchar_t> line(command_line.begin(), command_line.end());
  line.push_back(0);  // the platform may write into it
  if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                      nullptr, nullptr, &startup, &process_)) {
    return Fail(L"cannot start " + program, GetLastError());
  }
  AssignProcessToJobObject(job_, process_.hProcess);
  return true;
}

bool HostedProgram::CreateReport(DWORD* handle_in_program) {
  mapping_ = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                sizeof(HostReport), nullptr);
  if (mapping_ == nullptr) return Fail(L"no shared memory for the report", GetLastError());
  report_ = static_cast<HostReport*>(
      MapViewOfFile(mapping_, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(HostReport)));
  if (report_ == nullptr) return Fail(L"no view of the report", GetLastError());
  report_->version = winsock_host::kHostVersion;
  HANDLE in_program = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), mapping_, process_.hProcess, &in_program, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    return Fail(L"cannot hand over the report", GetLastError());
  }
  *handle_in_program = static_cast<DWORD>(reinterpret_cast<uintptr_t>(in_program));
  return true;
}

void* HostedProgram::CopyIntoProgram(const void* data, size_t size) {
  void* copy =
      VirtualAllocEx(process_.hProcess, nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
  SIZE_T written = 0;
  if (copy != nullptr && WriteProcessMemory(process_.hProcess, copy, data, size, &written)) {
    return copy;
  }
  Fail(L"cannot write into the program", GetLastError());
  return nullptr;
}

bool HostedProgram::CallInProgram(void* function, void* argument, DWORD* result) {
  constexpr DWORD kLongestWaitMs = 60'000;
  const HANDLE thread =
      CreateRemoteThread(process_.hProcess, nullptr, 0,
                         reinterpret_cast<LPTHREAD_START_ROUTINE>(function), argument, 0, nullptr);
  if (thread == nullptr) return Fail(L"no thread in the program", GetLastError());
  const bool ended = WaitForSingleObject(thread, kLongestWaitMs) == WAIT_OBJECT_0 &&
                     GetExitCodeThread(thread, result);
  CloseHandle(thread);
  if (!ended) problem_ = L"a thread in the program did not come back in time";
  return ended;
}

bool HostedProgram::PlaceHost(const std::wstring& host_path, HostConfig config) {
  const uintptr_t offset = OffsetOfHostStart(host_path);
  if (offset == 0) {
    problem_ = host_path + L" has no HostStart";
    return false;
  }
  if (!CreateReport(reinterpret_cast<DWORD*>(&config.report_mapping))) return false;
  void* path = CopyIntoProgram(host_path.c_str(), (host_path.size() + 1) * sizeof(wchar_t));
  void* remote_config = CopyIntoProgram(&config, sizeof(config));
  if (path == nullptr || remote_config == nullptr) return false;

  // kernel32 has one address in all processes of a session, and a 32-bit module handle fits a
  // thread's exit code.
  void* load_library =
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "LoadLibraryW"));
  DWORD module = 0;
  if (!CallInProgram(load_library, path, &module)) return false;
  if (module == 0) {
    problem_ = host_path + L" could not be loaded in the program";
    return false;
  }
  DWORD result = 0;
  if (!CallInProgram(reinterpret_cast<void*>(module + offset), remote_config, &result)) {
    return false;
  }
  if (result != winsock_host::kHostStarted) problem_ = Explain(result);
  return result == winsock_host::kHostStarted;
}

DWORD HostedProgram::RunToEnd() {
  let_go_ = true;
  ResumeThread(process_.hThread);
  WaitForSingleObject(process_.hProcess, INFINITE);
  DWORD exit_code = 0;
  GetExitCodeProcess(process_.hProcess, &exit_code);
  return exit_code;
}

}  // namespace vyr_run
