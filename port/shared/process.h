// What the calls know of a process: its program, command line, id, and the providers that Winsock
// has started in it.
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

// Sets the results of GetModuleFileNameW(NULL), GetCommandLineA and GetCurrentProcessId in the
// calling thread's process. Call it before other threads use them.
void SetProcess(const std::wstring& path, const std::string& command_line, DWORD pid);

}  // namespace port
