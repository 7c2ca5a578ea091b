// One program, started suspended, with the host's report about it.
#pragma once

#include <windows.h>

#include <string>

#include "winsock_host/host_config.h"
#include "winsock_host/kinds.h"
#include "winsock_host/report.h"

namespace vyr_run {

// Owns the process, the job that ends it with us, and the shared report. Used by one thread.
class HostedProgram {
 public:
  HostedProgram() = default;
  ~HostedProgram();
  HostedProgram(const HostedProgram&) = delete;
  HostedProgram& operator=(const HostedProgram&) = delete;

  // If false, problem() says why. A program that is never resumed is ended without having run.
  bool Start(const std::wstring& program, const std::wstring& command_line);

  winsock_host::Kind kind() const { return winsock_host::KindOfProcess(process_.hProcess); }

  // Full, as the program itself and the library get it. Empty if it is not known.
  std::wstring ImagePath() const;

  // For a program of our own kind.
  bool PlaceHost(const std::wstring& host_path, winsock_host::HostConfig config);
  // For one of the other kind, through the launcher of that kind. Returns its exit code, or
  // `no_launcher` if there is none. The launcher itself prints errors.
  DWORD PlaceByLauncher(winsock_host::HostConfig config, DWORD no_launcher);

  // Resumes the program, and returns its exit code when it has ended.
  DWORD RunToEnd();

  const winsock_host::HostReport* report() const { return report_; }
  const std::wstring& problem() const { return problem_; }

 private:
  bool Fail(const std::wstring& what, DWORD error);
  bool CreateReport();

  PROCESS_INFORMATION process_ = {};
  HANDLE job_ = nullptr;
  HANDLE mapping_ = nullptr;
  winsock_host::HostReport* report_ = nullptr;
  bool let_go_ = false;
  std::wstring problem_;
};

}  // namespace vyr_run
