// Finding the files of a run, and telling what kind of module each is.
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

// The program as the platform would look for it: as given, in the current directory, on the
// search path, with ".exe" where there is no extension. Empty when there is none.
std::wstring FindProgram(const std::wstring& name);

std::wstring FullPath(const std::wstring& path);

// What stands behind the last separator.
std::wstring FileName(const std::wstring& path);

}  // namespace vyr_run
