#include "hosted_program.h"

#include <vector>

#include "injector.h"
#include "text.h"
#include "winsock_host/join.h"

namespace vyr_run {

using winsock_host::HostConfig;
using winsock_host::HostReport;

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
  // If we are ended, the program is ended too.
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
  return CreateReport();
}

bool HostedProgram::CreateReport() {
  mapping_ = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                sizeof(HostReport), nullptr);
  if (mapping_ == nullptr) return Fail(L"no shared memory for the report", GetLastError());
  report_ = static_cast<HostReport*>(
      MapViewOfFile(mapping_, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(HostReport)));
  if (report_ == nullptr) return Fail(L"no view of the report", GetLastError());
  report_->version = winsock_host::kHostVersion;
  return true;
}

std::wstring HostedProgram::ImagePath() const {
  std::vector<wchar_t> path(32768);
  DWORD size = static_cast<DWORD>(path.size());
  if (!QueryFullProcessImageNameW(process_.hProcess, 0, path.data(), &size)) return {};
  return {path.data(), size};
}

bool HostedProgram::PlaceHost(const std::wstring& host_path, HostConfig config) {
  HANDLE in_program = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), mapping_, process_.hProcess, &in_program, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    return Fail(L"cannot hand over the report", GetLastError());
  }
  config.report_mapping = winsock_host::HandleValue(in_program);
  Injector injector(process_.hProcess, process_.dwProcessId);
  const bool placed = injector.PlaceHost(host_path, config);
  problem_ = injector.problem();
  return placed;
}

DWORD HostedProgram::PlaceByLauncher(HostConfig config, DWORD no_launcher) {
  config.report_mapping = winsock_host::HandleValue(mapping_);
  return winsock_host::JoinProgram(winsock_host::FolderOf(nullptr), process_, config, no_launcher);
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
