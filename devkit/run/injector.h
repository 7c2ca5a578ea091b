// One program, started suspended, with the host placed in it before its first instruction runs.
#pragma once

#include <windows.h>

#include <string>

#include "winsock_host/host_config.h"
#include "winsock_host/report.h"

namespace vyr_run {

// Owns the process, the job that ends it with us, and the shared report. Used by one thread.
class HostedProgram {
 public:
  HostedProgram() = default;
  ~HostedProgram();
  HostedProgram(const HostedProgram&) = delete;
  HostedProgram& operator=(const HostedProgram&) = delete;

  // Each false leaves a sentence in problem(). On false after Start the program is ended unrun.
  bool Start(const std::wstring& program, const std::wstring& command_line);
  bool PlaceHost(const std::wstring& host_path, winsock_host::HostConfig config);

  // Lets the program run; its exit code once it has ended.
  DWORD RunToEnd();

  const winsock_host::HostReport* report() const { return report_; }
  const std::wstring& problem() const { return problem_; }

 private:
  bool Fail(const std::wstring& what, DWORD error);
  bool CreateReport(DWORD* handle_in_program);
  void* CopyIntoProgram(const void* data, size_t size);
  bool CallInProgram(void* function, void* argument, DWORD* result);

  PROCESS_INFORMATION process_ = {};
  HANDLE job_ = nullptr;
  HANDLE mapping_ = nullptr;
  winsock_host::HostReport* report_ = nullptr;
  bool let_go_ = false;
  std::wstring problem_;
};

}  // namespace vyr_run
