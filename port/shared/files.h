// Files of the simulated or ported machine: real files under a root directory of the process.
// "C:\a\b" is root/C/a/b; "\a" and relative paths are on drive C. Names are found whatever the
// case of their letters.
#pragma once
#include <string>

namespace port {

// Created with its parents when missing. Without a call, a fresh temporary directory is made
// on first use and removed at exit. Call before other threads touch files.
void SetFileRoot(const std::string& directory);
std::string FileRoot();

// For a process that ends without exit(): removes the temporary directory, if it made one.
void RemoveTemporaryRoot();

// The host path of a Windows path. Existing names are found whatever their letter case.
std::string HostPath(const std::wstring& path);

// Makes the directory of a Windows path with all its parents; for a test's set-up.
void MakeDirectories(const std::wstring& path);

}  // namespace port
