// Keeps the calling thread's last error unchanged over a scope. Logging happens between a failed
// call and the code that asks why it failed, so it must not change the error.
#pragma once
#include <winsock2.h>

namespace common {

class KeepLastError {
 public:
  KeepLastError() noexcept : error_(GetLastError()) {}
  ~KeepLastError() { SetLastError(error_); }
  KeepLastError(const KeepLastError&) = delete;
  KeepLastError& operator=(const KeepLastError&) = delete;

 private:
  const DWORD error_;
};

}  // namespace common
