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

// One line for the run, one for each start of a catalogue entry and its cleanup, one for each call
// that was used, one for each text of debugger output. False if the file cannot be written.
bool WriteTrace(const std::wstring& path, const RunFacts& facts,
                const winsock_host::HostReport& report);

}  // namespace vyr_run
