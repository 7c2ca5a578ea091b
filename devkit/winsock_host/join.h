// Places the host in a suspended program that has not yet run. A process of one kind cannot inject
// into one of the other, and the host should not contain the injector, so the launcher of the
// program's own kind is started, as
//
//   LAUNCHER --join PROCESS MAPPING
//
// PROCESS is the program's id; MAPPING an inherited handle of a mapping that holds a HostConfig.
// The launcher fills in paths that are empty there. It ends with 0 once the host is in place.
#pragma once

#include <windows.h>

#include <string>

#include "host_config.h"

namespace winsock_host {

// `folder` is where the caller's files are. `config` is the caller's own, and its report_mapping a
// handle of the caller's. The launcher prints to the caller's error output. Returns the launcher's
// exit code, or no_launcher if it cannot be started or does not return.
DWORD JoinProgram(const std::wstring& folder, const PROCESS_INFORMATION& program,
                  const HostConfig& config, DWORD no_launcher);

// The launcher's side. False if its arguments do not ask for this.
struct JoinRequest {
  DWORD process_id;
  HANDLE mapping;
};
bool ParseJoinRequest(int argc, char** argv, JoinRequest* request);
// Reads the mapping; false if it does not hold such a record.
bool ReadJoinConfig(HANDLE mapping, HostConfig* config);

}  // namespace winsock_host
