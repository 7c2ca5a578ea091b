// What a process is to the calls that ask: its program, command line, id, and the providers
// that Winsock has started in it.
#pragma once
#include <string>

#include "port/shared/winsock.h"

namespace port {

struct Process {
  std::wstring path = L"C:\\game\\game.exe";
  std::string command_line = "\"C:\\game\\game.exe\"";
  DWORD pid = 1000;
  SocketLayers layers;
};

// Sets what GetModuleFileNameW(NULL), GetCommandLineA and GetCurrentProcessId answer in the
// calling thread's process. Call before other threads ask.
void SetProcess(const std::wstring& path, const std::string& command_line, DWORD pid);

}  // namespace port
