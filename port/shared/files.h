// The file system of the simulated or ported machine: real files under a root directory of the
// process. "C:\a\b" is root/C/a/b; "\a" and relative paths are on drive C. Names of existing files
// are matched without regard to letter case.
#pragma once
#include <string>

namespace port {

// Creates the directory and its parents if they are missing. Without this call, the root is a
// temporary directory that is created on first use and removed at exit. Call it before other
// threads use files.
void SetFileRoot(const std::string& directory);
std::string FileRoot();

// Removes the process's temporary directory, if there is one. For a process that ends without
// exit().
void RemoveTemporaryRoot();

// The host path of a Windows path.
std::string HostPath(const std::wstring& path);

// Creates the directory of a Windows path and all its parents; for setting up a test.
void MakeDirectories(const std::wstring& path);

}  // namespace port
