// Shows the library's log while the program runs.
#pragma once

#include <windows.h>

#include <string>

#include "winsock_host/report.h"

namespace vyr_run {

// Which file the log is, the library says itself, in the debugger output that the report holds. A
// thread of its own reads along and prints to standard error. Used by one thread.
class LogFollower {
 public:
  // Shows lines of that level and above. The report must outlive this object.
  LogFollower(const winsock_host::HostReport* report, int level);
  ~LogFollower();
  LogFollower(const LogFollower&) = delete;
  LogFollower& operator=(const LogFollower&) = delete;

 private:
  static DWORD WINAPI Run(LPVOID self);
  void Look();
  bool FindFile();
  void Read();
  void Show(std::string line);

  const winsock_host::HostReport* const report_;
  const int level_;
  HANDLE ended_ = nullptr;
  HANDLE thread_ = nullptr;
  // Of the thread.
  size_t seen_ = 0;  // bytes of the debugger output
  HANDLE file_ = INVALID_HANDLE_VALUE;
  std::string rest_;           // the line that is not complete yet
  bool last_is_shown_ = true;  // the line before, whose further lines have no level of their own
};

}  // namespace vyr_run
