// Loadable modules: a registry that tests fill with exports, instead of files.
//
// Paths are compared without regard to letter case. A name without a directory finds the first
// module of that name, and ".dll" is added if there is no extension. A module is "loaded" while its
// count is above zero. Its functions can still be called afterwards: to detect a use after
// FreeLibrary, check the count.
#pragma once
#include <windows.h>

#include <map>
#include <string>

namespace port {

// Replaces a module of the same path, including its counts.
void RegisterModule(const std::wstring& path, const std::map<std::string, FARPROC>& exports);
void UnregisterModule(const std::wstring& path);

// The module's current load count, and how often it has been loaded in total. The count of a pinned
// module never falls below one.
int LoadCount(const std::wstring& path);
int LoadsEver(const std::wstring& path);

// The path at which the backend's own base provider is registered, exporting WSPStartup, and its
// GUID in the catalogue.
inline constexpr wchar_t kBaseProviderPath[] = L"%SystemRoot%\\system32\\port_base.dll";
inline constexpr GUID kBaseProviderGuid = {
    0x8f5a1c3e, 0x2b67, 0x4d90, {0x9e, 0x41, 0x5c, 0x72, 0x0a, 0xd3, 0x16, 0xb8}};

}  // namespace port
