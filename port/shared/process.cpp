#include "port/shared/process.h"

#include "port/shared/backend.h"

namespace port {

void SetProcess(const std::wstring& path, const std::string& command_line, DWORD pid) {
  Process& process = CurrentProcess();
  process.path = path;
  process.command_line = command_line;
  process.pid = pid;
}

}  // namespace port

LPSTR WINAPI GetCommandLineA() { return port::CurrentProcess().command_line.data(); }

DWORD WINAPI GetCurrentProcessId() { return port::CurrentProcess().pid; }
