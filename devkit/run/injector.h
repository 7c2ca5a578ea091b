// Places the host in a program of our own kind that has not run yet.
#pragma once

#include <windows.h>

#include <string>

#include "winsock_host/host_config.h"

namespace vyr_run {

// `process` stays owned by the caller, and must allow writing to its memory and starting threads.
class Injector {
 public:
  Injector(HANDLE process, DWORD process_id) : process_(process), process_id_(process_id) {}

  // On false, problem() says why. The report's handle in `config` is the program's.
  bool PlaceHost(const std::wstring& host_path, const winsock_host::HostConfig& config);

  const std::wstring& problem() const { return problem_; }

 private:
  bool Fail(const std::wstring& what, DWORD error);
  void* CopyIntoProgram(const void* data, size_t size);
  bool CallInProgram(void* function, void* argument, DWORD* result);
  uintptr_t BaseInProgram(const std::wstring& host_path);

  const HANDLE process_;
  const DWORD process_id_;
  std::wstring problem_;
};

}  // namespace vyr_run
