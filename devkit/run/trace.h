// The report of a run as JSON lines.
#pragma once

#include <windows.h>

#include <string>

#include "winsock_host/report.h"

namespace vyr_run {

struct RunFacts {
  std::wstring program;
  std::wstring library;  // empty: bare
  bool is_x64;
  DWORD exit_code;
};

// One line for the run, one per start of a catalogue entry and one per its cleanup, one per call
// that was made, one per text of debugger output. False when the file cannot be written.
bool WriteTrace(const std::wstring& path, const RunFacts& facts,
                const winsock_host::HostReport& report);

}  // namespace vyr_run
