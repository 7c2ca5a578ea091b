// One program, started suspended, with the report of what the host sees in it.
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

  // On false, problem() says why. A program that is never let run is ended without having run.
  bool Start(const std::wstring& program, const std::wstring& command_line);

  winsock_host::Kind kind() const { return winsock_host::KindOfProcess(process_.hProcess); }

  // For a program of our own kind.
  bool PlaceHost(const std::wstring& host_path, winsock_host::HostConfig config);
  // For one of the other kind, by the launcher of that kind: its exit code, or `no_launcher` if
  // there is none. It has printed itself what is wrong.
  DWORD PlaceByLauncher(winsock_host::HostConfig config, DWORD no_launcher);

  // Lets the program run; its exit code once it has ended.
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
