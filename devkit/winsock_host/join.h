// Placing the host in a program that waits, suspended, for its first instruction. A process of one
// kind cannot be entered by one of the other, and a host cannot carry the launcher's work into each
// program: the launcher of the program's own kind is started for it, as
//
//   LAUNCHER --join PROCESS MAPPING
//
// PROCESS is the program's id; MAPPING an inherited handle of a mapping that holds a HostConfig.
// Paths that are empty there are the launcher's to fill in. It ends with 0 once the host is in
// place.
#pragma once

#include <windows.h>

#include <string>

#include "host_config.h"

namespace winsock_host {

// `folder` is where the caller's files lie. `config` is the caller's own, and its report_mapping a
// handle of the caller's. Whatever the launcher says goes to the caller's error output.
// The launcher's exit code; no_launcher where it cannot be started or does not come back.
DWORD JoinProgram(const std::wstring& folder, const PROCESS_INFORMATION& program,
                  const HostConfig& config, DWORD no_launcher);

// The launcher's side. False when its arguments ask for nothing of the kind.
struct JoinRequest {
  DWORD process_id;
  HANDLE mapping;
};
bool ParseJoinRequest(int argc, char** argv, JoinRequest* request);
// What the mapping holds; false when it is none of ours.
bool ReadJoinConfig(HANDLE mapping, HostConfig* config);

}  // namespace winsock_host
