// Finds the files of a run, and the kind of each module.
#pragma once

#include <string>

#include "winsock_host/kinds.h"

namespace vyr_run {

enum class ModuleForm { kMissing, kNotExecutable, kOtherMachine, kProgram, kLibrary };

struct Module {
  ModuleForm form;
  winsock_host::Kind kind;  // of a program or a library
};

Module ModuleAt(const std::wstring& path);

// Finds the program as the platform does: as given, in the current directory, on the search path,
// with ".exe" if it has no extension. Empty if it is not found.
std::wstring FindProgram(const std::wstring& name);

std::wstring FullPath(const std::wstring& path);

// The part after the last separator.
std::wstring FileName(const std::wstring& path);

}  // namespace vyr_run
