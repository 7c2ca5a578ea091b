// Finding the files of a run, and telling what kind of module each is.
#pragma once

#include <string>

namespace vyr_run {

enum class ModuleKind { kMissing, kNotExecutable, kOtherBitness, kProgram32, kLibrary32 };

ModuleKind KindOf(const std::wstring& path);

// The program as the platform would look for it: as given, in the current directory, on the
// search path, with ".exe" where there is no extension. Empty when there is none.
std::wstring FindProgram(const std::wstring& name);

std::wstring FullPath(const std::wstring& path);

// `name` in the folder of the running executable.
std::wstring BesideExecutable(const wchar_t* name);

}  // namespace vyr_run
